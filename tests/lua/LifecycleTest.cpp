// Opening and closing a script: the four commands, every failure, and what a script finds.
#include <gtest/gtest.h>

#include <filesystem>

#include "ScriptTest.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class LifecycleTest : public ScriptTest {
 protected:
  // Opens a script with exactly this text.
  std::string open(std::string_view text, const std::string& file = "test.lua") {
    scripts.write(file, text);
    net->command({"luafile", file});
    newLines();
    return net->command({"luaopen"});
  }

  // What a failed opening leaves behind: `text` is both the report and the warning.
  void expectFailed(const std::string& text, const std::string& file = "test.lua") {
    EXPECT_THAT(newLines(),
                ElementsAre("2 " + text, "3 opening lua with file lua/" + file + " failed",
                            "4 cannot close lua as lua not open"));
    EXPECT_EQ(text, warning());
    EXPECT_EQ(nullptr, net->lua_state);
  }
};

TEST_F(LifecycleTest, ANewRovikHasNoInterpreterAndNoFile) {
  EXPECT_EQ(nullptr, net->lua_state);
  EXPECT_STREQ("", net->luafile);
  EXPECT_EQ(MT_NETWORK_GENERIC, net->type);
}

TEST_F(LifecycleTest, LuafileKeepsTheNameAndLogsIt) {
  EXPECT_EQ("OK", net->command({"luafile", "boiler.lua"}));
  EXPECT_THAT(newLines(), ElementsAre("3 lua file set to: boiler.lua"));
  EXPECT_STREQ("boiler.lua", net->luafile);
}

TEST_F(LifecycleTest, ANameOf600CharactersIsCutTo512) {
  EXPECT_EQ("OK", net->command({"luafile", std::string(600, 'x')}));
  EXPECT_THAT(newLines(), ElementsAre("3 lua file set to: " + std::string(512, 'x')));
  EXPECT_EQ("ERROR", net->command({"luaopen"}));
  EXPECT_THAT(warning(), StartsWith("lua file load error: cannot open "));
}

TEST_F(LifecycleTest, LuafileDoesNotDisturbAnOpenScript) {
  script("value = 7");
  net->command({"luafile", "other.lua"});
  EXPECT_EQ("7", lua("return value"));
}

TEST_F(LifecycleTest, LuafileWithoutANameIsAnOrdinaryWord) {
  EXPECT_EQ("", net->command({"luafile"}));
  EXPECT_THAT(newLines(), IsEmpty());
  script("function luafile() return 'mine' end");
  EXPECT_EQ("mine", net->command({"luafile"}));
}

TEST_F(LifecycleTest, LuaopenRunsTheScriptAndItsInit) {
  EXPECT_EQ("OK", open("ran = 1\nfunction ROVIK_INIT(me) m_p = me inits = (inits or 0) + 1 end"));
  EXPECT_THAT(newLines(), IsEmpty());
  EXPECT_EQ("1 1", lua("return ran, inits"));
  EXPECT_EQ("userdata", lua("return type(m_p)"));
}

TEST_F(LifecycleTest, InitGetsTheRovikItself) {
  script("");
  lua_getglobal(net->lua_state, "m_p");
  EXPECT_TRUE(lua_islightuserdata(net->lua_state, -1));
  EXPECT_EQ(static_cast<LuaRovik*>(net.get()), lua_touserdata(net->lua_state, -1));
  lua_settop(net->lua_state, 0);
}

TEST_F(LifecycleTest, TheScriptIsRunWithoutArgumentsAndInitWithOne) {
  script(
      "ran = select('#', ...) local init = ROVIK_INIT "
      "function ROVIK_INIT(...) inits = select('#', ...) init(...) end");
  EXPECT_EQ("0 1", lua("return ran, inits"));
}

TEST_F(LifecycleTest, AScriptThatIsOnlyBeingRunFindsEverythingAlready) {
  script("found = {INSTROOT, network_id, type(sndIO), type(sndDATA), type(string.rep)}");
  EXPECT_EQ(scripts.root() + ",5,function,function,function",
            lua("return table.concat(found, ',')"));
}

