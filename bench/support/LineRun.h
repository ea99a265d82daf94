// One run of lines from the sender to their receiver: what arrives, what it takes.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <string>
#include <string_view>

#include "support/Allocations.h"
#include "support/Lines.h"
#include "support/SystemCalls.h"
#include "support/Usage.h"

namespace bench {

inline constexpr std::chrono::seconds kPatience{40};

// What the second half of a run, the steady state, allocates and asks of the kernel.
class SteadyCounts {
 public:
  explicit SteadyCounts(const SystemCalls& its_calls) : calls(its_calls) {}
  void begin() {
    system_calls = calls.count();
    beginAllocationCount();
  }
  void end() {
    allocations = endAllocationCount();
    system_calls = calls.count() - system_calls;
  }
  std::uint64_t allocations = 0;
  std::uint64_t system_calls = 0;

 private:
  const SystemCalls& calls;
};

// When a run is over, across threads.
class Ending {
 public:
  void reached() { ended.set_value(SteadyClock::now()); }
  // Now, when it is not reached in time.
  SteadyClock::time_point await() {
    auto last = ended.get_future();
    return last.wait_for(kPatience) == std::future_status::ready ? last.get() : SteadyClock::now();
  }

 private:
  std::promise<SteadyClock::time_point> ended;
};

// At the receiving end: every line once, in order, with its text.
class LineCheck {
 public:
  enum class Wanted { Line, Value };

  // `counts` may be null: counting costs time.
  LineCheck(const Block& its_block, Wanted its_wanted, std::uint64_t lines,
            SteadyCounts* its_counts = nullptr)
      : block(its_block), wanted(its_wanted), expected(lines), counts(its_counts) {}

  void take(std::string_view text) {
    if (text != (wanted == Wanted::Line ? block.text(index) : block.value(index))) ++wrong;
    index = index + 1 == block.count ? 0 : index + 1;
    ++seen;
    if (seen == expected / 2 && counts != nullptr) counts->begin();
    if (seen != expected) return;
    if (counts != nullptr) counts->end();
    ending.reached();
  }

  // The receiver has ended. Empty when all is well.
  std::string fault() const {
    if (seen == expected && wrong == 0) return "";
    return std::to_string(seen) + " of " + std::to_string(expected) + " lines arrived, " +
           std::to_string(wrong) + " of them out of order or changed";
  }

  Ending ending;

 private:
  const Block& block;
  const Wanted wanted;
  const std::uint64_t expected;
  SteadyCounts* const counts;
  std::size_t index = 0;
  std::uint64_t seen = 0;
  std::uint64_t wrong = 0;
};

struct Run {
  double seconds;
  Usage usage;
  std::string fault;  // empty when all is well
};

// Lets the sender go and waits for the ending.
inline Run measure(LineSource& source, const Job& job, Ending& ending) {
  const Usage before = Usage::now();
  const auto begun = SteadyClock::now();
  source.send(job);
  const auto ended = ending.await();
  return {secondsSince(begun, ended), Usage::now() - before, ""};
}

}  // namespace bench
