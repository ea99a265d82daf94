// The main thread's helpers: work on another thread, and signals as events.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <system_error>

#include "drovane/Phase.h"
#include "drovane/Signals.h"
#include "faults/LibraryFaults.h"
#include "framework/Clock.h"
#include "support/DescriptorLimits.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"

namespace {

using drovane::Phase;
using drovane::Signals;

constexpr std::int64_t kMillisecond = 1'000'000;

// The text of the std::system_error that `action` throws.
template <typename Action>
std::string errorOf(Action action) {
  try {
    action();
  } catch (const std::system_error& error) {
    return error.what();
  }
  return "no error";
}

bool readable(int descriptor) {
  pollfd watched = {descriptor, POLLIN, 0};
  return ::poll(&watched, 1, 0) == 1;
}

TEST(PhaseTest, ItsDescriptorIsReadableWhenTheWorkIsDone) {
  std::atomic<bool> may_end{false};
  const Phase phase("work", [&] { EXPECT_TRUE(eventually([&] { return may_end.load(); })); });
  EXPECT_FALSE(readable(phase.descriptor()));
  may_end = true;
  EXPECT_TRUE(eventually([&] { return readable(phase.descriptor()); }));
}

TEST(PhaseTest, AnExceptionIsLoggedAndEndsTheWork) {
  LogCapture log;
  const Phase phase("work", [] { throw std::runtime_error("no house"); });
  EXPECT_TRUE(eventually([&] { return readable(phase.descriptor()); }));
  EXPECT_EQ(log.lines(), (std::vector<CapturedLine>{{2, 0, "drovane", "exception: no house"}}));
}

TEST(PhaseTest, SaysWhenThereIsNoDescriptor) {
  const DescriptorLimit none(3);
  EXPECT_EQ(errorOf([] { const Phase phase("work", [] {}); }), "eventfd: Too many open files");
}

TEST(PhaseTest, SaysWhenThereIsNoThread) {
  const LibraryFault fault("pthread_create", EAGAIN);
  EXPECT_EQ(errorOf([] { const Phase phase("work", [] {}); }),
            "pthread_create: Resource temporarily unavailable");
}

// The signals that Signals blocks are as before behind each test.
class SignalsTest : public testing::Test {
 protected:
  SignalsTest() { pthread_sigmask(SIG_SETMASK, nullptr, &before); }
  ~SignalsTest() override { pthread_sigmask(SIG_SETMASK, &before, nullptr); }

 private:
  sigset_t before{};
};

TEST_F(SignalsTest, ASignalThatCameBeforeTheWaitIsSeen) {
  const Signals signals;
  ::raise(SIGINT);
  EXPECT_EQ(signals.wait(-1, -1), Signals::Event::Interrupt);
  ::raise(SIGTERM);
  EXPECT_EQ(signals.wait(-1, -1), Signals::Event::Terminate);
}

TEST_F(SignalsTest, AnInterruptedWaitGoesOnToItsDeadline) {
  const Signals signals;
  const LibraryFault fault("poll", EINTR);
  const std::int64_t deadline = drovane::Clock::now() + 20 * kMillisecond;
  EXPECT_EQ(signals.wait(-1, deadline), Signals::Event::Deadline);
  EXPECT_GE(drovane::Clock::now(), deadline);
  EXPECT_TRUE(fault.happened());
}

TEST_F(SignalsTest, AWaitThatFailsIsNoEvent) {
  const Signals signals;
  const LibraryFault fault("poll", EIO);
  EXPECT_EQ(errorOf([&] { signals.wait(-1, -1); }), "poll: Input/output error");
}

TEST_F(SignalsTest, SaysWhenTheyCannotBeBlocked) {
  const LibraryFault fault("pthread_sigmask", EINVAL);
  EXPECT_EQ(errorOf([] { const Signals signals; }), "pthread_sigmask: Invalid argument");
}

TEST_F(SignalsTest, SaysWhenThereIsNoDescriptor) {
  const DescriptorLimit none(3);
  EXPECT_EQ(errorOf([] { const Signals signals; }), "signalfd: Too many open files");
}

}  // namespace