TEST_F(LifecycleTest, APrecompiledScriptIsLoadedToo) {
  script("function ROVIK_INIT(me) m_p = me value = 7 end");
  EXPECT_EQ("", lua("local file = io.open(INSTROOT .. '/lua/precompiled.lua', 'wb') "
                    "file:write(string.dump(loadfile(INSTROOT .. '/lua/test.lua'))) file:close()"));
  net->command({"luafile", "precompiled.lua"});
  ASSERT_EQ("OK", net->command({"luarestart"})) << warning();
  EXPECT_EQ("7", lua("return value"));
}

TEST_F(LifecycleTest, OpeningLeavesNothingOnTheStack) {
  script("function ROVIK_INIT(me) m_p = me return 1, 2, 3 end return 4");
  EXPECT_EQ(0, height());
}

TEST_F(LifecycleTest, ASecondLuaopenChangesNothing) {
  script("runs = 1");
  lua("runs = 2");
  EXPECT_EQ("OK", net->command({"luaopen"}));
  EXPECT_THAT(newLines(), ElementsAre("4 cannot prep lua as lua already open"));
  EXPECT_EQ("2", lua("return runs"));
}

TEST_F(LifecycleTest, TheResultOfPreparingTellsNewFromOpen) {
  scripts.write("test.lua", kPlainScript);
  net->command({"luafile", "test.lua"});
  EXPECT_EQ(-1, net->initLua());
  EXPECT_EQ(0, net->prepLua());
  EXPECT_EQ(1, net->prepLua());
  EXPECT_EQ(0, net->initLua());
  EXPECT_EQ(0, net->openLua());
}

TEST_F(LifecycleTest, TheResultOfOpeningTellsFailureAndClosingAlwaysSucceeds) {
  net->command({"luafile", "none.lua"});
  EXPECT_EQ(-1, net->prepLua());
  EXPECT_EQ(-1, net->openLua());
  EXPECT_EQ(0, net->closeLua());
  script("");
  EXPECT_EQ(0, net->closeLua());
  EXPECT_EQ(nullptr, net->lua_state);
}

TEST_F(LifecycleTest, LuacloseForgetsEverything) {
  script("value = 7");
  EXPECT_EQ("OK", net->command({"luaclose"}));
  EXPECT_THAT(newLines(), IsEmpty());
  EXPECT_EQ(nullptr, net->lua_state);
  EXPECT_EQ("OK", net->command({"luaopen"}));
  EXPECT_EQ("7", lua("return value"));
}

TEST_F(LifecycleTest, LuacloseWithNothingOpenIsLoggedAndSucceeds) {
  EXPECT_EQ("OK", net->command({"luaclose"}));
  EXPECT_THAT(newLines(), ElementsAre("4 cannot close lua as lua not open"));
}

TEST_F(LifecycleTest, LuarestartLoadsTheFileAnew) {
  script("value = 1");
  scripts.write("x.lua", std::string(kPlainScript) + "value = 2");
  net->command({"luafile", "x.lua"});
  newLines();
  EXPECT_EQ("OK", net->command({"luarestart"}));
  EXPECT_THAT(newLines(), IsEmpty());
  EXPECT_EQ("2", lua("return value"));
}

TEST_F(LifecycleTest, LuarestartWithNothingOpenComplainsAndOpens) {
  scripts.write("test.lua", kPlainScript);
  net->command({"luafile", "test.lua"});
  newLines();
  EXPECT_EQ("OK", net->command({"luarestart"}));
  EXPECT_THAT(newLines(), ElementsAre("4 cannot close lua as lua not open"));
}

TEST_F(LifecycleTest, LuarestartOfABrokenFileEndsClosed) {
  script("");
  scripts.write("test.lua", "error('no')");
  EXPECT_EQ("ERROR", net->command({"luarestart"}));
  EXPECT_EQ(nullptr, net->lua_state);
  EXPECT_THAT(newLines(),
              ElementsAre(HasSubstr("2 lua error: "), "3 opening lua with file lua/test.lua failed",
                          "4 cannot close lua as lua not open"));
}

