// The script on the way out: it sees every message, writes to the link itself, and ticks.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>

#include "ScriptTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// What the timer is armed with before a call: not a delay that any call asks for.
constexpr int kBefore = 1000;
// Between arming the timer and reading it back some time passes, even on a loaded machine not
// seconds.
constexpr double kTolerance = 0.2;
// More than any test sends.
constexpr std::size_t kEverything = 1 << 20;

Owned<MMActuatorRequest> requestFor(const std::string& key, const std::string& value) {
  auto request = newMessage<MMActuatorRequest>(MM_ACTUATOR_REQUEST);
  EXPECT_EQ(0, request->setKey(key.c_str()));
  request->value_type = VAL_STRING;
  request->value_s = value;
  return request;
}

// A rovik with a link that is kept.
class OutboundScript : public ScriptTest {
 protected:
  void SetUp() override {
    net->persistent = true;
    openTo(peer);
    script("seen = {}");
  }

  void set(const std::string& keyword, const std::string& word) {
    ASSERT_EQ("OK", net->command({keyword, word}));
    newLines();
  }

  template <typename Kind>
  void show(const Owned<Kind>& msg) {
    EXPECT_EQ(0, net->selectMM(msg.get()));
  }

  void request(const std::string& key, const std::string& value) { show(requestFor(key, value)); }

  void armBefore() { net->timer.set(TimeValue(kBefore, 0), false); }

  // Everything that has reached the peer since the link was opened. Ends the link.
  std::string sent() {
    net->closeGeneric();
    return peer.receive(kEverything);
  }

  TcpPeer peer;
};

// --- ROVIK_RCV -----------------------------------------------------------------------------------

TEST_F(OutboundScript, EveryKindOfMessageIsShownOnce) {
  lua("function ROVIK_RCV(...) assert(select('#', ...) == 1) seen[#seen + 1] = (...).type "
      "return 5000000 end");
  show(newText("x"));
  show(newMessage<MMDataRequest>(MM_DATA_REQUEST));
  request("5_1_0", "x");
  show(newCommand("close"));
  show(newMessage<MMCmdResponse>(MM_CMD_RESPONSE));
  show(newNote("x"));
  EXPECT_EQ(
      "MM_DATA MM_DATA_REQUEST MM_ACTUATOR_REQUEST MM_CMD_REQUEST MM_CMD_RESPONSE "
      "MM_MSG",
      lua("return table.concat(seen, ' ')"));
  EXPECT_THAT(newLines(), IsEmpty());
  EXPECT_EQ("", sent());
}

TEST_F(OutboundScript, RequestsThatAreNotForThePeerAreShownToo) {
  lua("function ROVIK_RCV(msg) seen[#seen + 1] = msg.key .. '=' .. msg.value return 5000000 end");
  request("6_0_0", "other network");
  const auto number = requestFor("5_0_0", "");
  number->value_type = VAL_INT;
  number->value_i = 7;
  show(number);
  number->value_type = VAL_FLOAT;
  number->value_f = 0.5F;
  show(number);
  EXPECT_EQ("6_0_0=other network 5_0_0=7 5_0_0=0.5", lua("return table.concat(seen, ' ')"));
  EXPECT_THAT(newLines(), IsEmpty());
  EXPECT_EQ("", sent());
}

TEST_F(OutboundScript, MessageWithoutAKindIsReportedAndTheScriptNotCalled) {
  lua("function ROVIK_RCV() seen[1] = 'called' return 5000000 end");
  armBefore();
  const int before = height();
  show(newMessage<RovikMessage>(MM_EMPTY));
  EXPECT_THAT(newLines(), ElementsAre("2 lua function error: push message"));
  EXPECT_EQ("lua function error: push message", warning());
  EXPECT_EQ("0", lua("return #seen"));
  EXPECT_EQ(before, height());
  EXPECT_NEAR(kBefore, net->delay(), kTolerance);
  request("5_0_0", "next");
  EXPECT_EQ("called", lua("return seen[1]"));
  EXPECT_EQ("next", sent());
}

// The table is a copy; what goes out is the message's.
TEST_F(OutboundScript, ChangingTheTableChangesNothing) {
  lua("function ROVIK_RCV(msg) msg.value = 'changed' msg.key = '6_0_0' msg.network_id = 6 "
      "msg.value_type = 'int' msg.type = 'MM_DATA' return 5000000 end");
  const auto msg = requestFor("5_0_0", "as it was");
  const std::string before = msg->toString();
  show(msg);
  EXPECT_EQ(before, msg->toString());
  EXPECT_EQ("as it was", sent());
}

