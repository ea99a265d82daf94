#include "Terminal.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <stdexcept>

#include "RovikUtil.h"

namespace drovane {
namespace {

unsigned char byteAt(std::string_view text, std::size_t at) {
  return static_cast<unsigned char>(text[at]);
}

bool continuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// The length of the harmless character at `at`; 0 when it has to be escaped.
std::size_t harmless(std::string_view text, std::size_t at) {
  const unsigned char lead = byteAt(text, at);
  if (lead < 0x80) return lead >= 0x20 && lead != 0x7F ? 1 : 0;
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || at + length > text.size()) return 0;
  for (std::size_t i = 1; i < length; ++i)
    if (!continuation(byteAt(text, at + i))) return 0;
  // U+0080 to U+009F are control characters too.
  return lead == 0xC2 && byteAt(text, at + 1) < 0xA0 ? 0 : length;
}

std::size_t columns(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
    return !continuation(static_cast<unsigned char>(byte));
  }));
}

// The bytes of the first `width` columns.
std::size_t bytesOf(std::string_view text, std::size_t width) {
  std::size_t at = 0;
  for (std::size_t column = 0; at < text.size(); ++at) {
    if (!continuation(byteAt(text, at)) && column++ == width) break;
  }
  return at;
}

}  // namespace

std::string printable(std::string_view text) {
  std::string clean;
  std::string escaped;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = harmless(text, at);
    if (length > 0) {
      clean.append(text, at, length);
      at += length;
      continue;
    }
    RovikUtil::escape(escaped, text.data() + at, 1);
    clean += escaped;
    ++at;
  }
  return clean;
}

std::string forOutput(std::string_view text) {
  if (::isatty(STDOUT_FILENO) == 0) return std::string(text);
  std::string clean;
  for (std::size_t at = 0; at <= text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    clean += printable(text.substr(at, end - at));
    if (end < text.size()) clean += '\n';
    at = end + 1;
  }
  return clean;
}

void printLine(const std::string& line) {
  std::cout << line << std::endl;
  if (!std::cout) throw std::runtime_error("standard output cannot be written any more");
}

bool coloursWanted() {
  const char* refused = std::getenv("NO_COLOR");
  return ::isatty(STDOUT_FILENO) != 0 && (refused == nullptr || *refused == '\0');
}

std::string fitted(std::string_view text, std::size_t width) {
  if (columns(text) <= width) return std::string(text);
  return std::string(text.substr(0, bytesOf(text, width - 1))) + '~';
}

std::vector<std::string> wrapped(std::string_view text, std::size_t width) {
  std::vector<std::string> lines;
  while (columns(text) > width) {
    const std::size_t most = bytesOf(text, width);
    const std::size_t blank = text.rfind(' ', most);
    const bool at_blank = blank != std::string_view::npos && blank > 0;
    const std::size_t end = at_blank ? blank : most;
    lines.emplace_back(text.substr(0, end));
    text.remove_prefix(at_blank ? end + 1 : end);
  }
  lines.emplace_back(text);
  return lines;
}

}  // namespace drovane
