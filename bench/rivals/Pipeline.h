// Programs that run side by side, what each writes being what the next one reads, and what they
// cost.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "framework/Descriptor.h"

namespace bench {

using Words = std::vector<std::string>;

// One program. It does not outlive the driver.
class Process {
 public:
  // `words`: the path of the program and its arguments. It gets duplicates of the descriptors.
  Process(const Words& words, int input, int output);
  // Kills it when it still runs.
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // So far; all its threads together.
  double cpuSeconds() const;
  void terminate() const;
  // Keeps the highest resident memory so far. It does nothing when the program has ended.
  void noteMemory();
  std::int64_t peakKilobytes() const { return peak_kilobytes; }

  // Returns the processor time of its whole life. Throws when it does not end in time, or with
  // another exit status than 0.
  double awaitEnd(std::chrono::milliseconds patience);

 private:
  const std::string program;
  pid_t pid;  // -1 when it has been waited for
  drovane::Descriptor handle;
  std::int64_t peak_kilobytes = 0;
};

class Pipeline {
 public:
  // The first one reads nothing; what the last one writes is read here.
  explicit Pipeline(const std::vector<Words>& programs);

  // Together.
  double cpuSeconds() const;
  std::int64_t peakKilobytes() const;
  void noteMemory();

  // What the last one writes, up to a line feed. Shorter when it has ended or time is up.
  std::string readLine(std::chrono::milliseconds patience);
  // Everything else that it writes. Throws when time is up before it has ended.
  std::string readRest(std::chrono::milliseconds patience);

  void terminate() const;
  double awaitEnd(std::chrono::milliseconds patience);

 private:
  enum class Reading { More, Ended, Late };
  Reading read(std::string& text, std::chrono::steady_clock::time_point deadline);

  std::deque<Process> processes;
  drovane::Descriptor output;
};

}  // namespace bench
