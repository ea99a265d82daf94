#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "framework/Words.h"

namespace {

using drovane::CommandVector;
using drovane::splitWords;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> words(const std::string& line) {
  const auto result = splitWords(line);
  EXPECT_EQ(result.error, "");
  return result.words;
}

TEST(WordsTest, AreSplitAtBlanksAndTabs) {
  EXPECT_THAT(words("port 7001"), ElementsAre("port", "7001"));
  EXPECT_THAT(words(" \t port\t 7001  "), ElementsAre("port", "7001"));
  EXPECT_THAT(words(""), IsEmpty());
  EXPECT_THAT(words(" \t "), IsEmpty());
}

TEST(WordsTest, QuotesGroupAndEverythingInsideThemIsLiteral) {
  EXPECT_THAT(words("regin 5_1_0 '^T=(.*)$' '\\1'"),
              ElementsAre("regin", "5_1_0", "^T=(.*)$", "\\1"));
  EXPECT_THAT(words("'a # b' \"c ' d\" 'e \" f' '\\n'"),
              ElementsAre("a # b", "c ' d", "e \" f", "\\n"));
}

TEST(WordsTest, TwoQuotesAreAnEmptyWord) {
  EXPECT_THAT(words("'' x \"\""), ElementsAre("", "x", ""));
}

TEST(WordsTest, QuotedAndBarePiecesThatTouchAreOneWord) {
  EXPECT_THAT(words("a'b c'd\"e f\"g ''x''"), ElementsAre("ab cde fg", "x"));
}

TEST(WordsTest, ABackslashIsNeverSpecial) {
  EXPECT_THAT(words("a\\ b \\' c\\d'"), ElementsAre("a\\", "b", "\\ c\\d"));
}

TEST(WordsTest, AHashAtTheStartOfAWordBeginsAComment) {
  EXPECT_THAT(words("# all of it"), IsEmpty());
  EXPECT_THAT(words("port 7001 # the boiler's \"port"), ElementsAre("port", "7001"));
  EXPECT_THAT(words("a#b '#c'"), ElementsAre("a#b", "#c"));
}

TEST(WordsTest, AQuoteThatIsNotClosedIsAnError) {
  EXPECT_NE(splitWords("port '7001").error, "");
  EXPECT_NE(splitWords("'").error, "");
  EXPECT_NE(splitWords("a \"b'").error, "");
  EXPECT_NE(splitWords("a'b").error, "");
}

TEST(WordsTest, ZeroBytesAndLongWordsAreKept) {
  EXPECT_THAT(words(std::string("a\0b c", 5)), ElementsAre(std::string("a\0b", 3), "c"));
  EXPECT_THAT(words(std::string(1 << 20, 'x')), ElementsAre(std::string(1 << 20, 'x')));
}

TEST(CommandVectorTest, HasAtLeastTenEntriesNullWhereNoWordWasGiven) {
  CommandVector vector({"mode", "tcp"});
  EXPECT_STREQ(vector.get()[0], "mode");
  EXPECT_STREQ(vector.get()[1], "tcp");
  for (int i = 2; i < 10; ++i) EXPECT_EQ(vector.get()[i], nullptr);
}

TEST(CommandVectorTest, EndsWithNullHoweverManyWordsThereAre) {
  for (const std::size_t count : {9U, 10U, 11U, 100U}) {
    CommandVector vector(std::vector<std::string>(count, "w"));
    for (std::size_t i = 0; i < count; ++i) EXPECT_STREQ(vector.get()[i], "w");
    EXPECT_EQ(vector.get()[count], nullptr);
  }
}

TEST(CommandVectorTest, TheWordsMayBeWrittenTo) {
  CommandVector vector({"mode", "tcp"});
  vector.get()[1][0] = 'T';
  EXPECT_STREQ(vector.get()[1], "Tcp");
}

}  // namespace