TEST_F(OutboundScript, SeveralResultsOfRcvLeaveTheTimerAlone) {
  lua("function ROVIK_RCV() return 5000000, 5000000 end");
  armBefore();
  request("5_0_0", "ON");
  EXPECT_THAT(newLines(),
              ElementsAre("4 lua ROVIK_RCV did not return expected timer info, using default timer",
                          "3 Actuator Request 5_0_0 = ON"));
  EXPECT_NEAR(kBefore, net->delay(), kTolerance);
  EXPECT_EQ("ON", sent());
}

TEST_F(OutboundScript, ErrorInRcvLeavesTheTimerAlone) {
  lua("function ROVIK_RCV() error('no', 0) end");
  armBefore();
  request("5_0_0", "ON");
  EXPECT_THAT(newLines(), ElementsAre("2 lua function error: no", "3 Actuator Request 5_0_0 = ON"));
  EXPECT_NEAR(kBefore, net->delay(), kTolerance);
}

TEST_F(OutboundScript, RcvAsksForAtMostThirtySeconds) {
  lua("function ROVIK_RCV() return 45000000 end");
  armBefore();
  request("5_0_0", "ON");
  EXPECT_NEAR(30, net->delay(), kTolerance);
}

TEST_F(OutboundScript, WithoutAScriptMessagesAreHandledAllTheSame) {
  net->command({"luaclose"});
  newLines();
  request("5_0_0", "ON");
  show(newMessage<RovikMessage>(MM_EMPTY));
  EXPECT_THAT(newLines(), ElementsAre("3 Actuator Request 5_0_0 = ON"));
  EXPECT_EQ("ON", sent());
}

TEST_F(OutboundScript, RuleAppliesBehindTheScript) {
  lua("function ROVIK_RCV(msg) sndIO('script,') return 5000000 end");
  set("reg", "on");
  ASSERT_EQ("OK", net->command({"regout", "5_1_0", "(.*)", "rule \\1"}));
  newLines();
  request("5_1_0", "ON");
  EXPECT_THAT(newLines(), ElementsAre("4 IO data from lua script", "3 Actuator Request 5_1_0 = ON",
                                      "4 REGOUT MATCH"));
  EXPECT_EQ("script,rule ON", sent());
}

// --- sndIO ---------------------------------------------------------------------------------------

TEST_F(OutboundScript, NumbersGoOutAsTheirText) {
  for (const char* number : {"0", "-5", "2.5", "1e15", "2^53", "0x10"})
    EXPECT_EQ("", lua("sndIO(" + std::string(number) + ") sndIO(',')"));
  EXPECT_EQ("0,-5,2.5,1e+15,9.007199254741e+15,16,", sent());
}

TEST_F(OutboundScript, OnlyTheFirstArgumentIsRead) {
  EXPECT_EQ("", lua("sndIO('first', 'second', {})"));
  EXPECT_THAT(newLines(), ElementsAre("4 IO data from lua script"));
  lua("sndIO({}, 'second')");
  EXPECT_THAT(newLines(), ElementsAre("3 could not decode data from lua script"));
  EXPECT_EQ("first", sent());
}

TEST_F(OutboundScript, SndIOHasNoResultsHoweverTheWriteEnds) {
  const RefusingPort nobody;
  EXPECT_EQ("0", lua("return select('#', sndIO('sent'))"));
  EXPECT_EQ("sent", peer.receive(4));
  net->closeGeneric();
  ASSERT_EQ("OK", net->command({"port", std::to_string(nobody.port())}));
  EXPECT_EQ("0", lua("return select('#', sndIO('dropped'))"));
  net->raw = true;
  EXPECT_EQ("0", lua("return select('#', sndIO('dropped'))"));
  EXPECT_EQ("0", lua("return select('#', sndIO({}))"));
  EXPECT_EQ("0", lua("m_p = nil return select('#', sndIO('refused'))"));
}

TEST_F(OutboundScript, TextIsUnescaped) {
  lua(R"(sndIO('a\\r\\n\\x00\\0\\\\\\q\\x4'))");
  EXPECT_EQ(std::string("a\r\n\0\0\\\\q\\x4", 11), sent());
}

