#include "Format.h"

#include <array>
#include <cstdio>

#include "RovikUtil.h"

namespace drovane {

void formatInto(std::string& text, const char* fmt, va_list args) {
  std::array<char, 512> usual;  // only a longer line is formatted twice
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(usual.data(), usual.size(), fmt, args);
  const std::size_t needed = length > 0 ? static_cast<std::size_t>(length) : 0;
  if (needed < usual.size()) {
    text.assign(usual.data(), needed);
  } else {
    text.resize(needed);
    std::vsnprintf(text.data(), needed + 1, fmt, again);
  }
  va_end(again);
}

}  // namespace drovane

std::string RovikUtil::vformat(const char* fmt, va_list args) {
  std::string text;
  drovane::formatInto(text, fmt, args);
  return text;
}

std::string RovikUtil::vsnprintftostr(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string text = vformat(fmt, args);
  va_end(args);
  return text;
}
