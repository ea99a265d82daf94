#include <gtest/gtest.h>

#include <thread>
#include <type_traits>

#include "Mutex.h"

namespace {

// The compiler's checks know neither recursion nor a lock that was not to be had.
bool lockUnchecked(Mutex& mutex) DROVANE_TS(no_thread_safety_analysis);
bool lockUnchecked(Mutex& mutex) { return mutex.lock(); }
void unlockUnchecked(Mutex& mutex) DROVANE_TS(no_thread_safety_analysis);
void unlockUnchecked(Mutex& mutex) { mutex.unlock(); }

TEST(MutexTest, TheHolderMayLockAgain) {
  Mutex mutex;
  EXPECT_TRUE(lockUnchecked(mutex));
  EXPECT_TRUE(lockUnchecked(mutex));
  unlockUnchecked(mutex);
  unlockUnchecked(mutex);
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
    locked = lockUnchecked(mutex);
    if (locked) unlockUnchecked(mutex);
  }).join();
  EXPECT_TRUE(locked);
}

TEST(MutexTest, NeitherALockNorItsGuardCanBeCopied) {
  static_assert(!std::is_copy_constructible_v<Mutex> && !std::is_copy_assignable_v<Mutex>);
  static_assert(!std::is_copy_constructible_v<MutexLock> && !std::is_copy_assignable_v<MutexLock>);
}

}  // namespace
