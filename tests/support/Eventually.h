// Waiting for what another thread is about to bring about.
#pragma once

#include <poll.h>

#include <chrono>

// Generous, because a loaded machine is slow; a test that passes never waits this long.
inline constexpr std::chrono::seconds kPatienceOfTests{20};

// True as soon as `condition` holds, false when it does not within the deadline. For what has no
// one to notify: looks again each millisecond.
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds within = kPatienceOfTests) {
  const auto deadline = std::chrono::steady_clock::now() + within;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    poll(nullptr, 0, 1);
  }
  return true;
}