TEST_F(LifecycleTest, AMissingFileIsALoadError) {
  net->command({"luafile", "none.lua"});
  newLines();
  EXPECT_EQ("ERROR", net->command({"luaopen"}));
  expectFailed("lua file load error: cannot open " + scripts.path("none.lua") +
                   ": No such file or directory",
               "none.lua");
}

TEST_F(LifecycleTest, WithoutAFileNameOpeningFailsCleanly) {
  EXPECT_EQ("ERROR", net->command({"luaopen"}));
  EXPECT_THAT(warning(), StartsWith("lua file load error: cannot read " + scripts.path("")));
}

TEST_F(LifecycleTest, AFolderIsALoadError) {
  std::filesystem::create_directory(scripts.path("folder"));
  net->command({"luafile", "folder"});
  newLines();
  EXPECT_EQ("ERROR", net->command({"luaopen"}));
  expectFailed("lua file load error: cannot read " + scripts.path("folder") + ": Is a directory",
               "folder");
}

TEST_F(LifecycleTest, ASyntaxErrorIsALoadErrorWithItsLine) {
  EXPECT_EQ("ERROR", open("x = 1\nx ="));
  expectFailed("lua file load error: " + scripts.path("test.lua") +
               ":2: unexpected symbol near <eof>");
}

TEST_F(LifecycleTest, BinaryRubbishIsALoadError) {
  EXPECT_EQ("ERROR", open(std::string_view("\x1bLua\x00\xff\x00garbage", 15)));
  EXPECT_THAT(warning(), StartsWith("lua file load error: "));
  EXPECT_EQ("ERROR", open(std::string_view("\x00\x01\xfe\xff", 4)));
  EXPECT_THAT(warning(), StartsWith("lua file load error: "));
  EXPECT_EQ(nullptr, net->lua_state);
}

TEST_F(LifecycleTest, AnErrorInTheScriptClosesIt) {
  EXPECT_EQ("ERROR", open("error('no')"));
  expectFailed("lua error: " + scripts.path("test.lua") + ":1: no");
}

TEST_F(LifecycleTest, AnErrorThatIsNoTextIsNamed) {
  EXPECT_EQ("ERROR", open("error({})"));
  expectFailed("lua error: (error is a table value)");
}

TEST_F(LifecycleTest, AnEmptyFileHasNoInit) {
  EXPECT_EQ("ERROR", open(""));
  expectFailed("lua init error: attempt to call a nil value");
}

TEST_F(LifecycleTest, AScriptWithoutInitIsClosed) {
  EXPECT_EQ("ERROR", open("x = 1"));
  expectFailed("lua init error: attempt to call a nil value");
}

TEST_F(LifecycleTest, AnErrorInInitClosesTheScript) {
  EXPECT_EQ("ERROR", open("function ROVIK_INIT() error('no', 0) end"));
  expectFailed("lua init error: no");
}

TEST_F(LifecycleTest, AMetatableThatForbidsUnknownGlobalsMakesAMissingInitAnInitError) {
  EXPECT_EQ("ERROR", open("setmetatable(_G, {__index = function(_, n) error('no ' .. n, 0) end})"));
  expectFailed("lua init error: no ROVIK_INIT");
}

TEST_F(LifecycleTest, ARefusedPreparationOfTheDerivedClassAbortsTheOpening) {
  net->refuses_prep = true;
  EXPECT_EQ("ERROR", open("error('not run')"));
  expectFailed("lua local prep error");
}

TEST_F(LifecycleTest, AFileOfTenMegabytesIsLoaded) {
  std::string text(kPlainScript);
  while (text.size() < 10'000'000) text += "-- a comment that fills the file up to its full size\n";
  text += "last = 'line'";
  EXPECT_EQ("OK", open(text));
  EXPECT_EQ("line", lua("return last"));
}

