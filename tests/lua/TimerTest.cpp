// The delay that an event function returns.
#include <gtest/gtest.h>

#include "ScriptTest.h"
#include "framework/Clock.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Between arming the timer and reading it back some time passes, even on a loaded machine not
// seconds; and no delay of these tests is nearer to another one.
constexpr double kTolerance = 0.2;
// What the timer is armed with before each call: not a delay that any call asks for.
constexpr int kBefore = 1000;

class DelayTest : public ScriptTest {
 protected:
  // Leaves `bottom` on the stack, calls ROVIK_PERIODIC with `returned` as its result, and tells for
  // how long the timer is then armed.
  double after(const std::string& bottom, const std::string& returned) {
    lua_State* const L = net->lua_state;
    lua_settop(L, 0);
    EXPECT_EQ(LUA_OK, luaL_loadstring(L, ("return " + bottom).c_str()));
    EXPECT_EQ(LUA_OK, lua_pcall(L, 0, LUA_MULTRET, 0));
    lua("function ROVIK_PERIODIC() return " + returned + " end");
    net->timer.set(TimeValue(kBefore, 0), false);
    EXPECT_EQ(0, net->selectTI());
    return net->delay();
  }

  void expectDelay(double seconds, const std::string& bottom, const std::string& returned) {
    const double delay = after(bottom, returned);
    EXPECT_LE(delay, seconds + 0.001) << bottom << " / " << returned;
    EXPECT_GE(delay, seconds - kTolerance) << bottom << " / " << returned;
  }

  void SetUp() override { script(""); }
};

TEST_F(DelayTest, ANumberIsMicroseconds) {
  expectDelay(5, "", "5000000");
  expectDelay(2, "", "2000000");
  expectDelay(0.25, "", "250000");
  expectDelay(1.999999, "", "1999999.9");
  EXPECT_THAT(newLines(), IsEmpty());
}

TEST_F(DelayTest, ThirtySecondsAreTheLongest) {
  expectDelay(30, "", "30000000");
  expectDelay(29.999999, "", "29999999");
  for (const char* longer : {"30000001", "45000000", "2147483647", "2147483648", "4294967297",
                             "1e18", "1e300", "math.huge"})
    expectDelay(30, "", longer);
}

TEST_F(DelayTest, ZeroAndBelowMeanAtOnce) {
  for (const char* now : {"0", "-1", "-2147483648", "-2147483649", "-1e18", "-math.huge", "0.5"})
    expectDelay(0, "", now);
}

TEST_F(DelayTest, NotANumberIsThirtySeconds) { expectDelay(30, "", "0/0"); }

TEST_F(DelayTest, ANumericTextIsANumber) {
  expectDelay(5, "", "'5000000'");
  expectDelay(16, "", "'0xF42400'");
}

TEST_F(DelayTest, WithAnEmptyStackAnythingElseIsThirtySeconds) {
  for (const char* other : {"'soon'", "{}", "true", "nil", "print"}) expectDelay(30, "", other);
  EXPECT_THAT(newLines(), IsEmpty());
}

TEST_F(DelayTest, NoNumberAtTheBottomMakesEveryDelayThirtySeconds) {
  for (const char* bottom : {"'text'", "{}", "nil", "true"})
    for (const char* returned : {"5000000", "'5000000'", "0", "'text'", "{}", "nil"})
      expectDelay(30, bottom, returned);
  EXPECT_THAT(newLines(), IsEmpty());
}

TEST_F(DelayTest, ANumberAtTheBottomLetsTheTopDecide) {
  for (const char* bottom : {"1", "'1'", "0/0"}) {
    expectDelay(5, bottom, "5000000");
    expectDelay(5, bottom, "'5000000'");
    expectDelay(30, bottom, "45000000");
    expectDelay(0, bottom, "-1");
  }
  EXPECT_THAT(newLines(), IsEmpty());
}