TEST_F(OutboundScript, TextEndsAtItsFirstZeroByte) {
  lua("sndIO('ab\\0cd') sndIO('\\0')");
  EXPECT_EQ("ab", sent());
}

// The cut comes before the escapes are read: what is left of one stands for itself.
TEST_F(OutboundScript, CutCanGoThroughAnEscape) {
  lua("sndIO(('x'):rep(4094) .. '\\\\n')");
  EXPECT_EQ(std::string(4094, 'x') + "\\", sent());
}

TEST_F(OutboundScript, CutTextLosesItsEscapesBeyondTheCut) {
  lua("sndIO(('\\\\n'):rep(3000))");
  EXPECT_EQ(std::string(2047, '\n') + "\\", sent());
}

TEST_F(OutboundScript, TextGetsItsEndOfLineAsLongAsThereIsRoom) {
  set("addeol", "on");
  set("eolout", "\\r\\n");
  lua("sndIO(('x'):rep(4094)) sndIO(('x'):rep(5000)) sndIO(('y'):rep(4093))");
  EXPECT_THAT(newLines(), ElementsAre("4 IO data from lua script", "4 IO data from lua script",
                                      "4 IO data from lua script"));
  EXPECT_EQ(std::string(4093, 'y') + "\r\n", sent());
}

TEST_F(OutboundScript, RawDataGetsNoEndOfLine) {
  set("addeol", "on");
  net->raw = true;
  lua("sndIO('a\\\\n') sndIO('') sndIO(('x'):rep(4097))");
  EXPECT_EQ("a\\n" + std::string(4096, 'x'), sent());
}

TEST_F(OutboundScript, EmptyTextWritesNothingOrAnEndOfLine) {
  EXPECT_EQ("0", lua("return select('#', sndIO(''))"));
  set("addeol", "on");
  set("eolout", ";");
  lua("sndIO('')");
  EXPECT_THAT(newLines(), ElementsAre("4 IO data from lua script"));
  EXPECT_EQ(";", sent());
}

// Also without a byte to write a link that is not kept opens and closes.
TEST_F(OutboundScript, EmptyTextOpensAndClosesTheLink) {
  lua("for _, event in ipairs{'OPEN', 'CLOSE', 'IO'} do _G['ROVIK_RCV' .. event] = function(data) "
      "print(event .. (data and '<' .. data .. '>' or '')) return 5000000 end end");
  net->persistent = false;
  net->echo = true;
  net->closeGeneric();
  newLines();
  lua("sndIO('')");
  EXPECT_THAT(newLines(), ElementsAre("4 IO data from lua script", "4 opening TCP socket",
                                      "4 notify lua script of OPEN event", "3 LUA: OPEN",
                                      "4 notify lua script of CLOSE event", "3 LUA: CLOSE",
                                      "4 Rovik Message: MM_DATA 5_0_0 = {}",
                                      "4 IO data to lua script", "3 LUA: IO<>"));
  peer.accept();
  EXPECT_EQ("", peer.receive(1));
}

TEST_F(OutboundScript, IodebugShowsWhatIsWritten) {
  set("addeol", "on");
  set("iodebug", "on");
  lua("sndIO('a\\\\x00b')");
  EXPECT_THAT(newLines(),
              ElementsAre("4 IO data from lua script", "4 sndData (length = 4): a\\x00b\\n"));
}

TEST_F(OutboundScript, FailedWriteIsNoErrorOfTheScript) {
  lua("function ROVIK_RCVCLOSE() return 5000000 end");
  ASSERT_EQ(0, ::shutdown(net->fd, SHUT_WR));
  newLines();
  EXPECT_EQ("true", lua("return pcall(sndIO, 'x')"));
  EXPECT_THAT(newLines(), ElementsAre("4 IO data from lua script", "2 send (errno: 32 Broken pipe)",
                                      "4 notify lua script of CLOSE event"));
  EXPECT_EQ("send (errno: 32 Broken pipe)", warning());
  EXPECT_LT(net->fd, 0);
}

// ROVIK_RCVOPEN runs inside the write that opens the link.
TEST_F(OutboundScript, WriteDoesNotTakeTheLock) {
  lua_State* const L = net->lua_state;
  lua_pushlightuserdata(L, net.get());
  lua_pushcclosure(
      L,
      [](lua_State* state) {
        auto* const rovik = static_cast<ScriptRovik*>(lua_touserdata(state, lua_upvalueindex(1)));
        lua_pushboolean(state, rovik->lockIsFree() ? 1 : 0);
        return 1;
      },
      1);
  lua_setglobal(L, "lockIsFree");
  lua("function ROVIK_RCVOPEN() seen[1] = lockIsFree() return 5000000 end");
  net->closeGeneric();
  lua("sndIO('x')");
  EXPECT_EQ("true", lua("return tostring(seen[1])"));
}

