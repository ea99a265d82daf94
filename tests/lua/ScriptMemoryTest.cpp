// What a script holds, as the status display shows it.
#include <gtest/gtest.h>

#include "ScriptTest.h"

namespace {

class ScriptMemoryTest : public ScriptTest {
 protected:
  std::size_t held() const { return net->host().status().script_memory; }
  void open(std::string_view text) {
    scripts.write("test.lua", text);
    net->command({"luafile", "test.lua"});
    ASSERT_EQ(net->command({"luaopen"}), "OK");
  }
};

TEST_F(ScriptMemoryTest, WithoutAScriptThereIsNone) { EXPECT_EQ(held(), 0U); }

TEST_F(ScriptMemoryTest, AnOpenScriptHoldsSomeUntilItIsClosed) {
  open("function ROVIK_INIT(me) m_p = me end");
  EXPECT_GT(held(), 10'000U);
  EXPECT_LT(held(), 200'000U);
  net->command({"luaclose"});
  EXPECT_EQ(held(), 0U);
}

TEST_F(ScriptMemoryTest, WhatAScriptTakesAndGivesBackIsCounted) {
  open(
      "function ROVIK_INIT(me) m_p = me end "
      "function grow() text = string.rep('x', 1000000) return 'ok' end "
      "function shrink() text = nil collectgarbage() return 'ok' end");
  const std::size_t small = held();
  EXPECT_EQ(net->command({"grow"}), "ok");
  EXPECT_GE(held(), small + 1'000'000);
  EXPECT_EQ(net->command({"shrink"}), "ok");
  EXPECT_LT(held(), small + 100'000);
}

TEST_F(ScriptMemoryTest, AScriptThatCannotBeLoadedLeavesNone) {
  scripts.write("test.lua", "this is no script");
  net->command({"luafile", "test.lua"});
  EXPECT_EQ(net->command({"luaopen"}), "ERROR");
  EXPECT_EQ(held(), 0U);
}

}  // namespace
