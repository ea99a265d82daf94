// Waiting for what another thread is about to bring about.
#pragma once

#include <poll.h>

#include <chrono>
#include <cstdlib>

// How many times slower than usual this machine is taken to be: DROVANE_TEST_PATIENCE, else 1.
// Every deadline of the tests' own is multiplied by it.
inline int slowness() {
  const char* factor = std::getenv("DROVANE_TEST_PATIENCE");
  return factor == nullptr ? 1 : std::atoi(factor);
}

// Generous, because a loaded machine is slow; a test that passes never waits this long.
inline const std::chrono::seconds kPatienceOfTests = std::chrono::seconds(20) * slowness();

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