// --- What the script finds -----------------------------------------------------------------------

TEST_F(OutboundScript, WithoutAnInterpreterThereIsNothingToPrepare) {
  net->command({"luaclose"});
  newLines();
  EXPECT_EQ(-1, net->localPrepLua());
  EXPECT_THAT(newLines(), IsEmpty());
}

TEST_F(OutboundScript, PreparingSetsTheNetworkAndTheFunction) {
  lua("network_id, sndIO = nil, nil");
  net->network_id = -7;
  const int before = height();
  EXPECT_EQ(0, net->localPrepLua());
  EXPECT_EQ(before, height());
  EXPECT_EQ("number -7", lua("return type(network_id), network_id"));
  EXPECT_EQ("C 0", lua("local f = debug.getinfo(sndIO) return f.what, f.nups"));
  lua("sndIO('there')");
  EXPECT_EQ("there", sent());
}

// --- ROVIK_PERIODIC ------------------------------------------------------------------------------

TEST_F(OutboundScript, TickHasNoArguments) {
  lua("function ROVIK_PERIODIC(...) seen[#seen + 1] = select('#', ...) return 2000000 end");
  for (int tick = 0; tick < 3; ++tick) EXPECT_EQ(0, net->selectTI());
  EXPECT_EQ("000", lua("return table.concat(seen)"));
  EXPECT_NEAR(2, net->delay(), kTolerance);
  EXPECT_THAT(newLines(), IsEmpty());
}

TEST_F(OutboundScript, ErrorInATickIsAWarningAndTheNextTickComes) {
  lua("function ROVIK_PERIODIC() n = (n or 0) + 1 error('tick ' .. n, 0) end");
  for (const char* text : {"lua function error: tick 1", "lua function error: tick 2"}) {
    armBefore();
    EXPECT_EQ(0, net->selectTI());
    EXPECT_THAT(newLines(), ElementsAre(std::string("2 ") + text));
    EXPECT_EQ(text, warning());
    EXPECT_NEAR(kBefore, net->delay(), kTolerance);
  }
}

TEST_F(OutboundScript, ReconnectThatFailsDoesNotKeepTheTickFromTheScript) {
  const RefusingPort nobody;
  net->closeGeneric();
  ASSERT_EQ("OK", net->command({"port", std::to_string(nobody.port())}));
  lua("function ROVIK_PERIODIC() print('tick') return 2000000 end");
  net->reconnect = true;
  newLines();
  EXPECT_EQ(0, net->selectTI());
  EXPECT_THAT(newLines(),
              ElementsAre("4 opening TCP socket", "2 getsockopt (errno: 111 Connection refused)",
                          "2 open failed", "3 LUA: tick"));
}

TEST_F(OutboundScript, TickWithoutReconnectRunsTheScriptOnAClosedLink) {
  net->closeGeneric();
  lua("function ROVIK_PERIODIC() print('tick') return 2000000 end");
  newLines();
  EXPECT_EQ(0, net->selectTI());
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: tick"));
  EXPECT_LT(net->fd, 0);
  EXPECT_FALSE(peer.linkWaits());
}

TEST_F(OutboundScript, TickCanWrite) {
  lua("function ROVIK_PERIODIC() sndIO('poll;') return 2000000 end");
  EXPECT_EQ(0, net->selectTI());
  net->closeGeneric();
  EXPECT_EQ("poll;", peer.receive(kEverything));
  EXPECT_EQ(0, net->selectTI());
  peer.accept();
  EXPECT_EQ("poll;", sent());
}

// The link that the tick has opened is the one that the script then writes to.
TEST_F(OutboundScript, TickThatReconnectsOpensOneLinkForTheScript) {
  net->closeGeneric();
  net->reconnect = true;
  lua("function ROVIK_PERIODIC() sndIO('poll;') return 2000000 end");
  EXPECT_EQ(0, net->selectTI());
  peer.accept();
  EXPECT_EQ("poll;", sent());
  EXPECT_FALSE(peer.linkWaits());
}

}  // namespace
