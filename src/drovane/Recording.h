// What went over one link, as a text file that a person can read and edit:
//
//   drovane-recording 1 boiler tcp 2026-11-21T02:46:40.124+01:00
//   # lines that begin with '#', and empty ones, are skipped
//   0.000000 +
//   0.001203 > STATUS?\r\n
//   0.034100 < T=21.5\r\n
//   12.500000 -
//
// First the name and version of the format, the rovik's name, its mode ("-" when it is not known)
// and when the recording was begun. Then one event a line: seconds since then, a sign, and behind
// one blank the bytes, escaped.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "framework/Descriptor.h"

namespace drovane {

// "FILE:LINE: what is wrong; expected what"
class RecordingError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class LinkSign : char { Opened = '+', Closed = '-', FromDevice = '<', ToDevice = '>' };

struct RecordedEvent {
  int line = 0;  // of the file
  std::int64_t microseconds = 0;
  LinkSign sign = LinkSign::Opened;
  std::string bytes;
};

struct RecordingHead {
  std::string rovik;
  std::string mode;   // empty: not known
  std::string start;  // ISO 8601
};

struct Recording {
  // Throws RecordingError.
  static Recording read(const std::string& file);

  std::string file;
  RecordingHead head;
  std::vector<RecordedEvent> events;  // in the order of their times
};

// The bytes in the form of RovikUtil::escape. A blank at either end becomes \x20, so that no editor
// takes it away.
std::string escapedBytes(std::string_view bytes);

class RecordingWriter {
 public:
  // Makes the file, for its user alone since passwords may go over a link; with `replace` empties
  // one that is there. Throws RecordingError.
  RecordingWriter(std::string its_file, bool replace);

  // Each line is in the file when the call returns, whatever becomes of the process. All throw
  // RecordingError.
  void begin(const RecordingHead& head);
  void add(std::int64_t microseconds, LinkSign sign, std::string_view bytes);
  void remark(const std::string& text);

 private:
  void writeLine(std::string line);

  const std::string file;
  Descriptor output;
};

}  // namespace drovane
