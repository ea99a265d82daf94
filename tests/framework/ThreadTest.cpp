#include <gtest/gtest.h>
#include <signal.h>

#include <array>
#include <atomic>
#include <string>
#include <thread>

#include "Thread.h"
#include "support/Eventually.h"

namespace {

// Runs until it is asked to stop, and notes what it found on its thread.
class Looper : public Thread {
 public:
  int main() override {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    blocks_term = sigismember(&mask, SIGTERM) == 1 && sigismember(&mask, SIGHUP) == 1;
    runner = std::this_thread::get_id();
    running = true;
    while (!stopping()) std::this_thread::yield();
    ended = true;
    return 0;
  }

  bool blocks_term = false;
  std::thread::id runner;
  std::atomic<bool> running{false};
  std::atomic<bool> ended{false};
};

TEST(ThreadTest, MainRunsOnAThreadOfItsOwn) {
  Looper looper;
  ASSERT_EQ(looper.start("looper"), 0);
  EXPECT_TRUE(eventually([&] { return looper.running.load(); }));
  EXPECT_EQ(looper.stop(), 0);
  EXPECT_NE(looper.runner, std::this_thread::get_id());
}

TEST(ThreadTest, StopAsksAndWaits) {
  Looper looper;
  ASSERT_EQ(looper.start("looper"), 0);
  EXPECT_FALSE(looper.stopping());
  EXPECT_EQ(looper.stop(), 0);
  EXPECT_TRUE(looper.stopping());
  EXPECT_TRUE(looper.ended.load());
}

TEST(ThreadTest, StopOfAThreadThatNeverRanIsFine) {
  Looper looper;
  EXPECT_EQ(looper.stop(), 0);
  EXPECT_EQ(looper.stop(), 0);
  EXPECT_FALSE(looper.running.load());
}

TEST(ThreadTest, RunsAgainAfterAStop) {
  Looper looper;
  ASSERT_EQ(looper.start("looper"), 0);
  EXPECT_EQ(looper.stop(), 0);
  looper.running = false;
  ASSERT_EQ(looper.start("looper"), 0);
  EXPECT_TRUE(eventually([&] { return looper.running.load(); }));
  EXPECT_EQ(looper.stop(), 0);
}

TEST(ThreadTest, EverySignalIsBlockedOnItsThreadOnly) {
  Looper looper;
  ASSERT_EQ(looper.start("looper"), 0);
  EXPECT_EQ(looper.stop(), 0);
  EXPECT_TRUE(looper.blocks_term);
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_EQ(sigismember(&mask, SIGTERM), 0);
}

TEST(ThreadTest, TheLabelIsCutToFifteenCharacters) {
  class Waiter : public Thread {
   public:
    int main() override {
      while (!stopping()) {
        std::array<char, 16> label{};
        pthread_getname_np(pthread_self(), label.data(), label.size());
        if (std::string(label.data()) == "a_label_of_more") seen = true;
      }
      return 0;
    }
    std::atomic<bool> seen{false};
  } waiter;
  ASSERT_EQ(waiter.start("a_label_of_more_than_15"), 0);
  EXPECT_TRUE(eventually([&] { return waiter.seen.load(); }));
  EXPECT_EQ(waiter.stop(), 0);
}

}  // namespace
