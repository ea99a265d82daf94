// A word that nothing else handles is a function of the script; and what stays on the stack.
#include <gtest/gtest.h>

#include "ScriptTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class CommandTest : public ScriptTest {
 protected:
  // Leaves a value at the bottom of the stack, as an earlier call would have.
  void leave(const std::string& expression) {
    lua_settop(net->lua_state, 0);
    ASSERT_EQ(LUA_OK, luaL_loadstring(net->lua_state, ("return " + expression).c_str()));
    ASSERT_EQ(LUA_OK, lua_pcall(net->lua_state, 0, LUA_MULTRET, 0));
  }
};

TEST_F(CommandTest, ThePartsOfTheCommandAreArg1ToArg9) {
  script(R"(function words(t)
    local all = {}
    for i = 1, 12 do all[i] = tostring(t['arg' .. i]) end
    return table.concat(all, ',')
  end)");
  EXPECT_EQ("a,b c,nil,nil,nil,nil,nil,nil,nil,nil,nil,nil", net->command({"words", "a", "b c"}));
  lua_settop(net->lua_state, 0);
  EXPECT_EQ("1,2,3,4,5,6,7,8,9,nil,nil,nil",
            net->command({"words", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10"}));
}

TEST_F(CommandTest, ItGetsOneTableAndNothingElse) {
  script("function count(...) return select('#', ...) .. type(...) end");
  EXPECT_EQ("1table", net->command({"count", "x"}));
}

TEST_F(CommandTest, NoResultIsOk) {
  script("function f() end");
  EXPECT_EQ("OK", net->command({"f"}));
  EXPECT_EQ(0, height());
}

TEST_F(CommandTest, NoResultIsOkWhateverIsLeftAtTheBottom) {
  script("function f() end");
  for (const char* bottom : {"1", "'text'", "{}", "nil, true"}) {
    leave(bottom);
    EXPECT_EQ("OK", net->command({"f"})) << bottom;
  }
}

TEST_F(CommandTest, OneTextOrNumberIsTheReply) {
  script(
      "function text() return 'hello' end function number() return 21.5 end "
      "function empty() return '' end");
  EXPECT_EQ("hello", net->command({"text"}));
  EXPECT_EQ("21.5", net->command({"number"}));
  EXPECT_EQ("", net->command({"empty"}));
  EXPECT_THAT(newLines(), IsEmpty());
}

TEST_F(CommandTest, TheResultsStayOnTheStack) {
  script("function f() return 1 end function two() return 1, 2 end function bad() error('x') end");
  net->command({"f"});
  EXPECT_EQ(1, height());
  net->command({"two"});
  EXPECT_EQ(3, height());
  net->command({"bad"});
  EXPECT_EQ(4, height());
}

TEST_F(CommandTest, TwoResultsATableANilOrABooleanIsAnError) {
  script(
      "function two() return 1, 2 end function tab() return {} end function none() return nil "
      "end function yes() return true end function call() return print end");
  for (const char* word : {"two", "tab", "none", "yes", "call"}) {
    lua_settop(net->lua_state, 0);
    EXPECT_EQ("ERROR", net->command({word})) << word;
  }
  EXPECT_THAT(newLines(), IsEmpty());
}

TEST_F(CommandTest, AnErrorIsReportedAndAnswered) {
  script("function f() error('no', 0) end");
  EXPECT_EQ("ERROR (LUA FUNCTION ERROR)", net->command({"f"}));
  EXPECT_THAT(newLines(), ElementsAre("2 lua function error: no"));
  EXPECT_EQ("lua function error: no", warning());
}

TEST_F(CommandTest, AWordThatTheScriptDoesNotHaveIsAnError) {
  script("");
  EXPECT_EQ("ERROR (LUA FUNCTION ERROR)", net->command({"nothing"}));
  EXPECT_THAT(newLines(), ElementsAre("2 lua function error: attempt to call a nil value"));
}

TEST_F(CommandTest, AStrictScriptRaisesForUnknownWordsAndLivesOn) {
  script(
      "function f() return 'here' end "
      "setmetatable(_G, {__index = function(_, n) error('no ' .. n, 0) end})");
  EXPECT_EQ("here", net->command({"f"}));
  lua_settop(net->lua_state, 0);
  EXPECT_EQ("ERROR (LUA FUNCTION ERROR)", net->command({"nothing"}));
  EXPECT_EQ("lua function error: no nothing", warning());
  lua_settop(net->lua_state, 0);
  EXPECT_EQ("here", net->command({"f"}));
}

TEST_F(CommandTest, AGlobalThatAMetatableSuppliesIsFound) {
  script(
      "setmetatable(_G, {__index = function(_, n) return function() return 'for ' .. n end end})");
  EXPECT_EQ("for anything", net->command({"anything"}));
}

TEST_F(CommandTest, AReplyEndsAtItsFirstZeroByte) {
  script("function f() return 'a\\0b' end");
  EXPECT_EQ("a", net->command({"f"}));
}

TEST_F(CommandTest, AReplyOfOneMegabyteIsWhole) {
  script("function f() return ('x'):rep(1000000) end");
  EXPECT_EQ(std::string(1000000, 'x'), net->command({"f"}));
}

// What an earlier call left at the bottom, and whether a text, a number or a table is then a reply.
struct Left {
  const char* name;
  const char* bottom;
  const char* text;
  const char* number;
  const char* numeric_text;
  const char* table;
};

class WhatIsLeft : public CommandTest, public testing::WithParamInterface<Left> {};

TEST_P(WhatIsLeft, AtTheBottomDecidesWhetherTheTopIsAReply) {
  script(
      "function text() return 'hello' end function number() return 7 end "
      "function numeric() return '12' end function tab() return {} end");
  const auto replyTo = [this](const char* word) {
    leave(GetParam().bottom);
    return net->command({word});
  };
  EXPECT_EQ(GetParam().text, replyTo("text"));
  EXPECT_EQ(GetParam().number, replyTo("number"));
  EXPECT_EQ(GetParam().numeric_text, replyTo("numeric"));
  EXPECT_EQ(GetParam().table, replyTo("tab"));
  EXPECT_THAT(newLines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    CommandTest, WhatIsLeft,
    testing::Values(Left{"nothing", "", "hello", "7", "12", "ERROR"},
                    Left{"a_number", "1", "hello", "7", "12", "ERROR"},
                    Left{"a_numeric_text", "'1'", "hello", "7", "12", "ERROR"},
                    Left{"a_text", "'x'", "hello", "7", "12", "ERROR"},
                    Left{"a_table", "{}", "ERROR", "ERROR", "ERROR", "ERROR"},
                    Left{"a_nil", "nil", "ERROR", "ERROR", "ERROR", "ERROR"},
                    Left{"a_boolean", "true", "ERROR", "ERROR", "ERROR", "ERROR"},
                    Left{"an_error_text", "'chunk:1: boom'", "hello", "7", "12", "ERROR"}),
    [](const auto& each) { return std::string(each.param.name); });

}  // namespace
