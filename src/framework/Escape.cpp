// escape, unescape and their kin: bytes to printable text and back.
#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "RovikUtil.h"

namespace {

constexpr std::string_view kHexDigits = "0123456789abcdef";

constexpr bool plain(unsigned char byte) { return byte >= 0x20 && byte <= 0x7E && byte != '\\'; }

using Word = std::uint64_t;

constexpr Word repeated(unsigned char byte) { return byte * (~Word{0} / 0xFF); }

// All bytes of a word at once: of each byte that is above 0x7E, below 0x20 or a backslash one of
// the four terms has the highest bit set, and where none is, no byte borrows or carries.
Word special(const char* at) {
  Word word;
  std::memcpy(&word, at, sizeof word);
  const Word found = word | (word + repeated(1)) | (word - repeated(0x20)) |
                     ((word ^ repeated('\\')) - repeated(1));
  return found & repeated(0x80);
}

// Several words without an early way out are what the compiler makes vector instructions of.
template <std::size_t Words>
bool allPlain(const char* at) {
  Word found = 0;
  for (std::size_t i = 0; i < Words; ++i) found |= special(at + i * sizeof(Word));
  return found == 0;
}

// How many bytes from `at` on need no escape.
std::size_t plainRun(const char* at, std::size_t length) {
  constexpr std::size_t kWord = sizeof(Word);
  constexpr std::size_t kBlock = 8 * kWord;
  std::size_t done = 0;
  while (done + kBlock <= length && allPlain<8>(at + done)) done += kBlock;
  while (done + kWord <= length && allPlain<1>(at + done)) done += kWord;
  // Most texts end here, with a word that overlaps the one before.
  if (length >= kWord && length - done < kWord && allPlain<1>(at + length - kWord)) return length;
  while (done < length && plain(static_cast<unsigned char>(at[done]))) ++done;
  return done;
}

void appendEscaped(std::string& text, unsigned char byte) {
  text += '\\';
  switch (byte) {
    case '\\':
      text += '\\';
      break;
    case '\n':
      text += 'n';
      break;
    case '\r':
      text += 'r';
      break;
    case '\t':
      text += 't';
      break;
    default:
      text += 'x';
      text += kHexDigits[byte >> 4];
      text += kHexDigits[byte & 15];
  }
}

int hexValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

struct SingleEscape {
  char letter;
  char byte;
};
constexpr std::array<SingleEscape, 10> kSingleEscapes = {{{'\\', '\\'},
                                                          {'n', '\n'},
                                                          {'r', '\r'},
                                                          {'t', '\t'},
                                                          {'a', '\a'},
                                                          {'b', '\b'},
                                                          {'e', '\x1B'},
                                                          {'f', '\f'},
                                                          {'v', '\v'},
                                                          {'0', '\0'}}};

// Reads one unit of escaped text at `at`, which is not at the end, and writes its bytes (one, or
// the two of a pair that is no escape) through `put`. Returns where the next unit begins.
template <typename Put>
const char* readUnit(const char* at, Put put) {
  if (*at != '\\' || at[1] == '\0') {
    put(*at);
    return at + 1;
  }
  const char letter = at[1];
  for (const auto& escape : kSingleEscapes) {
    if (escape.letter != letter) continue;
    put(escape.byte);
    return at + 2;
  }
  if (letter == 'x' && hexValue(at[2]) >= 0 && hexValue(at[3]) >= 0) {
    put(static_cast<char>(hexValue(at[2]) * 16 + hexValue(at[3])));
    return at + 4;
  }
  put('\\');
  put(letter);
  return at + 2;
}

// A copy on the C heap with a terminator; null when memory is short.
char* heapCopy(std::string_view text) {
  char* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  return copy;
}

int handOver(char** result, std::string_view text) {
  if (text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) return -1;
  char* copy = heapCopy(text);
  if (copy == nullptr) return -1;
  *result = copy;
  return static_cast<int>(text.size());
}

}  // namespace

void RovikUtil::escape(std::string& text, const char* data, std::size_t length) {
  text.clear();
  for (std::size_t at = 0; at < length;) {
    const std::size_t run = plainRun(data + at, length - at);
    text.append(data + at, run);
    at += run;
    if (at < length) appendEscaped(text, static_cast<unsigned char>(data[at++]));
  }
}

int RovikUtil::escape(char** result, const char* data, int length, int flag) {
  if (result == nullptr || length < 0 || flag != 0 || (data == nullptr && length > 0)) return -1;
  std::string text;
  escape(text, data, static_cast<std::size_t>(length));
  return handOver(result, text);
}

int RovikUtil::unescape(char* buf, int size, const char* text) {
  if (buf == nullptr || size < 0 || text == nullptr) return -1;
  int used = 0;
  while (*text != '\0' && used < size) {
    text = readUnit(text, [&](char byte) {
      if (used < size) buf[used++] = byte;
    });
  }
  return used;
}

int RovikUtil::unescape(char** result, const char* text) {
  if (result == nullptr || text == nullptr) return -1;
  std::string bytes;
  while (*text != '\0') text = readUnit(text, [&](char byte) { bytes += byte; });
  return handOver(result, bytes);
}

void RovikUtil::bufToString(char** result, const char* data, int length) {
  if (result == nullptr) return;
  *result = nullptr;
  if (length > 0) escape(result, data, length, 0);
}

char* RovikUtil::memxmem(char* data, int length, char* pattern, int patternLength) {
  if (data == nullptr || pattern == nullptr || length < 0 || patternLength < 1) return nullptr;
  if (patternLength == 1)
    return static_cast<char*>(std::memchr(data, pattern[0], static_cast<std::size_t>(length)));
  return static_cast<char*>(memmem(data, static_cast<std::size_t>(length), pattern,
                                   static_cast<std::size_t>(patternLength)));
}
