// What a rovik does when no interpreter can be made. The linker leads the call of this executable
// through here (see tests/CMakeLists.txt).
#include <gtest/gtest.h>

#include "Drovane.h"
#include "ScriptTest.h"

namespace {

bool missing = false;

}  // namespace

extern "C" {

// The linker's names for the two sides of the call.
lua_State* __real_lua_newstate(lua_Alloc allocate, void* context);
lua_State* __wrap_lua_newstate(lua_Alloc allocate, void* context) {
  return missing ? nullptr : __real_lua_newstate(allocate, context);
}

}  // extern "C"

namespace {

using testing::ElementsAre;

// No interpreter can be made while it lives.
class NoInterpreterTest : public ScriptTest {
 protected:
  NoInterpreterTest() {
    scripts.write("test.lua", kPlainScript);
    net->command({"luafile", "test.lua"});
    newLines();
    missing = true;
  }
  ~NoInterpreterTest() override { missing = false; }
};

// The words are those of a script that is open already.
TEST_F(NoInterpreterTest, OpeningFailsWithoutAWarning) {
  EXPECT_EQ("ERROR", net->command({"luaopen"}));
  EXPECT_THAT(newLines(), ElementsAre("4 cannot prep lua as lua already open",
                                      "3 opening lua with file lua/test.lua failed",
                                      "4 cannot close lua as lua not open"));
  EXPECT_EQ(-1, net->prepLua());
  EXPECT_EQ(nullptr, net->lua_state);
  EXPECT_EQ("", warning());
}

TEST_F(NoInterpreterTest, OpeningSucceedsAsSoonAsThereIsOne) {
  EXPECT_EQ("ERROR", net->command({"luarestart"}));
  missing = false;
  EXPECT_EQ("OK", net->command({"luarestart"}));
}

TEST_F(NoInterpreterTest, ScriptCannotBeChecked) {
  Drovane::global.setChecking(true);
  const std::string reply = net->command({"luaopen"});
  Drovane::global.setChecking(false);
  EXPECT_EQ("ERROR (not enough memory to check lua/test.lua)", reply);
}

}  // namespace
