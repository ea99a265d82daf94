// What a script is told of its link, when, and what its answers change.
#include <gtest/gtest.h>

#include "ScriptTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// What the timer is armed with before a call: not a delay that any call asks for.
constexpr int kBefore = 1000;
// Between arming the timer and reading it back some time passes, even on a loaded machine not
// seconds.
constexpr double kTolerance = 0.2;

class LinkEvents : public ScriptTest {
 protected:
  void armBefore() { net->timer.set(TimeValue(kBefore, 0), false); }

  // The link, open at both ends, and what that logs forgotten.
  void connect() {
    openTo(peer);
    newLines();
  }

  TcpPeer peer;
};

TEST_F(LinkEvents, OpenAndCloseHaveNoArgumentsAndAUnitIsOneText) {
  script(
      "seen = {} for _, event in ipairs{'OPEN', 'CLOSE', 'IO'} do "
      "_G['ROVIK_RCV' .. event] = function(...) "
      "seen[#seen + 1] = event .. select('#', ...) .. type((...)) return 5000000 end end");
  net->chopeolin = true;
  connect();
  feed(peer, "42\n\n");
  net->raw = true;
  feed(peer, "42");
  EXPECT_EQ("OK", net->command({"close"}));
  EXPECT_EQ("OPEN0nil IO1string IO1string IO1string CLOSE0nil",
            lua("return table.concat(seen, ' ')"));
}

TEST_F(LinkEvents, OpeningAnOpenLinkAndClosingAClosedOneAreNone) {
  script(
      "function ROVIK_RCVOPEN() print('open') return 5000000 end "
      "function ROVIK_RCVCLOSE() print('close') return 5000000 end");
  net->command({"host", "127.0.0.1"});
  net->command({"port", std::to_string(peer.port())});
  newLines();
  EXPECT_EQ(0, net->closeGeneric());
  EXPECT_THAT(newLines(), IsEmpty());
  EXPECT_EQ(0, net->openGeneric());
  EXPECT_THAT(newLines(), ElementsAre("4 opening TCP socket", "4 notify lua script of OPEN event",
                                      "3 LUA: open"));
  EXPECT_EQ(0, net->openGeneric());
  EXPECT_THAT(newLines(), IsEmpty());
  EXPECT_EQ(0, net->closeGeneric());
  EXPECT_THAT(newLines(), ElementsAre("4 notify lua script of CLOSE event", "3 LUA: close"));
  EXPECT_EQ(0, net->closeGeneric());
  EXPECT_THAT(newLines(), IsEmpty());
}

TEST_F(LinkEvents, FailedOpeningIsNoneWhateverTheTransport) {
  const RefusingPort nobody;
  script(
      "function ROVIK_RCVOPEN() print('open') return 5000000 end "
      "function ROVIK_RCVCLOSE() print('close') return 5000000 end");
  net->command({"port", std::to_string(nobody.port())});
  net->command({"tty", "/nowhere/ttyUSB0"});
  for (const char* mode : {"udp", "tcp", "tty", "ssl"}) {
    net->command({"host", std::string(mode) == "udp" ? "no address" : "127.0.0.1"});
    net->command({"mode", mode});
    EXPECT_EQ("ERROR", net->command({"open"})) << mode;
  }
  EXPECT_EQ(0U, log.count("LUA: "));
  EXPECT_EQ(0U, log.count("notify lua script"));
}

TEST_F(LinkEvents, OpenAndCloseCanSetTheDelay) {
  script(
      "function ROVIK_RCVOPEN() return 5000000 end function ROVIK_RCVCLOSE() return 4000000 end");
  armBefore();
  connect();
  EXPECT_NEAR(5, net->delay(), kTolerance);
  EXPECT_EQ("OK", net->command({"close"}));
  EXPECT_NEAR(4, net->delay(), kTolerance);
}

