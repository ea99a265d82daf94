// The file that log lines are appended to.
//
// At 10 MB the file NAME becomes NAME.1, that one NAME.2 and so on up to NAME.5, and a new one is
// begun. What is no regular file is only written to.
//
// A line is in the file as a whole or not at all: when the disk is full the lines of that time are
// missing, and one line says how many they were as soon as there is room again. A new file that
// cannot be begun leaves the old one in use, and is tried again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Descriptor.h"

namespace drovane {

// Belongs to one thread at a time.
class LogFile {
 public:
  static constexpr std::int64_t kLargest = 10 * 1024 * 1024;
  static constexpr int kOldFiles = 5;

  // Throws std::system_error when the file cannot be opened.
  explicit LogFile(std::string its_path);

  // Throws std::system_error when the line could not be written.
  void write(std::string_view line);

 private:
  static Descriptor open(const std::string& name);
  void begin(Descriptor opened);
  void makeRoom();
  void shiftOldFiles() const;
  std::string oldFile(int number) const;
  void reportMissing();
  int append(std::string_view text);

  const std::string path;
  Descriptor file;
  bool regular = false;
  std::int64_t size = 0;
  std::size_t missing = 0;        // lines since the last one that was written
  int missing_error = 0;          // why
  std::int64_t rotate_again = 0;  // no new file before, in nanoseconds of Clock
};

}  // namespace drovane
