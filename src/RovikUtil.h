// Text utilities that every rovik needs: escapes, byte search, regular expressions, formatting.
//
// All are safe to call from any thread. Every `char**` result is a new NUL-terminated buffer that
// the caller releases with free(3); it is left alone on failure.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

class RovikUtil {
 public:
  // printf-style formatting into a string of any length.
  static std::string vsnprintftostr(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
  // The same for a function that has taken variable arguments itself.
  static std::string vformat(const char* fmt, va_list args) __attribute__((format(printf, 1, 0)));

  // Makes `length` bytes printable: a backslash becomes \\, the bytes 0x0A, 0x0D and 0x09 become
  // \n, \r and \t, every other byte outside 0x20 to 0x7E becomes \xNN in lower-case hexadecimal.
  // `flag` is reserved and must be 0. Returns the length of the text, or -1 when the arguments
  // make no sense or memory is short.
  static int escape(char** result, const char* data, int length, int flag);

  // The same into `text`, whose old content goes but whose memory is used again: the way to
  // escape line after line without an allocation.
  static void escape(std::string& text, const char* data, std::size_t length);

  // Reads escapes back: \\ \n \r \t \a \b \e \f \v, \0 (one zero byte; no further digits belong
  // to it) and \xNN (two hexadecimal digits). Any other backslash pair stays as it is. Decodes
  // `text` into at most `size` bytes of `buf` (no terminator is added; the rest is cut off) and
  // returns their number, -1 when the arguments make no sense.
  // unescape(escape(x)) is x for all bytes.
  static int unescape(char* buf, int size, const char* text);

  // The same into a new buffer as long as needed.
  static int unescape(char** result, const char* text);

  // Renders `length` bytes for a log line, in the form of escape. `*result` becomes null when
  // there is nothing to render.
  static void bufToString(char** result, const char* data, int length);

  // The first occurrence of the bytes `pattern` in `data`, or null. Zero bytes are bytes like
  // any other. An empty pattern is found nowhere.
  static char* memxmem(char* data, int length, char* pattern, int patternLength);

  // Searches `text` for the first match of `regex`, anywhere in it, in the syntax of RE2
  // (https://github.com/google/re2/wiki/Syntax) with one byte as one character. On a match
  // returns a value above 0 and makes *result from `output`, in which \0 stands for the whole
  // match and \1 to \9 for the groups (empty where a group took no part); every other backslash
  // pair stays for unescape. Returns 0 when nothing matches and -1 for an expression that is not
  // valid, which is logged once in the life of the process, at level 2.
  static int regex_replace(char** result, const char* text, const char* output, const char* regex);

  // What is wrong with a regular expression; empty when it is valid.
  static std::string regexError(std::string_view regex);
};
