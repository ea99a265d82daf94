#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "RovikUtil.h"
#include "framework/Regex.h"
#include "support/LogCapture.h"

namespace {

struct Free {
  void operator()(char* text) const { std::free(text); }
};

// The filled-in output; "(no match)" or "(not valid)".
std::string replaced(const std::string& text, const std::string& output, const std::string& regex) {
  char untouched = 'x';
  char* result = &untouched;
  const int status = RovikUtil::regex_replace(&result, text.c_str(), output.c_str(), regex.c_str());
  if (status > 0) {
    const std::unique_ptr<char, Free> owner(result);
    return result;
  }
  EXPECT_EQ(result, &untouched);
  return status == 0 ? "(no match)" : "(not valid)";
}

// An expression that no test of this process has used before.
std::string neverSeen(const std::string& beginning) {
  static int number = 0;
  return beginning + std::to_string(++number);
}

TEST(RegexReplaceTest, FillsTheGroupsIntoTheOutput) {
  EXPECT_EQ(replaced("T=21.5", "\\1", "^T=(.*)$"), "21.5");
  EXPECT_EQ(replaced("a=b", "\\2:\\1:\\0", "(.)=(.)"), "b:a:a=b");
}

TEST(RegexReplaceTest, TheOutputIsTheResultNotASubstitution) {
  EXPECT_EQ(replaced("before T=21 after", "<\\1>", "T=(\\d+)"), "<21>");
  EXPECT_EQ(replaced("T=21", "fixed", "T"), "fixed");
  EXPECT_EQ(replaced("T=21", "", "T"), "");
}

TEST(RegexReplaceTest, TheFirstMatchAnywhereCounts) {
  EXPECT_EQ(replaced("x1y22z333", "\\0", "[0-9]+"), "1");
  EXPECT_EQ(replaced("x1y22", "\\0", "[0-9]+$"), "22");
  EXPECT_EQ(replaced("abc", "\\0", "b|ab"), "ab");
}

TEST(RegexReplaceTest, NoMatchIsZeroAndLeavesTheResultAlone) {
  EXPECT_EQ(replaced("T=21", "\\1", "^H=(.*)$"), "(no match)");
  EXPECT_EQ(replaced("", "\\0", "."), "(no match)");
}

TEST(RegexReplaceTest, AnEmptyMatchIsAMatch) {
  EXPECT_EQ(replaced("", "[\\0]", ""), "[]");
  EXPECT_EQ(replaced("abc", "[\\0]", "x*"), "[]");
}

TEST(RegexReplaceTest, GroupsThatTookNoPartAreEmpty) {
  EXPECT_EQ(replaced("b", "[\\1][\\2]", "(a)|(b)"), "[][b]");
  EXPECT_EQ(replaced("a", "[\\1][\\2][\\9]", "(a)"), "[a][][]");
}

TEST(RegexReplaceTest, NineGroupsCanBeUsedOfAnyNumber) {
  EXPECT_EQ(
      replaced("abcdefghijk", "\\9\\8\\7\\6\\5\\4\\3\\2\\1", "(.)(.)(.)(.)(.)(.)(.)(.)(.)(.)(.)"),
      "ihgfedcba");
  EXPECT_EQ(replaced("abcdefghijk", "\\10", "(.)(.)(.)(.)(.)(.)(.)(.)(.)(.)"), "a0");
}

TEST(RegexReplaceTest, EveryOtherBackslashPairStaysForUnescape) {
  EXPECT_EQ(replaced("x", "\\n\\\\\\x41\\q", "x"), "\\n\\\\\\x41\\q");
  EXPECT_EQ(replaced("x", "\\\\0", "x"), "\\\\0");
  EXPECT_EQ(replaced("x", "end\\", "x"), "end\\");
}

TEST(RegexReplaceTest, WhatAGroupHoldsIsNotReadAsAReference) {
  EXPECT_EQ(replaced("\\2b", "\\1", "(..)(.)"), "\\2");
}

TEST(RegexReplaceTest, OneByteIsOneCharacter) {
  EXPECT_EQ(replaced("\xff\x80"
                     "a",
                     "\\1", "^..(.)$"),
            "a");
  EXPECT_EQ(replaced("gr\xc3\xbcn", "\\0", "^.{5}$"), "gr\xc3\xbcn");
}

TEST(RegexReplaceTest, AnInvalidExpressionNeverMatches) {
  EXPECT_EQ(replaced("(", "\\0", neverSeen("(")), "(not valid)");
  EXPECT_EQ(replaced("aa", "\\0", neverSeen("") + "(a)\\1"), "(not valid)");
}

TEST(RegexReplaceTest, AnInvalidExpressionIsReportedOnceAtLevel2) {
  const std::string regex = neverSeen("[a");
  LogCapture log(4);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(replaced("a", "", regex), "(not valid)");
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].level, 2);
  EXPECT_EQ(log.lines()[0].text.find("regular expression '" + regex + "' is not valid"), 0U);
}

TEST(RegexReplaceTest, ItIsReportedOnceEvenAfterManyOthers) {
  const std::string regex = neverSeen("[b");
  LogCapture log(4);
  replaced("b", "", regex);
  for (int i = 0; i < 1000; ++i) replaced("b", "", neverSeen("valid"));
  EXPECT_EQ(replaced("b", "", regex), "(not valid)");
  EXPECT_EQ(log.lines().size(), 1U);
}

TEST(RegexReplaceTest, AnExpressionThatLeftTheStockStillMatches) {
  const std::string regex = neverSeen("first");
  EXPECT_EQ(replaced(regex, "\\0", regex), regex);
  for (int i = 0; i < 1000; ++i) replaced("x", "", neverSeen("other"));
  EXPECT_EQ(replaced(regex, "\\0", regex), regex);
}

TEST(RegexReplaceTest, ArgumentsThatMakeNoSenseAreRefused) {
  char* result = nullptr;
  EXPECT_EQ(RovikUtil::regex_replace(nullptr, "a", "b", "c"), -1);
  EXPECT_EQ(RovikUtil::regex_replace(&result, nullptr, "b", "c"), -1);
  EXPECT_EQ(RovikUtil::regex_replace(&result, "a", nullptr, "c"), -1);
  EXPECT_EQ(RovikUtil::regex_replace(&result, "a", "b", nullptr), -1);
  EXPECT_EQ(result, nullptr);
}

TEST(RegexReplaceTest, SeveralThreadsMayMatchAtOnce) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 700; ++i) {
        const std::string number = std::to_string(i);
        EXPECT_EQ(replaced("n" + number, "\\1", "n(" + number + ")"), number) << t;
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

TEST(RegexReplaceTest, NoTextStallsTheMatcher) {
  const std::string text(100000, 'a');
  EXPECT_EQ(replaced(text, "\\0", "(a*)*b"), "(no match)");
}

TEST(RegexErrorTest, SaysWhatIsWrong) {
  EXPECT_EQ(RovikUtil::regexError("^T=(.*)$"), "");
  EXPECT_EQ(RovikUtil::regexError("("), "missing ): (");
}

TEST(RegexSearchTest, AnInvalidExpressionFindsNothing) {
  drovane::RegexGroups groups;
  EXPECT_FALSE(drovane::regexSearch(*drovane::compiledRegex("(only here"), "(only here", groups));
}

TEST(RegexSearchTest, OnlyDigitsBehindABackslashAreGroups) {
  drovane::RegexGroups groups;
  groups.fill("g");
  std::string text;
  drovane::fillTemplate(text, "\\/\\0\\9\\:", groups);
  EXPECT_EQ(text, "\\/gg\\:");
}

}  // namespace
