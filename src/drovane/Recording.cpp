#include "Recording.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <optional>
#include <utility>

#include "RovikUtil.h"
#include "Terminal.h"

namespace drovane {
namespace {

constexpr std::string_view kFormat = "drovane-recording";
constexpr std::string_view kVersion = "1";
constexpr std::string_view kUnknown = "-";
constexpr double kLongest = 1e9;  // seconds, some thirty years
constexpr const char* kHeadForm = "'drovane-recording 1 NAME MODE TIME'";
constexpr const char* kTimeForm = "seconds since the start, such as 1.250000";
constexpr const char* kSignForm = "one of + - < >";
constexpr const char* kEscapeForm =
    "one of \\\\ \\n \\r \\t \\a \\b \\e \\f \\v \\0, or \\x and two hexadecimal digits";

std::string quoted(std::string_view text) { return '\'' + printable(text) + '\''; }

// Takes the word up to the next blank off the text, and the blank.
std::string_view takeWord(std::string_view& text) {
  const std::size_t end = text.find(' ');
  const std::string_view word = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return word;
}

bool hexDigit(char digit) {
  return (digit >= '0' && digit <= '9') || (digit >= 'a' && digit <= 'f') ||
         (digit >= 'A' && digit <= 'F');
}

// The length of the escape at the start of the text; 0 when it is none.
std::size_t escapeLength(std::string_view text) {
  constexpr std::string_view kSingle = "\\nrtabefv0";
  if (text.size() < 2) return 0;
  if (kSingle.find(text[1]) != std::string_view::npos) return 2;
  const bool hex = text[1] == 'x' && text.size() >= 4 && hexDigit(text[2]) && hexDigit(text[3]);
  return hex ? 4 : 0;
}

// The first escape in the text that is none.
std::optional<std::string_view> badEscape(std::string_view text) {
  for (std::size_t at = text.find('\\'); at != std::string_view::npos; at = text.find('\\', at)) {
    const std::size_t length = escapeLength(text.substr(at));
    if (length == 0) return text.substr(at, 2);
    at += length;
  }
  return std::nullopt;
}

std::string unescaped(std::string_view text) {
  const std::string source(text);
  std::string bytes(source.size(), '\0');
  const int length =
      RovikUtil::unescape(bytes.data(), static_cast<int>(bytes.size()), source.c_str());
  bytes.resize(static_cast<std::size_t>(std::max(length, 0)));
  return bytes;
}

// Reads one file, line by line.
class Reader {
 public:
  explicit Reader(const std::string& its_file) : file(its_file), input(file) {
    if (!input) failFile();
    recording.file = file;
  }

  Recording read() {
    while (nextLine()) {
      if (!has_head)
        takeHead();
      else
        takeEvent();
    }
    if (input.bad()) failFile();
    if (!has_head) fail("the recording has no first line", kHeadForm);
    return std::move(recording);
  }

 private:
  [[noreturn]] void failFile() const {
    const std::string reason = std::strerror(errno);
    throw RecordingError(file + ": cannot be read: " + reason);
  }

  [[noreturn]] void fail(const std::string& problem, const std::string& expected) const {
    throw RecordingError(file + ':' + std::to_string(std::max(number, 1)) + ": " + problem +
                         "; expected " + expected);
  }

  // False at the end. Comments and empty lines are passed over.
  bool nextLine() {
    while (std::getline(input, line)) {
      ++number;
      if (line.ends_with('\r')) line.pop_back();
      if (line.find('\0') != std::string::npos)
        fail("the line holds a zero byte", "text, with \\0 in it");
      const std::size_t begin = line.find_first_not_of(" \t");
      if (begin != std::string::npos && line[begin] != '#') return true;
    }
    return false;
  }

  void takeHead() {
    std::string_view rest = line;
    if (takeWord(rest) != kFormat) fail("this is no recording", kHeadForm);
    const std::string_view version = takeWord(rest);
    if (version != kVersion) fail("this is a recording of version " + quoted(version), "version 1");
    recording.head.rovik = takeWord(rest);
    const std::string_view mode = takeWord(rest);
    if (mode != kUnknown) recording.head.mode = mode;
    recording.head.start = takeWord(rest);
    if (recording.head.start.empty() || !rest.empty())
      fail("the first line has not five words", kHeadForm);
    has_head = true;
  }