TEST_F(LifecycleTest, ThePathIsCutTo511Characters) {
  const std::string file(600 - scripts.path("").size(), 'x');
  net->command({"luafile", file});
  newLines();
  EXPECT_EQ("ERROR", net->command({"luaopen"}));
  const std::string path = scripts.path(file).substr(0, 511);
  EXPECT_THAT(warning(), HasSubstr("cannot open " + path + ": "));
}

TEST_F(LifecycleTest, AScriptFindsItsRootItsNetworkAndTheLibraries) {
  net->command({"id", "17"});
  script("");
  EXPECT_EQ(scripts.root(), lua("return INSTROOT"));
  EXPECT_EQ(std::to_string(net->network_id), lua("return network_id"));
  EXPECT_EQ("function function function", lua("return type(string.rep), type(io.open), "
                                              "type(debug.traceback)"));
}

TEST_F(LifecycleTest, NetworkIdIsTheOneAtTheMomentOfOpening) {
  script("");
  net->network_id = 99;
  EXPECT_EQ("5", lua("return network_id"));
  EXPECT_EQ("OK", net->command({"luarestart"}));
  EXPECT_EQ("99", lua("return network_id"));
}

TEST_F(LifecycleTest, AllFunctionsAreThereAndPrintIsNotTheLibrarys) {
  script("");
  EXPECT_EQ("", lua("for _, name in ipairs{'print', 'unescape', 'escape', 'gettimeofday', 'getCMD',"
                    "'getDATA', 'sndDATA', 'sndDATA_REQUEST', 'sndACTUATOR_REQUEST', 'sndMSG',"
                    "'sndCMD', 'sndMM', 'getMM', 'sndIO'} do assert(debug.getinfo(_G[name]).what =="
                    "'C', name) assert(debug.getinfo(_G[name]).nups == 0) end"));
  lua("print('to the log')");
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: to the log"));
}

TEST_F(LifecycleTest, AnEmptyCommandVectorIsNotHandled) {
  script("");
  char* words[10] = {};
  EXPECT_EQ("", net->interpretCmd(words));
}

TEST_F(LifecycleTest, AWordWithoutAScriptIsNotHandled) {
  EXPECT_EQ("", net->command({"setpoint", "21"}));
  EXPECT_THAT(newLines(), IsEmpty());
}

TEST_F(LifecycleTest, ARovikMayBeDeletedWithItsScriptOpen) {
  script("setmetatable({}, {__gc = function() sndDATA('5_1_0', 'int', 1, 'BC') print('bye') end})");
  net.reset();
  EXPECT_THAT(traffic.takeTexts(), IsEmpty());
  EXPECT_EQ(0U, log.count("bye"));
}

TEST_F(LifecycleTest, FinalizersCanStillCallWhileLuacloseRuns) {
  script(
      "guard = setmetatable({}, {__gc = function() sndDATA('5_1_0', 'int', 1, 'BC') "
      "print('bye') sndIO('x') error('ignored') end})");
  EXPECT_EQ("OK", net->command({"luaclose"}));
  EXPECT_THAT(traffic.takeTexts(), ElementsAre("MM_DATA 5_1_0 = 1 to everybody"));
  EXPECT_EQ(1U, log.count("LUA: bye"));
  EXPECT_EQ(nullptr, net->lua_state);
}

TEST_F(LifecycleTest, EveryLineCarriesTheIdAndTheNameOfTheRovik) {
  script("print('x') sndDATA() function ROVIK_PERIODIC() error('y') end");
  net->selectTI();
  net->command({"luaopen"});
  EXPECT_GE(log.lines().size(), 5U);
  for (const auto& line : log.lines()) {
    EXPECT_EQ(5, line.id) << line;
    EXPECT_EQ("net", line.name) << line;
  }
}

TEST_F(LifecycleTest, AThousandRestartsLeaveNothingBehind) {
  script("data = {} for i = 1, 100 do data[i] = {i} end");
  for (int i = 0; i < 1000; ++i) ASSERT_EQ("OK", net->command({"luarestart"}));
  EXPECT_EQ(0, height());
}

}  // namespace
