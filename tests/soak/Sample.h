// What is seen of the program at one moment.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "Control.h"
#include "Plan.h"

namespace soak {

struct Sample {
  double at = 0;  // seconds since the load began
  double descriptors = 0;
  double links = 0;
  double threads = 0;
  double resident_mb = 0;  // memory of its own, without what it shares with files
  double heap_mb = 0;      // of which in use, by the books of the allocator
  double peak_mb = 0;      // the most that has been in use until now
  double queued = 0;
  double deepest = 0;  // the longest queue
  double held_back = 0;
  double received = 0;  // per second since the sample before
  double sent = 0;
  double processor = 0;  // of one processor, in percent
  double answer_ms = 0;  // until the status was there
  double dropped = 0;    // since the start
  double undeliverable = 0;
  double warnings = 0;

  // What the program has open beside its links.
  double own() const { return descriptors - links; }
};

// A quantity of a sample, as it is printed.
struct Quantity {
  const char* name;
  double (*of)(const Sample& sample);
};
const std::vector<Quantity>& quantities();

class Watcher {
 public:
  Watcher(pid_t its_process, Control& its_control)
      : process(its_process), control(its_control), begun(Clock::now()) {}
  Sample look();

 private:
  const pid_t process;
  Control& control;
  const Clock::time_point begun;
  Clock::time_point before;
  Status status_before;
  double ticks_before = 0;
  double peak_mb = 0;
};

// The samples as lines of numbers, below a line of their names.
std::string csv(const std::vector<Sample>& samples);

// One line about this moment.
std::string lineOf(const Sample& sample);

}  // namespace soak
