// The nice values of threads. Only some users may lower them.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <thread>

// 0: the calling thread.
inline int niceOf(id_t thread) { return ::getpriority(PRIO_PROCESS, thread); }

inline int tenStepsBefore(int nice) {
  constexpr int kLowest = -20;
  return std::max(nice - 10, kLowest);
}

// Tried by a thread that ends with it.
inline bool threadsMayGoFirst() {
  bool result = false;
  std::thread([&] {
    result = ::setpriority(PRIO_PROCESS, 0, tenStepsBefore(niceOf(0))) == 0;
  }).join();
  return result;
}

#define SKIP_UNLESS_THREADS_MAY_GO_FIRST() \
  if (!threadsMayGoFirst()) GTEST_SKIP() << "this user may not raise the precedence of a thread"
