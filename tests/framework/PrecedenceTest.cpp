// Which threads have their turn before others. Only some users may have that.
#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

#include "faults/LibraryFaults.h"
#include "framework/Precedence.h"
#include "support/NiceValue.h"

namespace {

using drovane::Precedence;

int nice() { return niceOf(0); }

// Each in a thread of its own, whose nice value is nobody else's.
template <typename Body>
void inThread(Body body) {
  std::thread(body).join();
}

TEST(PrecedenceTest, IsTheThreadsOwnForAsLongAsItIsHeld) {
  SKIP_UNLESS_THREADS_MAY_GO_FIRST();
  const int usual = nice();
  inThread([&] {
    {
      const Precedence precedence;
      EXPECT_EQ(nice(), tenStepsBefore(usual));
      inThread(
          [&] { EXPECT_EQ(nice(), tenStepsBefore(usual)); });  // a new thread has that of its maker
    }
    EXPECT_EQ(nice(), usual);
  });
  EXPECT_EQ(nice(), usual);
}

TEST(PrecedenceTest, IsGivenUpWhileItIsWaived) {
  SKIP_UNLESS_THREADS_MAY_GO_FIRST();
  const int usual = nice();
  inThread([&] {
    const Precedence precedence;
    {
      const Precedence::Waived waived(precedence);
      EXPECT_EQ(nice(), usual);
    }
    EXPECT_EQ(nice(), tenStepsBefore(usual));
  });
}

TEST(PrecedenceTest, ThatIsRefusedChangesNothing) {
  const int usual = nice();
  const LibraryFault fault("setpriority", EACCES, LibraryFault::On::ThisThread);
  const Precedence precedence;
  EXPECT_EQ(nice(), usual);
  const Precedence::Waived waived(precedence);
  EXPECT_EQ(nice(), usual);
}

}  // namespace
