// The simulated devices of the examples, and the files that come with them.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <optional>
#include <string>

#include "RunningProgram.h"

// A simulated device that already listens.
class SimulatedDevice {
 public:
  SimulatedDevice(const std::string& name, const Arguments& options)
      : process(line(name, options)) {
    EXPECT_TRUE(process.waitForOutput("\n")) << process.errors();
  }
  // The last word of its greeting: a port or a path.
  std::string place() {
    const std::string greeting = process.output();
    const std::size_t begin = greeting.rfind(' ') + 1;
    return greeting.substr(begin, greeting.find('\n') - begin);
  }
  std::optional<int> end(int signal) {
    process.signal(signal);
    return process.wait();
  }

  // What starts it.
  static Arguments line(const std::string& name, const Arguments& options) {
    Arguments words = {DROVANE_DEVICES "/" + name};
    words.insert(words.end(), options.begin(), options.end());
    return words;
  }

  Process process;
};

inline std::string contentOf(const std::string& path) {
  std::ifstream file(path);
  EXPECT_TRUE(file) << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

// Fails the test when the part is not there.
inline void replace(std::string& text, const std::string& part, const std::string& by) {
  const std::size_t at = text.find(part);
  ASSERT_NE(at, std::string::npos) << part;
  text.replace(at, part.size(), by);
}
