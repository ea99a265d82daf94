// How high the interpreter's stack may grow: commands and events each keep it low by themselves,
// and nothing that an earlier call left is dropped before the bound.
#include <gtest/gtest.h>

#include "ScriptTest.h"

namespace {

constexpr int kBound = 256;

class StackHeightTest : public ScriptTest {
 protected:
  void SetUp() override {
    script("function one() return 'x' end function ROVIK_PERIODIC() return 30000000 end");
    lua_settop(net->lua_state, 0);
  }
};

TEST_F(StackHeightTest, CommandsAloneKeepItLow) {
  for (int i = 1; i <= kBound + 1; ++i) {
    net->command({"one"});
    ASSERT_EQ(i, height());
  }
  net->command({"one"});
  EXPECT_EQ(2, height());
}

TEST_F(StackHeightTest, EventsAloneKeepItLow) {
  for (int i = 1; i <= kBound + 1; ++i) {
    net->selectTI();
    ASSERT_EQ(i, height());
  }
  net->selectTI();
  EXPECT_EQ(2, height());
}

}  // namespace
