#include <gtest/gtest.h>

#include <thread>

#include "Mutex.h"

namespace {

TEST(MutexTest, TheHolderMayLockAgain) {
  Mutex mutex;
  EXPECT_TRUE(mutex.lock());
  EXPECT_TRUE(mutex.lock());
  mutex.unlock();
  mutex.unlock();
}

TEST(MutexTest, OneThreadAtATimeIsBehindTheLock) {
  Mutex mutex;
  int count = 0;  // not atomic: two threads inside at once would lose steps
  const auto work = [&] {
    for (int i = 0; i < 20000; ++i) {
      const MutexLock guard(mutex);
      count = count + 1;
    }
  };
  std::thread other(work);
  work();
  other.join();
  EXPECT_EQ(count, 40000);
}

TEST(MutexTest, TheGuardLetsGoAtTheEndOfItsScope) {
  Mutex mutex;
  { const MutexLock guard(mutex); }
  bool locked = false;
  std::thread([&] {
    locked = mutex.lock();
    if (locked) mutex.unlock();
  }).join();
  EXPECT_TRUE(locked);
}

}  // namespace
