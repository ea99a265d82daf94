// What a careless or hostile script can do to its rovik: nothing.
#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "Drovane.h"
#include "ScriptTest.h"
#include "framework/RecordPool.h"

namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

const char kRefused[] = "4 LUA: m_p is not what ROVIK_INIT was given, call refused";

class HostileTest : public ScriptTest {
 protected:
  void SetUp() override {
    script(
        "all = {print=print, unescape=unescape, escape=escape, gettimeofday=gettimeofday, "
        "getCMD=getCMD, getDATA=getDATA, sndDATA=sndDATA, sndDATA_REQUEST=sndDATA_REQUEST, "
        "sndACTUATOR_REQUEST=sndACTUATOR_REQUEST, sndMSG=sndMSG, sndCMD=sndCMD, sndMM=sndMM, "
        "getMM=getMM, sndIO=sndIO}");
    lua("me = m_p");
  }

  // Calls all fourteen functions; how many results and errors there were.
  std::string callAll() {
    return lua(
        "local results, errors = 0, 0 for _, f in pairs(all) do "
        "local outcome = table.pack(pcall(f, 'x', 'x', 'x')) "
        "if outcome[1] then results = results + outcome.n - 1 else errors = errors + 1 end "
        "end return results, errors");
  }
};

TEST_F(HostileTest, WithoutMpEveryCallIsRefusedWithOneLine) {
  for (const char* other : {"nil", "false", "'x'", "7", "{}", "print", "io.stdout",
                            "coroutine.create(print)", "setmetatable({}, {__index = me})"}) {
    lua(std::string("m_p = ") + other);
    EXPECT_EQ("0 0", callAll()) << other;
    const Texts lines = newLines();
    EXPECT_EQ(14U, lines.size()) << other;
    EXPECT_THAT(lines, Each(kRefused)) << other;
  }
  lua("m_p = me print('back')");
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: back"));
}

TEST_F(HostileTest, AForeignLightUserdataIsNotTakenForTheRovik) {
  lua("local x = 1 m_p = debug.upvalueid(function() return x end, 1)");
  EXPECT_EQ("userdata", lua("return type(m_p)"));
  EXPECT_EQ("0 0", callAll());
  EXPECT_THAT(newLines(), Each(kRefused));
}

TEST_F(HostileTest, TheRovikOfAnotherInterpreterIsNotTakenForThisOne) {
  auto other = ScriptRovik::make(6, "other");
  lua_pushlightuserdata(net->lua_state, static_cast<LuaRovik*>(other.get()));
  lua_setglobal(net->lua_state, "m_p");
  EXPECT_EQ("0 0", callAll());
  EXPECT_THAT(newLines(), Each(kRefused));
}

// Whatever of the registry's is not the interpreter's own.
TEST_F(HostileTest, ARegistryWithOtherValuesDoesNoHarm) {
  lua("debug.getregistry()[me] = me");
  for (const char* other : {"42", "'x'", "{}", "key", "me", "io.stdout", "nil"}) {
    lua(std::string("local registry = debug.getregistry() for key in pairs(registry) do ") +
        "if type(key) == 'userdata' then registry[key] = " + other + " end end");
    lua("m_p = me print('still here')");
    EXPECT_THAT(newLines(), ElementsAre("3 LUA: still here")) << other;
    lua("m_p = io.stdout");
    EXPECT_EQ("0 0", callAll()) << other;
    EXPECT_THAT(newLines(), Each(kRefused)) << other;
    lua("function ROVIK_RCVIO(text) heard = text return 5000000 end");
    char line[] = "x";
    net->rcvData(line, 1);
    EXPECT_EQ("x", lua("return heard")) << other;
    newLines();
  }
}

TEST_F(HostileTest, WithoutATableOfGlobalsACallIsRefused) {
  lua("local registry = debug.getregistry() registry[2] = 42 print('lost') registry[2] = _ENV "
      "print('back')");
  EXPECT_THAT(newLines(), ElementsAre(kRefused, "3 LUA: back"));
}

TEST_F(HostileTest, WithoutATableOfGlobalsAnEventIsReported) {
  lua("debug.getregistry()[2] = 42");
  newLines();
  char line[] = "x";
  net->rcvData(line, 1);
  EXPECT_THAT(newLines(), Contains("2 lua function error: attempt to index a number value"));
}

TEST_F(HostileTest, AMissingMpBehindARaisingMetatableIsRefusedToo) {
  lua("m_p = nil setmetatable(_G, {__index = function(_, n) error('no ' .. n) end})");
  EXPECT_EQ("0 0", callAll());
  EXPECT_THAT(newLines(), Each(kRefused));
}

TEST_F(HostileTest, AnMpThatAMetatableSuppliesIsFound) {
  lua("local kept = m_p m_p = nil setmetatable(_G, {__index = function(_, n) "
      "if n == 'm_p' then return kept end end}) print('found')");
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: found"));
}

