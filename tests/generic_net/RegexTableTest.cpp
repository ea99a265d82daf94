// The table of expressions by itself: one pass or one after the other, the results are the same.
#include <gmock/gmock.h>

#include <cstdint>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "RegexTable.h"
#include "faults/MemoryFaults.h"
#include "support/LogCapture.h"

namespace {

using Match = std::pair<std::size_t, std::string>;
using Matches = std::vector<Match>;

constexpr std::size_t kOnePass = 0;
constexpr std::size_t kWalk = SIZE_MAX;

Matches matchesOf(RegexTable& table, std::string_view text) {
  Matches found;
  table.match(text, [&](std::size_t index, const std::string& output) {
    found.emplace_back(index, output);
  });
  return found;
}

class RegexTableBothWays : public testing::TestWithParam<std::size_t> {
 protected:
  Matches matches(std::string_view text) { return matchesOf(table, text); }
  // What one entry makes of a text; "(no match)" when it does not match.
  static std::string only(std::string_view regex, std::string_view output, std::string_view text) {
    RegexTable single(GetParam());
    single.add(regex, output);
    const Matches found = matchesOf(single, text);
    return found.empty() ? "(no match)" : found[0].second;
  }

  RegexTable table{GetParam()};
};

TEST_P(RegexTableBothWays, EmptyTableMatchesNothing) {
  EXPECT_EQ(0U, table.size());
  EXPECT_EQ(Matches{}, matches("x"));
  EXPECT_EQ(Matches{}, matches(""));
}

TEST_P(RegexTableBothWays, EveryMatchIsFoundInTableOrder) {
  for (const char* regex : {"c", "b", "z", "a", "b", "[abc]"}) table.add(regex, regex);
  EXPECT_EQ(6U, table.size());
  EXPECT_EQ((Matches{{0, "c"}, {1, "b"}, {3, "a"}, {4, "b"}, {5, "[abc]"}}), matches("abc"));
  EXPECT_EQ((Matches{{2, "z"}}), matches("z"));
  EXPECT_EQ(Matches{}, matches("q"));
}

TEST_P(RegexTableBothWays, MatchesAnywhereUnlessAnchored) {
  EXPECT_EQ("hit", only("b", "hit", "abc"));
  EXPECT_EQ("(no match)", only("^b", "hit", "abc"));
  EXPECT_EQ("(no match)", only("b$", "hit", "abc"));
  EXPECT_EQ("hit", only("^abc$", "hit", "abc"));
  EXPECT_EQ("(no match)", only("^abc$", "hit", "abc\n"));
}

TEST_P(RegexTableBothWays, FirstMatchInTheTextCounts) {
  EXPECT_EQ("1", only("[0-9]", "\\0", "a1b2c3"));
  EXPECT_EQ("a", only("a|ab", "\\0", "xabx"));
  EXPECT_EQ("ab", only("ab|a", "\\0", "xabx"));
}

TEST_P(RegexTableBothWays, GroupsZeroToNineAreFilledIn) {
  EXPECT_EQ("abcdefghij|a|b|c|d|e|f|g|h|i",
            only("(a)(b)(c)(d)(e)(f)(g)(h)(i)(j)", "\\0|\\1|\\2|\\3|\\4|\\5|\\6|\\7|\\8|\\9",
                 "-abcdefghij-"));
  EXPECT_EQ("a0", only("(a)(b)(c)(d)(e)(f)(g)(h)(i)(j)", "\\10", "abcdefghij"));
}

TEST_P(RegexTableBothWays, GroupsWithoutAPartInTheMatchAreEmpty) {
  EXPECT_EQ("[][b]", only("(a)|(b)", "[\\1][\\2]", "b"));
  EXPECT_EQ("[]", only("x", "[\\1\\9]", "x"));
}

// A group of one text must not show in the result of another.
TEST_P(RegexTableBothWays, GroupsOfAnEarlierTextAreGone) {
  table.add("(a)?x(b)?", "[\\1\\2\\3]");
  table.add("x", "[\\1]");
  EXPECT_EQ((Matches{{0, "[ab]"}, {1, "[]"}}), matches("axb"));
  EXPECT_EQ((Matches{{0, "[]"}, {1, "[]"}}), matches("x"));
}

TEST_P(RegexTableBothWays, OtherBackslashPairsStay) {
  EXPECT_EQ("\\n\\\\1\\x41\\q", only("a", "\\n\\\\1\\x41\\q", "a"));
  EXPECT_EQ("end\\", only("a", "end\\", "a"));
  EXPECT_EQ("", only("a", "", "a"));
}

TEST_P(RegexTableBothWays, EmptyExpressionMatchesEverything) {
  table.add("", "any");
  table.add("x", "x");
  EXPECT_EQ((Matches{{0, "any"}}), matches(""));
  EXPECT_EQ((Matches{{0, "any"}, {1, "x"}}), matches("x"));
}

TEST_P(RegexTableBothWays, EveryByteIsACharacter) {
  std::string every;
  for (int byte = 0; byte < 256; ++byte) every += static_cast<char>(byte);
  EXPECT_EQ(std::string(1, '\xE9'), only("caf(.)$", "\\1", "caf\xE9"));
  EXPECT_EQ("hit", only("\\xff$", "hit", every));
  EXPECT_EQ("hit", only("(?s)^.{256}$", "hit", every));
}

TEST_P(RegexTableBothWays, TextMayHoldZeroBytes) {
  EXPECT_EQ("b", only("\\x00(.)", "\\1", std::string_view("a\0b", 3)));
}

TEST_P(RegexTableBothWays, InvalidEntryNeverMatchesAndShiftsNoOther) {
  table.add("(", "never");
  table.add("a", "a");
  table.add("*", "never");
  table.add("[", "never");
  table.add("a", "again");
  EXPECT_EQ(5U, table.size());
  EXPECT_EQ((Matches{{1, "a"}, {4, "again"}}), matches("a(*["));
}

TEST_P(RegexTableBothWays, TableOfInvalidEntriesOnly) {
  for (int i = 0; i < 20; ++i) table.add("a(", "never");
  EXPECT_EQ(Matches{}, matches("a("));
}

TEST_P(RegexTableBothWays, InvalidExpressionIsLoggedOnceAtLevelTwo) {
  const std::string regex = "unclosed " + std::to_string(GetParam()) + " (";
  const LogCapture log(4);
  table.add(regex, "x");
  table.add(regex, "y");
  RegexTable another(GetParam());
  another.add(regex, "z");
  for (int i = 0; i < 3; ++i) matches("unclosed");
  ASSERT_EQ(1U, log.lines().size());
  EXPECT_EQ(2, log.lines()[0].level);
  EXPECT_EQ(0, log.lines()[0].id);
  EXPECT_EQ("drovane", log.lines()[0].name);
  EXPECT_THAT(log.lines()[0].text, testing::HasSubstr("'" + regex + "'"));
}

TEST_P(RegexTableBothWays, EntriesMayBeAddedAfterAMatch) {
  table.add("a", "1");
  EXPECT_EQ((Matches{{0, "1"}}), matches("ab"));
  for (int i = 0; i < 20; ++i) {
    table.add("b", "2");
    EXPECT_EQ(static_cast<std::size_t>(i) + 2, matches("ab").size());
  }
  EXPECT_EQ((Matches{{0, "1"}}), matches("a"));
}

// New entries are found at once, while they are few and when they have become many.
TEST_P(RegexTableBothWays, EntriesMayBeAddedWhileTextsArrive) {
  const auto text = [](std::size_t i) { return "T" + std::to_string(i) + "=on"; };
  for (std::size_t i = 0; i < 400; ++i) {
    table.add("^T" + std::to_string(i) + "=(.*)$", "\\1");
    ASSERT_EQ((Matches{{i, "on"}}), matches(text(i)));
    ASSERT_EQ((Matches{{i / 2, "on"}}), matches(text(i / 2)));
    ASSERT_EQ(Matches{}, matches("nothing"));
  }
  table.add("on", "last");
  for (std::size_t i = 0; i < 400; ++i)
    ASSERT_EQ((Matches{{i, "on"}, {400, "last"}}), matches(text(i)));
}

// The memory that is missing is that of the third entry's place.
TEST_P(RegexTableBothWays, AnEntryForWhichThereIsNoMemoryIsNone) {
  table.add("a", "1");
  table.add("b", "2");
  {
    const NoMemory none(4 * sizeof(int));
    EXPECT_THROW(table.add("a", "lost"), std::bad_alloc);
  }
  EXPECT_EQ(2U, table.size());
  EXPECT_EQ((Matches{{0, "1"}}), matches("a"));
  table.add("a", "3");
  EXPECT_EQ((Matches{{0, "1"}, {2, "3"}}), matches("a"));
}

TEST_P(RegexTableBothWays, OneMatchAmongThousands) {
  for (int i = 0; i < 3000; ++i)
    table.add("^sensor " + std::to_string(i) + "=(.*)$", std::to_string(i) + ":\\1");
  EXPECT_EQ((Matches{{1234, "1234:on"}}), matches("sensor 1234=on"));
  EXPECT_EQ((Matches{{2999, "2999:"}}), matches("sensor 2999="));
  EXPECT_EQ(Matches{}, matches("sensor 3000=on"));
}

TEST_P(RegexTableBothWays, ThousandsThatAllMatch) {
  for (int i = 0; i < 2000; ++i) table.add("x", std::to_string(i));
  const Matches found = matches("x");
  ASSERT_EQ(2000U, found.size());
  for (std::size_t i = 0; i < found.size(); ++i) ASSERT_EQ(Match(i, std::to_string(i)), found[i]);
}

// The states of such expressions double with each character; the time must not.
TEST_P(RegexTableBothWays, ExpressionsWithoutEndOfStatesAreStillFound) {
  for (int i = 0; i < 10; ++i) table.add("(a|b)*a(a|b){14}" + std::to_string(i), "hit");
  std::string text;
  for (unsigned int i = 1; text.size() < 3000; i = i * 1103515245U + 12345U)
    text += (i >> 16) % 2 == 0 ? 'a' : 'b';
  EXPECT_EQ(Matches{}, matches(text));
  EXPECT_EQ((Matches{{7, "hit"}}), matches(text + "a" + std::string(14, 'b') + "7"));
}

// Too much for one automaton within its memory: what it cannot say, trying one by one does.
TEST_P(RegexTableBothWays, TableTooBigForOneAutomatonIsTriedEntryByEntry) {
  for (int entry = 0; entry < 10; ++entry) {
    std::string regex;
    for (char letter = 'a'; letter <= 'z'; ++letter)
      for (char other = 'a'; other <= 'c'; ++other)
        regex += std::string(regex.empty() ? "" : "|") + letter + other + "[xy]{1000}" +
                 std::to_string(entry) + "$";
    table.add(regex, std::to_string(entry));
  }
  table.add("^q", "q");
  EXPECT_EQ((Matches{{3, "3"}, {10, "q"}}), matches("qa" + std::string(1000, 'y') + "3"));
  EXPECT_EQ(Matches{}, matches("no match"));
}

TEST_P(RegexTableBothWays, MovesWithItsEntries) {
  table.add("a", "A");
  matches("a");
  RegexTable moved(std::move(table));
  EXPECT_EQ((Matches{{0, "A"}}), matchesOf(moved, "a"));
  RegexTable assigned;
  assigned = std::move(moved);
  assigned.add("a", "B");
  EXPECT_EQ((Matches{{0, "A"}, {1, "B"}}), matchesOf(assigned, "a"));
}

INSTANTIATE_TEST_SUITE_P(Ways, RegexTableBothWays, testing::Values(kOnePass, kWalk),
                         [](const auto& entry) {
                           return std::string(entry.param == kOnePass ? "OnePass" : "Walk");
                         });

TEST(RegexTableBound, IsEightEntriesUnlessGiven) {
  EXPECT_EQ(8U, RegexTable::kOnePassFrom);
  RegexTable table;
  for (int i = 0; i < 20; ++i) {
    table.add("x" + std::to_string(i) + "$", "\\0");
    const std::string text = "x" + std::to_string(i);
    EXPECT_EQ((Matches{{static_cast<std::size_t>(i), text}}), matchesOf(table, text));
  }
}

}  // namespace
