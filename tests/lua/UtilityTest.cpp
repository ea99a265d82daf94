// print, escape, unescape and gettimeofday.
#include <gtest/gtest.h>

#include "ScriptTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class UtilityTest : public ScriptTest {
 protected:
  void SetUp() override { script(""); }
};

TEST_F(UtilityTest, PrintLogsItsFirstArgument) {
  EXPECT_EQ("", lua("return print('hello', 'more')"));
  EXPECT_EQ("", lua("return print(42)"));
  EXPECT_EQ("", lua("return print(1.5, nil)"));
  EXPECT_EQ("", lua("return print('a\\0b')"));
  EXPECT_EQ("", lua("return print('')"));
  EXPECT_THAT(newLines(),
              ElementsAre("3 LUA: hello", "3 LUA: 42", "3 LUA: 1.5", "3 LUA: a", "3 LUA: "));
}

TEST_F(UtilityTest, PrintTakesNoFormat) {
  lua("print('%s %n %d')");
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: %s %n %d"));
}

TEST_F(UtilityTest, PrintCannotForgeASecondLine) {
  lua("print('one\\n2026 2 0 drovane two')");
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: one\\n2026 2 0 drovane two"));
}

TEST_F(UtilityTest, PrintOfOneMegabyteIsOneLine) {
  lua("print(('x'):rep(1000000))");
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: " + std::string(1000000, 'x')));
}

TEST_F(UtilityTest, PrintRaisesForWhatIsNoText) {
  EXPECT_EQ("raised: chunk:1: bad argument #1 to 'print' (string expected, got no value)",
            lua("print()"));
  EXPECT_EQ("raised: chunk:1: bad argument #1 to 'print' (string expected, got nil)",
            lua("print(nil)"));
  for (const char* other : {"{}", "true", "print", "m_p",
                            "setmetatable({}, {__tostring = function()"
                            " return 'x' end})"})
    EXPECT_THAT(lua(std::string("print(") + other + ")"),
                StartsWith("raised: chunk:1: bad argument #1 to 'print' (string expected, got "));
  EXPECT_THAT(newLines(), IsEmpty());
  EXPECT_TRUE(net->lockIsFree());
}

TEST_F(UtilityTest, EscapeMakesBytesPrintable) {
  EXPECT_EQ("a\\\\b\\n\\r\\t\\x00\\xffz", lua("return escape('a\\\\b\\n\\r\\t\\0\\255z')"));
  EXPECT_EQ("", lua("return escape('')"));
  EXPECT_EQ("string 42", lua("return type(escape(42)), escape(42)"));
}

TEST_F(UtilityTest, EscapeReturnsNothingForWhatIsNoText) {
  for (const char* other : {"", "nil", "{}", "true", "print"})
    EXPECT_EQ("0", lua("return select('#', escape(" + std::string(other) + "))")) << other;
  EXPECT_THAT(newLines(), IsEmpty());
}

TEST_F(UtilityTest, UnescapeIsTheWayBack) {
  EXPECT_EQ(std::string("a\\b\n\r\t\0\xff", 8),
            lua(R"(return unescape('a\\\\b\\n\\r\\t\\0\\xff'))"));
  EXPECT_EQ("", lua("return unescape('')"));
  EXPECT_EQ("42", lua("return unescape(42)"));
  EXPECT_EQ("a\\q", lua(R"(return unescape('a\\q'))"));
}

TEST_F(UtilityTest, UnescapeReadsUpToTheFirstZeroByte) {
  EXPECT_EQ("ab", lua("return unescape('ab\\0cd')"));
}

TEST_F(UtilityTest, UnescapeRaisesForWhatIsNoText) {
  EXPECT_EQ("raised: chunk:1: bad argument #1 to 'unescape' (string expected, got nil)",
            lua("unescape(nil)"));
  for (const char* other : {"", "{}", "true", "print"})
    EXPECT_THAT(
        lua(std::string("unescape(") + other + ")"),
        StartsWith("raised: chunk:1: bad argument #1 to 'unescape' (string expected, got "));
  EXPECT_TRUE(net->lockIsFree());
}

TEST_F(UtilityTest, AllBytesAndOneMegabyteSurviveTheRoundTrip) {
  EXPECT_EQ("true", lua("local all = {} for i = 0, 255 do all[#all + 1] = string.char(i) end "
                        "all = table.concat(all):rep(4096) return unescape(escape(all)) == all"));
}

TEST_F(UtilityTest, GettimeofdayIsANewTableWithTheTime) {
  EXPECT_EQ("true", lua("local t = gettimeofday(1, {}, nil) "
                        "return math.abs(t.sec - os.time()) <= 60 and t.usec >= 0 and "
                        "t.usec < 1000000 and t.usec == math.floor(t.usec)"));
  EXPECT_EQ("false", lua("return gettimeofday() == gettimeofday()"));
  EXPECT_EQ("2", lua("local n = 0 for _ in pairs(gettimeofday()) do n = n + 1 end return n"));
}

}  // namespace