TEST_F(LinkEvents, NoneOrSeveralResultsLeaveTheTimerAlone) {
  for (const char* results : {"", "5000000, 5000000"}) {
    script("function ROVIK_RCVOPEN() return " + std::string(results) +
           " end ROVIK_RCVCLOSE, ROVIK_RCVIO = ROVIK_RCVOPEN, ROVIK_RCVOPEN");
    armBefore();
    openTo(peer);
    feed(peer, "x\n");
    EXPECT_EQ("OK", net->command({"close"}));
    EXPECT_NEAR(kBefore, net->delay(), kTolerance);
    EXPECT_THAT(
        newLines(),
        ElementsAre(
            "3 host set to: 127.0.0.1", "3 port set to: " + std::to_string(peer.port()),
            "4 opening TCP socket", "4 notify lua script of OPEN event",
            "4 lua ROVIK_RCVOPEN did not return expected timer info, using default timer",
            "4 Rovik Message: MM_DATA 5_0_0 = {x\\n}", "4 IO data to lua script",
            "4 lua ROVIK_RCVIO did not return expected timer info, using default timer",
            "4 notify lua script of CLOSE event",
            "4 lua ROVIK_RCVCLOSE did not return expected timer info, using default timer"));
  }
  EXPECT_EQ("", warning());
}

TEST_F(LinkEvents, ErrorLeavesTheTimerAndTheLinkAlone) {
  script(
      "for _, event in ipairs{'OPEN', 'CLOSE', 'IO'} do "
      "_G['ROVIK_RCV' .. event] = function() error('in ' .. event, 0) end end");
  armBefore();
  net->command({"unparsedout", "off"});
  connect();
  EXPECT_EQ("lua function error: in OPEN", warning());
  EXPECT_GE(net->fd, 0);
  feed(peer, "x\n");
  EXPECT_THAT(newLines(), ElementsAre("4 IO data to lua script", "2 lua function error: in IO"));
  EXPECT_GE(net->fd, 0);
  EXPECT_EQ(0, net->closeGeneric());
  EXPECT_THAT(newLines(),
              ElementsAre("4 notify lua script of CLOSE event", "2 lua function error: in CLOSE"));
  EXPECT_LT(net->fd, 0);
  EXPECT_TRUE(peer.seesEnd());
  EXPECT_NEAR(kBefore, net->delay(), kTolerance);
}

TEST_F(LinkEvents, WhatTheyReturnOrRaiseStaysOnTheStack) {
  script(
      "function ROVIK_RCVOPEN() return 5000000 end function ROVIK_RCVIO() return 1, 2, 3 end "
      "function ROVIK_RCVCLOSE() error('no', 0) end");
  connect();
  EXPECT_EQ(1, height());
  feed(peer, "x\n");
  EXPECT_EQ(4, height());
  EXPECT_EQ("OK", net->command({"close"}));
  EXPECT_EQ(5, height());
}

// Which the functions that scripts call take themselves.
TEST_F(LinkEvents, NoneRunsUnderTheLock) {
  script("");
  lua_State* const L = net->lua_state;
  lua_pushlightuserdata(L, net.get());
  lua_pushcclosure(
      L,
      [](lua_State* state) {
        auto* const rovik = static_cast<ScriptRovik*>(lua_touserdata(state, lua_upvalueindex(1)));
        lua_pushstring(state, rovik->lockIsFree() ? "free" : "taken");
        return 1;
      },
      1);
  lua_setglobal(L, "lock");
  lua("locks = {} for _, event in ipairs{'RCVOPEN', 'RCVCLOSE', 'RCVIO', 'RCV', 'PERIODIC'} do "
      "_G['ROVIK_' .. event] = function() locks[event] = lock() return 5000000 end end");
  connect();
  feed(peer, "x\n");
  net->selectMM(newNote("x").get());
  net->selectTI();
  net->closeGeneric();
  EXPECT_EQ("free free free free free",
            lua("return locks.RCVOPEN, locks.RCVIO, locks.RCV, locks.PERIODIC, locks.RCVCLOSE"));
}