TEST_F(DelayTest, ANumberAtTheBottomAndNoneAtTheTopIsAScriptError) {
  struct {
    const char* returned;
    const char* type;
  } const kCases[] = {{"'soon'", "string"},
                      {"{}", "table"},
                      {"true", "boolean"},
                      {"nil", "nil"},
                      {"print", "function"}};
  for (const char* bottom : {"1", "'1'"}) {
    for (const auto& each : kCases) {
      EXPECT_NEAR(kBefore, after(bottom, each.returned), kTolerance);
      const std::string text = "lua function error: bad argument #-1 (number expected, got " +
                               std::string(each.type) + ")";
      EXPECT_THAT(newLines(), ElementsAre("2 " + text));
      EXPECT_EQ(text, warning());
    }
  }
}

TEST_F(DelayTest, NoneOrSeveralResultsLeaveTheTimerAlone) {
  for (const char* bottom : {"", "1", "'text'", "{}"}) {
    for (const char* returned : {"", "1, 2", "nil, nil"}) {
      EXPECT_NEAR(kBefore, after(bottom, returned), kTolerance);
      EXPECT_THAT(newLines(),
                  ElementsAre("4 lua ROVIK_PERIODIC did not return expected timer info, "
                              "using default timer"));
    }
  }
}

TEST_F(DelayTest, AnErrorLeavesTheTimerAlone) {
  EXPECT_NEAR(kBefore, after("", "error('no', 0)"), kTolerance);
  EXPECT_THAT(newLines(), ElementsAre("2 lua function error: no"));
}

TEST_F(DelayTest, PopTimerTakesItsOwnBoundAndAlwaysReturnsZero) {
  lua_State* const L = net->lua_state;
  lua_pushnumber(L, 9000000);
  EXPECT_EQ(0, net->popTimer(L, 7));
  EXPECT_NEAR(7, net->delay(), kTolerance);
  lua_pushnumber(L, 6000000);
  EXPECT_EQ(0, net->popTimer(L, 7));
  EXPECT_NEAR(6, net->delay(), kTolerance);
  lua_pushboolean(L, 1);
  EXPECT_EQ(0, net->popTimer(L, 7));
}

TEST_F(DelayTest, EveryEventCanSetTheDelay) {
  lua("function ROVIK_RCV() return 3000000 end function ROVIK_RCVIO() return 4000000 end");
  const auto note = newNote("x");
  net->selectMM(note.get());
  EXPECT_NEAR(3, net->delay(), kTolerance);
  char line[] = "x";
  net->rcvData(line, 1);
  EXPECT_NEAR(4, net->delay(), kTolerance);
}

TEST_F(DelayTest, EveryEventHasItsOwnLineWhenItReturnsNothing) {
  lua("for _, n in ipairs{'RCVOPEN', 'RCVCLOSE', 'RCVIO', 'RCV', 'PERIODIC'} do "
      "_G['ROVIK_' .. n] = function() end end");
  TcpPeer peer;
  openTo(peer);
  newLines();
  const auto note = newNote("x");
  char line[] = "x";
  net->rcvData(line, 1);
  net->selectMM(note.get());
  net->selectTI();
  net->closeGeneric();
  Texts timer_lines;
  for (const auto& text : newLines())
    if (text.find("timer info") != std::string::npos) timer_lines.push_back(text);
  EXPECT_THAT(
      timer_lines,
      ElementsAre("4 lua ROVIK_RCVIO did not return expected timer info, using default timer",
                  "4 lua ROVIK_RCV did not return expected timer info, using default timer",
                  "4 lua ROVIK_PERIODIC did not return expected timer info, using default timer",
                  "4 lua ROVIK_RCVCLOSE did not return expected timer info, using default timer"));
}

// A rovik whose thread runs is called again after the delay that it asked for.
TEST_F(DelayTest, TheLoopCallsAgainAfterTheDelay) {
  lua("calls = 0 function ROVIK_PERIODIC() calls = calls + 1 print('call ' .. calls) return "
      "2000000 "
      "end function go() end");
  net->timer.set(TimeValue(0, 0), false);
  net->run();
  ASSERT_TRUE(log.waitFor("LUA: call 1"));
  drovane::Clock::skip(1'900'000'000);
  EXPECT_EQ("OK", net->command({"go"}));
  EXPECT_EQ(0U, log.count("LUA: call 2"));
  drovane::Clock::skip(200'000'000);
  EXPECT_EQ("OK", net->command({"go"}));
  EXPECT_TRUE(log.waitFor("LUA: call 2"));
  net->stop();
}

}  // namespace