TEST_F(HostileTest, AStrictScriptWithoutEventFunctionsIsReportedEachTime) {
  lua("setmetatable(_G, {__index = function(_, n) error('no ' .. n, 0) end})");
  TcpPeer peer;
  openTo(peer);
  newLines();
  const auto note = newNote("x");
  char line[] = "x";
  net->selectTI();
  net->selectMM(note.get());
  net->rcvData(line, 1);
  net->closeGeneric();
  Texts errors;
  for (const auto& text : newLines())
    if (text[0] == '2') errors.push_back(text);
  EXPECT_THAT(errors, ElementsAre("2 lua function error: no ROVIK_PERIODIC",
                                  "2 lua function error: no ROVIK_RCV",
                                  "2 lua function error: no ROVIK_RCVIO",
                                  "2 lua function error: no ROVIK_RCVCLOSE"));
}

TEST_F(HostileTest, AnErrorInEveryEventFunctionIsReportedAndNothingElse) {
  lua("for _, n in ipairs{'RCVOPEN', 'RCVCLOSE', 'RCVIO', 'RCV', 'PERIODIC'} do "
      "_G['ROVIK_' .. n] = function() error('in ' .. n, 0) end end");
  TcpPeer peer;
  openTo(peer);
  EXPECT_EQ("lua function error: in RCVOPEN", warning());
  feed(peer, "line\n");
  EXPECT_EQ("lua function error: in RCVIO", warning());
  EXPECT_THAT(traffic.takeTexts(), ElementsAre("MM_DATA 5_0_0 = \"line\\\\n\" to everybody"));
  const auto note = newNote("x");
  EXPECT_EQ(0, net->selectMM(note.get()));
  EXPECT_EQ("lua function error: in RCV", warning());
  EXPECT_EQ(0, net->selectTI());
  EXPECT_EQ("lua function error: in PERIODIC", warning());
  EXPECT_EQ("OK", net->command({"close"}));
  EXPECT_EQ("lua function error: in RCVCLOSE", warning());
  EXPECT_TRUE(peer.seesEnd());
}

TEST_F(HostileTest, MissingEventFunctionsAreReported) {
  EXPECT_EQ(0, net->selectTI());
  EXPECT_THAT(newLines(), ElementsAre("2 lua function error: attempt to call a nil value"));
}

TEST_F(HostileTest, AnErrorInsideAFunctionFreesTheLockAndTheRecord) {
  const auto in_use = drovane::RecordPool::inUse();
  for (const char* call :
       {"sndMM(setmetatable({}, {__index = function() error('boom', 0) end}), 'BC')",
        "getMM(setmetatable({}, {__index = function() error('boom', 0) end}), 'BC')"}) {
    EXPECT_EQ("raised: boom", lua(call));
    EXPECT_TRUE(net->lockIsFree()) << call;
  }
  // At every field that is read after the record was made.
  for (const std::string type : {"MM_DATA", "MM_ACTUATOR_REQUEST", "MM_DATA_REQUEST",
                                 "MM_CMD_REQUEST", "MM_CMD_RESPONSE", "MM_MSG"}) {
    for (const std::string field :
         {"network_type", "seqnr", "ident", "flags", "src", "key", "value_type", "value", "req_op",
          "from_tv_sec", "to_tv_sec", "cmd", "rsp", "channel", "msg"}) {
      const std::string result =
          lua("local t = {type='" + type +
              "', key='5_1_0', value_type='int', value=1, req_op=1} t." + field +
              " = nil return select('#', sndMM(setmetatable(t, {__index = function(_, n) "
              "if n == '" +
              field + "' then error('boom', 0) end end}), 'x'))");
      EXPECT_TRUE(result == "raised: boom" || result == "0") << result;
      EXPECT_TRUE(net->lockIsFree());
    }
  }
  for (const char* call : {"print(nil)", "unescape(nil)"}) {
    EXPECT_THAT(lua(call), StartsWith("raised: "));
    EXPECT_TRUE(net->lockIsFree()) << call;
  }
  traffic.take();
  EXPECT_EQ(in_use, drovane::RecordPool::inUse());
}

