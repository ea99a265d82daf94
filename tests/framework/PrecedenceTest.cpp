// Which threads have their turn before others. Only some users may have that.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <thread>

#include "faults/LibraryFaults.h"
#include "framework/Precedence.h"

namespace {

using drovane::Precedence;

int nice() { return ::getpriority(PRIO_PROCESS, 0); }

// Each in a thread of its own, whose nice value is nobody else's.
template <typename Body>
void inThread(Body body) {
  std::thread(body).join();
}

bool allowed() {
  bool result = false;
  inThread([&] { result = ::setpriority(PRIO_PROCESS, 0, nice() - 10) == 0; });
  return result;
}

#define SKIP_UNLESS_ALLOWED() \
  if (!allowed()) GTEST_SKIP() << "this user may not raise the precedence of a thread"

TEST(PrecedenceTest, IsTheThreadsOwnForAsLongAsItIsHeld) {
  SKIP_UNLESS_ALLOWED();
  const int usual = nice();
  inThread([&] {
    {
      const Precedence precedence;
      EXPECT_EQ(nice(), usual - 10);
      inThread([&] { EXPECT_EQ(nice(), usual - 10); });  // a new thread has that of its maker
    }
    EXPECT_EQ(nice(), usual);
  });
  EXPECT_EQ(nice(), usual);
}

TEST(PrecedenceTest, IsGivenUpWhileItIsWaived) {
  SKIP_UNLESS_ALLOWED();
  const int usual = nice();
  inThread([&] {
    const Precedence precedence;
    {
      const Precedence::Waived waived(precedence);
      EXPECT_EQ(nice(), usual);
    }
    EXPECT_EQ(nice(), usual - 10);
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
