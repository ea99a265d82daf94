// Bytes to text and back, in all the forms there are.
#include <algorithm>
#include <array>
#include <string>

#include "Owned.h"
#include "RovikUtil.h"
#include "framework/Log.h"
#include "support/Property.h"

using fuzzing::require;
using fuzzing::requireSame;

namespace {

int sizeOf(std::string_view bytes) { return static_cast<int>(bytes.size()); }

std::string escaped(std::string_view bytes) {
  char* result = nullptr;
  const int length = RovikUtil::escape(&result, bytes.data(), sizeOf(bytes), 0);
  const OwnedText owner(result);
  require(length >= 0 && result[length] == '\0', "escape succeeds and ends its text");
  return {result, static_cast<std::size_t>(length)};
}

std::string unescaped(const std::string& text) {
  char* result = nullptr;
  const int length = RovikUtil::unescape(&result, text.c_str());
  const OwnedText owner(result);
  require(length >= 0 && result[length] == '\0', "unescape succeeds and ends its result");
  return {result, static_cast<std::size_t>(length)};
}

// Into memory of exactly this size, so that a byte too many is seen.
std::string unescapedInto(const std::string& text, std::size_t size) {
  const auto buf = std::make_unique<char[]>(size);
  const int length = RovikUtil::unescape(buf.get(), static_cast<int>(size), text.c_str());
  require(length >= 0 && static_cast<std::size_t>(length) <= size, "unescape stays in its buffer");
  return {buf.get(), static_cast<std::size_t>(length)};
}

bool printable(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char byte) { return byte >= 0x20 && byte < 0x7F; });
}

void checkEscape(std::string_view bytes) {
  const std::string text = escaped(bytes);
  require(printable(text), "escaped text is printable");
  requireSame(bytes, unescaped(text), "unescape(escape(x)) is x");
  std::string reused = "what was there before";
  RovikUtil::escape(reused, bytes.data(), bytes.size());
  requireSame(text, reused, "both forms of escape agree");
  char* rendered = nullptr;
  RovikUtil::bufToString(&rendered, bytes.data(), sizeOf(bytes));
  const OwnedText owner(rendered);
  requireSame(text, rendered != nullptr ? rendered : "", "bufToString renders like escape");
}

// A text ends at its first zero byte.
void checkUnescape(std::string_view bytes) {
  const std::string text(bytes.substr(0, bytes.find('\0')));
  const std::string whole = unescaped(text);
  require(whole.size() <= text.size(), "unescaping makes nothing longer");
  requireSame(whole, unescaped(escaped(whole)), "what was unescaped survives the way back");
  const std::size_t size = bytes.empty() ? 0 : static_cast<unsigned char>(bytes.back());
  for (const std::size_t room : {size, whole.size(), whole.size() + 1})
    requireSame(whole.substr(0, room), unescapedInto(text, room), "a small buffer cuts the result");
}

// Half of the bytes is looked for in all of them.
void checkSearch(std::string_view bytes) {
  if (bytes.empty()) return;
  std::string data(bytes.substr(1));
  std::string pattern = data.substr(0, static_cast<unsigned char>(bytes[0]) % 11);
  if (bytes[0] < 0) std::swap(data, pattern);
  const char* found =
      RovikUtil::memxmem(data.data(), sizeOf(data), pattern.data(), sizeOf(pattern));
  const std::size_t place = pattern.empty() ? std::string::npos : data.find(pattern);
  const char* expected = place == std::string::npos ? nullptr : data.data() + place;
  require(found == expected, "memxmem finds the first occurrence");
}

void checkLogLine(std::string_view bytes) {
  std::string line(bytes);
  drovane::Log::makeOneLine(line);
  const auto control = [](char byte) { return (byte >= 0 && byte < 0x20) || byte == 0x7F; };
  require(std::none_of(line.begin(), line.end(), control), "a log line is one line");
  const std::string once = line;
  drovane::Log::makeOneLine(line);
  requireSame(once, line, "a log line stays what it is");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes = fuzzing::asText(data, size);
  checkEscape(bytes);
  checkUnescape(bytes);
  checkSearch(bytes);
  checkLogLine(bytes);
  return 0;
}