TEST_F(HostileTest, EveryArgumentAtEveryPlaceIsSurvived) {
  const auto in_use = drovane::RecordPool::inUse();
  EXPECT_EQ("", lua(R"(
    local odd = {
      false, true, 0, -1, 3.7, 2^31, -2^31, 2^63, -2^63, 1e308, math.huge, -math.huge, 0/0, '',
      '\0', 'BC', '5_1_0', 'int', 'float', 'string', '%s%n', ('x'):rep(1000000), {}, print,
      coroutine.create(print), io.stdout, m_p, {type = 'MM_DATA'},
      setmetatable({}, {__index = function(_, n) return n end}),
      setmetatable({}, {__index = function() error({}) end}),
      setmetatable({}, {__tostring = function() error('x') end, __len = error, __call = error}),
    }
    for name, f in pairs(all) do
      if name ~= 'sndIO' then
        for _, a in ipairs(odd) do
          pcall(f, a)
          for _, b in ipairs(odd) do pcall(f, a, b) end
        end
        for _, x in ipairs(odd) do
          pcall(f, x, 'int', 1, 'nobody') pcall(f, '5_1_0', x, 1, 'nobody')
          pcall(f, '5_1_0', 'int', x, 'nobody') pcall(f, '5_1_0', 'string', x, 'nobody')
          pcall(f, '5_1_0', 'float', x, 'nobody') pcall(f, '5_1_0', 'int', 1, x)
          pcall(f, '5_1_0', 'int', x) pcall(f, x, x, x) pcall(f, x, x, x, x, x)
        end
        pcall(f, table.unpack({}, 1, 200))
        pcall(f, nil, nil, nil, nil)
      end
    end)"));
  EXPECT_TRUE(net->lockIsFree());
  traffic.take();
  EXPECT_EQ(in_use, drovane::RecordPool::inUse());
  EXPECT_EQ("alive", lua("return 'alive'"));
}

TEST_F(HostileTest, DeepRecursionIsAScriptError) {
  lua("function ROVIK_PERIODIC() local function deep() return 1 + deep() end return deep() end");
  EXPECT_EQ(0, net->selectTI());
  EXPECT_THAT(warning(), HasSubstr("stack overflow"));
  lua("function ROVIK_PERIODIC() return 5000000 end");
  EXPECT_EQ(0, net->selectTI());
  EXPECT_EQ("alive", lua("return 'alive'"));
}

TEST_F(HostileTest, RecursionThroughAFunctionIsAScriptError) {
  lua("local t = setmetatable({}, {}) getmetatable(t).__index = function() sndMM(t, 6) end "
      "function ROVIK_PERIODIC() sndMM(t, 6) end");
  EXPECT_EQ(0, net->selectTI());
  EXPECT_THAT(warning(), HasSubstr("stack overflow"));
  EXPECT_TRUE(net->lockIsFree());
}

TEST_F(HostileTest, AFunctionMayBeCalledFromACoroutine) {
  lua("coroutine.wrap(function() sndDATA('5_1_0', 'int', 1, 'BC') coroutine.yield() end)()");
  EXPECT_THAT(traffic.takeTexts(), ElementsAre("MM_DATA 5_1_0 = 1 to everybody"));
  EXPECT_THAT(lua("return coroutine.resume(coroutine.create(function() print(nil) end))"),
              HasSubstr("false chunk:1: bad argument #1 to 'print'"));
  EXPECT_TRUE(net->lockIsFree());
}

TEST_F(HostileTest, AMillionArgumentsAreTooMany) {
  EXPECT_EQ("0", lua("return select('#', sndDATA(table.unpack({}, 1, 200000)))"));
  EXPECT_THAT(newLines(),
              ElementsAre("4 LUA: wrong number of arguments supplied to function call"));
}

// The bottom value is the only one of those left behind that is ever looked at again.
TEST_F(HostileTest, TheBottomOfTheStackOutlivesItsTrimming) {
  lua("function ROVIK_PERIODIC() return {} end function text() return 'x' end");
  for (int i = 0; i < 1000; ++i) net->selectTI();
  EXPECT_TRUE(lua_istable(net->lua_state, 1));
  EXPECT_EQ("ERROR", net->command({"text"}));
}

TEST_F(HostileTest, TwoMillionCallsLeaveTheInterpreterAsItWas) {
  Drovane::global.setLogLevel(1);
  lua("n = 0 function ROVIK_PERIODIC() n = n + 1 if n % 3 == 0 then error('x', 0) end "
      "if n % 3 == 1 then return 5 end return 1, 2, 3 end function two() return 1, 2 end");
  char two[] = "two";
  char* words[10] = {two};
  const auto round = [&] {
    int highest = 0;
    for (int i = 0; i < 500'000; ++i) {
      net->selectTI();
      net->interpretCmd(words);
      highest = std::max(highest, height());
    }
    lua_gc(net->lua_state, LUA_GCCOLLECT, 0);
    return std::pair(highest, lua_gc(net->lua_state, LUA_GCCOUNT, 0));
  };
  const auto [height_before, memory_before] = round();
  const auto [height_after, memory_after] = round();
  EXPECT_LE(height_before, 264);
  EXPECT_LE(height_after, 264);
  EXPECT_LE(memory_after, memory_before + 4);  // KiB
  EXPECT_EQ("1000000", lua("return n"));
}

}  // namespace