TEST_F(LinkEvents, LineIsAMessageThenACallThenAMessageOfEachRule) {
  script(
      "function ROVIK_RCVIO(line) print('line ' .. line) sndDATA('5_9_0', 'string', line, 'BC') "
      "return 5000000 end");
  net->chopeolin = true;
  net->command({"reg", "on"});
  net->command({"regin", "5_1_0", "^T=(.*)$", "\\1"});
  net->command({"regin", "6_1_0", "T", "hot", "MM_ACTUATOR_REQUEST"});
  connect();
  feed(peer, "T=9\n");
  EXPECT_THAT(traffic.takeTexts(), ElementsAre("MM_DATA 5_0_0 = \"T=9\" to everybody",
                                               "MM_DATA 5_9_0 = \"T=9\" to everybody",
                                               "MM_DATA 5_1_0 = \"9\" to everybody",
                                               "MM_ACTUATOR_REQUEST 6_1_0 = \"hot\" to everybody"));
  Texts lines = newLines();
  std::erase_if(lines, [](const std::string& line) { return line.find("LUA: DATA") != line.npos; });
  EXPECT_THAT(
      lines, ElementsAre("4 Rovik Message: MM_DATA 5_0_0 = {T=9}", "4 IO data to lua script",
                         "3 LUA: line T=9", "4 REGIN MATCH", "4 Rovik Message: MM_DATA 5_1_0 = {9}",
                         "4 REGIN MATCH", "4 Rovik Message: MM_ACTUATOR_REQUEST 6_1_0 = {hot}"));
}

TEST_F(LinkEvents, ErrorInRcvioDoesNotKeepTheLineFromTheRules) {
  script("function ROVIK_RCVIO() error('no', 0) end");
  net->command({"unparsedout", "off"});
  net->command({"reg", "on"});
  net->command({"regin", "5_1_0", "T=(.)", "\\1"});
  connect();
  feed(peer, "T=9\n");
  EXPECT_THAT(newLines(), ElementsAre("4 IO data to lua script", "2 lua function error: no",
                                      "4 REGIN MATCH", "4 Rovik Message: MM_DATA 5_1_0 = {9}"));
  EXPECT_EQ("lua function error: no", warning());
  EXPECT_THAT(traffic.takeTexts(), ElementsAre("MM_DATA 5_1_0 = \"9\" to everybody"));
}

// The script gets the bytes themselves; messages and rules have the text all the same.
TEST_F(LinkEvents, RawModeChangesWhatTheScriptGetsAndNothingElse) {
  script("function ROVIK_RCVIO(data) got = data return 5000000 end");
  net->raw = true;
  net->command({"reg", "on"});
  net->command({"regin", "5_1_0", "^a\\\\x00\\\\n$", "escaped"});
  connect();
  feed(peer, std::string("a\0\n", 3));
  EXPECT_EQ(std::string("a\0\n", 3), lua("return got"));
  EXPECT_THAT(newLines(),
              ElementsAre("4 Rovik Message: MM_DATA 5_0_0 = {a\\x00\\n}", "4 IO data to lua script",
                          "4 REGIN MATCH", "4 Rovik Message: MM_DATA 5_1_0 = {escaped}"));
}

TEST_F(LinkEvents, FarewellIsTheLastUnitThenTheReportThenRcvclose) {
  script(
      "function ROVIK_RCVIO(data) print('unit ' .. data) return 5000000 end "
      "function ROVIK_RCVCLOSE() print('close') return 5000000 end");
  net->command({"eolclose", "on"});
  net->command({"unparsedout", "off"});
  connect();
  feed(peer, "X\nY");
  EXPECT_THAT(newLines(), IsEmpty());
  peer.close();
  net->readLinkNow();
  EXPECT_THAT(newLines(),
              ElementsAre("4 IO data to lua script", "3 LUA: unit X\\nY",
                          "2 connection closed by peer 127.0.0.1:" + std::to_string(peer.port()),
                          "4 notify lua script of CLOSE event", "3 LUA: close"));
  EXPECT_LT(net->fd, 0);
}

}  // namespace
