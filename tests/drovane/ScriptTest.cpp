// Scripts in the real program: checking them, living with them, ending in spite of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>

#include "RunningProgram.h"

namespace {

using testing::HasSubstr;

class ScriptedHouse : public testing::Test {
 protected:
  // Writes lua/boiler.lua below `root`, and returns a house that opens it.
  std::string houseWithScript(const std::string& text, const std::string& root = "") {
    std::filesystem::create_directories(program.folder / (root + "lua"));
    program.folder.write(root + "lua/boiler.lua", text);
    return (root.empty() ? "" : "root " + root + "\n") +
           "rovik 5 boiler generic_net\n  luafile boiler.lua\n  luaopen\n";
  }

  Program program;
};

TEST_F(ScriptedHouse, CheckAcceptsAScriptThatCompilesAndDoesNotRunIt) {
  const Finished done = program.check(
      houseWithScript("io.open(INSTROOT .. '/ran', 'w') error('ran')") + "  poll 5\n");
  EXPECT_EQ(done.status, 0) << done.errors;
  EXPECT_EQ(done.output, program.file() + ": ok, 1 rovik\n");
  EXPECT_FALSE(std::filesystem::exists(program.folder / "ran"));
}

TEST_F(ScriptedHouse, CheckReportsWhereAScriptDoesNotCompile) {
  const Finished done = program.check(houseWithScript("x = 1\ny ="));
  EXPECT_EQ(done.status, 2);
  EXPECT_EQ(done.errors, program.file() +
                             ":3: rovik 5 boiler: 'luaopen' was answered with ERROR "
                             "(lua/boiler.lua:2: unexpected symbol near <eof>)\n");
}

TEST_F(ScriptedHouse, CheckNamesTheScriptAlsoBelowALongRoot) {
  const std::string root = std::string(100, 'r') + '/';
  const Finished done = program.check(houseWithScript("x = 1\ny =", root));
  EXPECT_EQ(done.status, 2);
  EXPECT_THAT(done.errors, HasSubstr("(lua/boiler.lua:2: unexpected symbol near <eof>)\n"));
}

TEST_F(ScriptedHouse, CheckReportsAMissingScript) {
  houseWithScript("");
  const Finished done =
      program.check("rovik 5 boiler generic_net\n  luafile none.lua\n  luaopen\n");
  EXPECT_EQ(done.status, 2);
  EXPECT_THAT(done.errors, HasSubstr(program.file() +
                                     ":3: rovik 5 boiler: 'luaopen' was answered with ERROR "
                                     "(cannot open lua/none.lua: No such file or directory)\n"));
}

TEST_F(ScriptedHouse, ACommandReachesTheScript) {
  program.startReady(
      houseWithScript("function ROVIK_INIT(me) m_p = me end "
                      "function greet(words) return 'hello ' .. words.arg1 end"));
  EXPECT_EQ(program.ask({"cmd", "boiler", "greet", "you"}).output, "hello you\n");
  const Finished unknown = program.ask({"cmd", "boiler", "nothing"});
  EXPECT_EQ(unknown.status, 1);
  EXPECT_EQ(unknown.output, "ERROR (LUA FUNCTION ERROR)\n");
}

TEST_F(ScriptedHouse, AnEndlessLoopDoesNotKeepTheProgramFromEnding) {
  program.startReady(
      houseWithScript("function ROVIK_INIT(me) m_p = me end "
                      "function spin() print('spinning') while true do end end"));
  const Process asking({DROVANE_PROGRAM, "cmd", "boiler", "spin"},
                       {{"DROVANE_CONTROL", program.control}});
  ASSERT_TRUE(program.running().waitForErrors("LUA: spinning"));
  const auto before = std::chrono::steady_clock::now();
  program.running().signal(SIGTERM);
  EXPECT_EQ(program.running().wait(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(6));
}

}  // namespace
