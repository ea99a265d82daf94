// What is logged while a test runs.
#pragma once

#include <condition_variable>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

struct CapturedLine {
  int level;
  int id;
  std::string name;
  std::string text;

  bool operator==(const CapturedLine&) const = default;
};
std::ostream& operator<<(std::ostream& out, const CapturedLine& line);

// Keeps every line up to `level` from its construction to its destruction, which puts the log's
// level back. One at a time.
class LogCapture {
 public:
  explicit LogCapture(int level = 3);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<CapturedLine> lines() const;
  // How many lines hold `part` in their text.
  std::size_t count(const std::string& part) const;
  // False when no such line comes in time.
  bool waitFor(const std::string& part);

 private:
  std::size_t countLocked(const std::string& part) const;

  const int level_before;
  mutable std::mutex lock;
  std::condition_variable more;
  std::vector<CapturedLine> captured;
};