  void takeEvent() {
    std::string_view rest = line;
    RecordedEvent event;
    event.line = number;
    event.microseconds = readTime(takeWord(rest));
    event.sign = readSign(takeWord(rest));
    event.bytes = readBytes(event.sign, rest);
    recording.events.push_back(std::move(event));
  }

  std::int64_t readTime(std::string_view text) const {
    double seconds = 0;
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), seconds, std::chars_format::fixed);
    const bool number_only = error == std::errc() && end == text.data() + text.size();
    if (!number_only || !(seconds >= 0 && seconds <= kLongest))
      fail(quoted(text) + " is no time", kTimeForm);
    const auto microseconds = static_cast<std::int64_t>(std::llround(seconds * 1e6));
    if (!recording.events.empty() && microseconds < recording.events.back().microseconds) {
      fail("the time is before that of line " + std::to_string(recording.events.back().line),
           "events in the order of their times");
    }
    return microseconds;
  }

  LinkSign readSign(std::string_view text) const {
    for (const LinkSign sign :
         {LinkSign::Opened, LinkSign::Closed, LinkSign::FromDevice, LinkSign::ToDevice})
      if (text.size() == 1 && text.front() == static_cast<char>(sign)) return sign;
    fail(quoted(text) + " is no sign", kSignForm);
  }

  std::string readBytes(LinkSign sign, std::string_view text) const {
    const bool carries = sign == LinkSign::FromDevice || sign == LinkSign::ToDevice;
    if (!carries && !text.empty())
      fail(quoted(text) + " stands behind " + static_cast<char>(sign), "the end of the line");
    if (carries && text.empty())
      fail(std::string("there are no bytes behind ") + static_cast<char>(sign), "escaped bytes");
    if (const auto wrong = badEscape(text)) fail(quoted(*wrong) + " is no escape", kEscapeForm);
    return unescaped(text);
  }

  const std::string file;
  std::ifstream input;
  std::string line;
  int number = 0;
  bool has_head = false;
  Recording recording;
};

[[noreturn]] void failWriting(const std::string& file, int error) {
  if (error == EEXIST)
    throw RecordingError(file + ": exists already; expected a new file, or --force to replace it");
  throw RecordingError(file + ": cannot be written: " + std::strerror(error));
}

}  // namespace

Recording Recording::read(const std::string& file) { return Reader(file).read(); }

std::string escapedBytes(std::string_view bytes) {
  constexpr const char* kBlank = "\\x20";
  std::string text;
  RovikUtil::escape(text, bytes.data(), bytes.size());
  if (text.ends_with(' ')) text.replace(text.size() - 1, 1, kBlank);
  if (text.starts_with(' ')) text.replace(0, 1, kBlank);
  return text;
}

RecordingWriter::RecordingWriter(std::string its_file, bool replace)
    : file(std::move(its_file)),
      output(::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (replace ? O_TRUNC : O_EXCL),
                    0600)) {
  if (!output) failWriting(file, errno);
}

void RecordingWriter::begin(const RecordingHead& head) {
  const std::string_view mode = head.mode.empty() ? kUnknown : std::string_view(head.mode);
  writeLine(std::string(kFormat) + ' ' + std::string(kVersion) + ' ' + head.rovik + ' ' +
            std::string(mode) + ' ' + head.start);
}

void RecordingWriter::add(std::int64_t microseconds, LinkSign sign, std::string_view bytes) {
  constexpr std::int64_t kPerSecond = 1'000'000;
  std::string line = RovikUtil::vsnprintftostr(
      "%lld.%06lld %c", static_cast<long long>(microseconds / kPerSecond),
      static_cast<long long>(microseconds % kPerSecond), static_cast<char>(sign));
  if (!bytes.empty()) line += ' ' + escapedBytes(bytes);
  writeLine(std::move(line));
}

void RecordingWriter::remark(const std::string& text) { writeLine("# " + text); }

void RecordingWriter::writeLine(std::string line) {
  line += '\n';
  for (std::size_t done = 0; done < line.size();) {
    const ssize_t count = ::write(output.get(), line.data() + done, line.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) failWriting(file, errno);
    done += static_cast<std::size_t>(count);
  }
}

}  // namespace drovane
