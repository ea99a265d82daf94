// Who does the job, and how each of them is started.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "rivals/Pipeline.h"

namespace bench {

// Lines come from a port of 127.0.0.1. The consumer of the records either counts and adds them up,
// and writes "COUNT SUM" to standard output at the end of the stream, or, when there is a port for
// answers, writes the value of each as a line to that port.
struct Job {
  int port;
  int answer_port;      // 0: counts
  std::uint64_t lines;  // how many will come
  std::string folder;   // for files of this run
};

struct Rival {
  std::string name;
  // Whether a record that comes alone reaches the consumer before the stream ends.
  bool answers;
  // Whether it lives on after the stream, until SIGTERM.
  bool stays;
  // The programs, the output of each being the input of the next.
  std::vector<Words> (*programs)(const Job& job);
};

// Ours is the first.
const std::vector<Rival>& rivals();

}  // namespace bench
