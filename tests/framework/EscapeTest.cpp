// escape, unescape, bufToString and memxmem.
#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "RovikUtil.h"

namespace {

struct Free {
  void operator()(char* text) const { std::free(text); }
};
using CText = std::unique_ptr<char, Free>;

std::string escaped(const std::string& bytes) {
  char* result = nullptr;
  const int length = RovikUtil::escape(&result, bytes.data(), static_cast<int>(bytes.size()), 0);
  const CText owner(result);
  EXPECT_GE(length, 0);
  EXPECT_EQ(result[length], '\0');
  return {result, static_cast<std::size_t>(length)};
}

std::string unescaped(const std::string& text) {
  char* result = nullptr;
  const int length = RovikUtil::unescape(&result, text.c_str());
  const CText owner(result);
  EXPECT_GE(length, 0);
  EXPECT_EQ(result[length], '\0');
  return {result, static_cast<std::size_t>(length)};
}

std::string unescapedInto(const std::string& text, int size) {
  std::string buf(static_cast<std::size_t>(size) + 1, '#');
  const int length = RovikUtil::unescape(buf.data(), size, text.c_str());
  EXPECT_LE(length, size);
  EXPECT_EQ(buf[static_cast<std::size_t>(length)], '#') << "wrote behind what it reports";
  return buf.substr(0, static_cast<std::size_t>(length));
}

std::string allBytes() {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  return bytes;
}

TEST(EscapeTest, ControlBytesAndTheBackslashHaveTheirLetters) {
  EXPECT_EQ(escaped("\\"), "\\\\");
  EXPECT_EQ(escaped("\n\r\t"), "\\n\\r\\t");
}

TEST(EscapeTest, EveryOtherByteOutsidePrintableAsciiIsLowerCaseHexadecimal) {
  EXPECT_EQ(escaped(std::string("\0\x01\x1f\x7f\x80\xab\xff", 7)),
            "\\x00\\x01\\x1f\\x7f\\x80\\xab\\xff");
  EXPECT_EQ(escaped("\a\b\f\v\x1b"), "\\x07\\x08\\x0c\\x0b\\x1b");
}

TEST(EscapeTest, PrintableAsciiStaysAsItIs) {
  std::string printable;
  for (char byte = ' '; byte <= '~'; ++byte)
    if (byte != '\\') printable += byte;
  EXPECT_EQ(escaped(printable), printable);
}

TEST(EscapeTest, EachByteIsEscapedAtEachPlaceOfALongLine) {
  for (std::size_t length : {1U, 31U, 32U, 33U, 64U, 100U}) {
    for (std::size_t place = 0; place < length; ++place) {
      std::string bytes(length, 'x');
      bytes[place] = '\x80';
      std::string expected(length - 1, 'x');
      expected.insert(place, "\\x80");
      ASSERT_EQ(escaped(bytes), expected);
    }
  }
}

TEST(EscapeTest, NothingBecomesAnEmptyText) {
  EXPECT_EQ(escaped(""), "");
  char* result = nullptr;
  EXPECT_EQ(RovikUtil::escape(&result, nullptr, 0, 0), 0);
  const CText owner(result);
  EXPECT_STREQ(result, "");
}

TEST(EscapeTest, ArgumentsThatMakeNoSenseLeaveTheResultAlone) {
  char untouched = 'x';
  char* result = &untouched;
  EXPECT_EQ(RovikUtil::escape(&result, "abc", -1, 0), -1);
  EXPECT_EQ(RovikUtil::escape(&result, nullptr, 3, 0), -1);
  EXPECT_EQ(RovikUtil::escape(&result, "abc", 3, 1), -1);
  EXPECT_EQ(RovikUtil::escape(nullptr, "abc", 3, 0), -1);
  EXPECT_EQ(RovikUtil::unescape(&result, nullptr), -1);
  EXPECT_EQ(RovikUtil::unescape(static_cast<char**>(nullptr), "abc"), -1);
  EXPECT_EQ(result, &untouched);
}

TEST(EscapeTest, AStringIsUsedAgain) {
  std::string text = "old content that is longer than the new one";
  const char* memory = text.data();
  RovikUtil::escape(text, "a\n", 2);
  EXPECT_EQ(text, "a\\n");
  EXPECT_EQ(text.data(), memory);
}

TEST(UnescapeTest, EveryEscapeIsRead) {
  EXPECT_EQ(unescaped("\\\\"), "\\");
  EXPECT_EQ(unescaped("\\n\\r\\t"), "\n\r\t");
  EXPECT_EQ(unescaped("\\a\\b\\e\\f\\v"), "\a\b\x1b\f\v");
  EXPECT_EQ(unescaped("\\x41\\x0a\\xfF\\x00"), std::string("A\n\xff\0", 4));
}

TEST(UnescapeTest, BackslashZeroIsOneZeroByteAndTakesNoFurtherDigits) {
  EXPECT_EQ(unescaped("\\012"), std::string("\0"
                                            "12",
                                            3));
}

TEST(UnescapeTest, HexadecimalNeedsTwoDigits) {
  EXPECT_EQ(unescaped("\\x4"), "\\x4");
  EXPECT_EQ(unescaped("\\x"), "\\x");
  EXPECT_EQ(unescaped("\\x4g"), "\\x4g");
  EXPECT_EQ(unescaped("\\xg4"), "\\xg4");
  EXPECT_EQ(unescaped("\\x414"), "A4");
  EXPECT_EQ(unescaped("\\X41"), "\\X41");
}

TEST(UnescapeTest, AnyOtherPairStaysAsItIs) {
  const std::string letters = "\\nrtabefv0x";
  for (int byte = 1; byte < 256; ++byte) {
    const std::string pair = {'\\', static_cast<char>(byte)};
    if (letters.find(pair[1]) != std::string::npos) continue;
    EXPECT_EQ(unescaped(pair + "n"), pair + "n");
  }
}

TEST(UnescapeTest, ABackslashAtTheEndStays) {
  EXPECT_EQ(unescaped("\\"), "\\");
  EXPECT_EQ(unescaped("a\\"), "a\\");
  EXPECT_EQ(unescaped("\\\\\\"), "\\\\");
}

TEST(UnescapeTest, UndoesEscapeForEveryByte) {
  EXPECT_EQ(unescaped(escaped(allBytes())), allBytes());
}

TEST(UnescapeTest, UndoesEscapeForEveryPairOfBytes) {
  for (const char first : allBytes())
    for (const char second : allBytes()) {
      const std::string pair = {first, second};
      ASSERT_EQ(unescaped(escaped(pair)), pair);
    }
}

TEST(UnescapeTest, UndoesEscapeForRandomBytes) {
  std::mt19937 random(4);
  for (int i = 0; i < 2000; ++i) {
    std::string bytes(random() % 200, ' ');
    const auto mostly = random() % 3;
    for (char& byte : bytes)
      byte = static_cast<char>(mostly == 0 ? random() : mostly == 1 ? 'a' + random() % 26 : '\\');
    ASSERT_EQ(unescaped(escaped(bytes)), bytes);
  }
}

TEST(UnescapeTest, ABufferTakesWhatFitsAndGetsNoTerminator) {
  EXPECT_EQ(unescapedInto("\\r\\n", 10), "\r\n");
  EXPECT_EQ(unescapedInto("abcdef", 6), "abcdef");
  EXPECT_EQ(unescapedInto("abcdef", 5), "abcde");
  EXPECT_EQ(unescapedInto("a\\n\\x41b", 3), "a\nA");
  EXPECT_EQ(unescapedInto("a\\q", 2), "a\\");
  EXPECT_EQ(unescapedInto("abc", 0), "");
  EXPECT_EQ(unescapedInto("", 10), "");
}

TEST(UnescapeTest, ABufferThatMakesNoSenseIsRefused) {
  std::array<char, 4> buf{};
  EXPECT_EQ(RovikUtil::unescape(nullptr, 4, "abc"), -1);
  EXPECT_EQ(RovikUtil::unescape(buf.data(), -1, "abc"), -1);
  EXPECT_EQ(RovikUtil::unescape(buf.data(), 4, nullptr), -1);
}

TEST(UnescapeTest, BufferAndNewBufferAgreeOnAnyText) {
  std::mt19937 random(5);
  const std::string alphabet = "\\\\\\nrtabefv0x19aAfFgz";
  for (int i = 0; i < 3000; ++i) {
    std::string text(random() % 30, ' ');
    for (char& byte : text) byte = alphabet[random() % alphabet.size()];
    ASSERT_EQ(unescapedInto(text, 64), unescaped(text)) << text;
  }
}

TEST(BufToStringTest, RendersLikeEscape) {
  char* result = nullptr;
  RovikUtil::bufToString(&result, "T=21\r\n\0", 7);
  const CText owner(result);
  EXPECT_STREQ(result, "T=21\\r\\n\\x00");
}

TEST(BufToStringTest, NothingToRenderIsNull) {
  char untouched = 'x';
  char* result = &untouched;
  RovikUtil::bufToString(&result, "abc", 0);
  EXPECT_EQ(result, nullptr);
  result = &untouched;
  RovikUtil::bufToString(&result, nullptr, 3);
  EXPECT_EQ(result, nullptr);
  result = &untouched;
  RovikUtil::bufToString(&result, "abc", -1);
  EXPECT_EQ(result, nullptr);
}

// Where `pattern` is in `data`; -1 when it is not.
long found(std::string data, std::string pattern) {
  char* at = RovikUtil::memxmem(data.data(), static_cast<int>(data.size()), pattern.data(),
                                static_cast<int>(pattern.size()));
  return at == nullptr ? -1 : at - data.data();
}

TEST(MemxmemTest, FindsTheFirstOccurrence) {
  EXPECT_EQ(found("a\r\nb\r\n", "\r\n"), 1);
  EXPECT_EQ(found("a\nb\n", "\n"), 1);
  EXPECT_EQ(found("abc", "abc"), 0);
  EXPECT_EQ(found("aab", "ab"), 1);
}

TEST(MemxmemTest, WhatIsNotThereIsNotFound) {
  EXPECT_EQ(found("abc", "d"), -1);
  EXPECT_EQ(found("abc", "abcd"), -1);
  EXPECT_EQ(found("ab", "bc"), -1);
  EXPECT_EQ(found("", "a"), -1);
}

TEST(MemxmemTest, ZeroBytesAreBytesLikeAnyOther) {
  EXPECT_EQ(found(std::string("a\0b\0\0c", 6), std::string("\0\0", 2)), 3);
  EXPECT_EQ(found(std::string("a\0b", 3), "b"), 2);
  EXPECT_EQ(found(std::string("a\0b", 3), std::string("\0", 1)), 1);
}

TEST(MemxmemTest, AnEmptyPatternIsFoundNowhere) {
  EXPECT_EQ(found("abc", ""), -1);
  EXPECT_EQ(found("", ""), -1);
}

TEST(MemxmemTest, ArgumentsThatMakeNoSenseFindNothing) {
  std::string text = "abc";
  EXPECT_EQ(RovikUtil::memxmem(nullptr, 3, text.data(), 1), nullptr);
  EXPECT_EQ(RovikUtil::memxmem(text.data(), 3, nullptr, 1), nullptr);
  EXPECT_EQ(RovikUtil::memxmem(text.data(), -1, text.data(), 1), nullptr);
  EXPECT_EQ(RovikUtil::memxmem(text.data(), 3, text.data(), -1), nullptr);
}

}  // namespace
