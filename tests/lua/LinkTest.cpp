// The link and the script: writing, being called back, and writing from inside a callback.
#include <gtest/gtest.h>

#include "ScriptTest.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class LinkTest : public ScriptTest {
 protected:
  // A rovik that knows its peer but is not connected.
  void pointTo(TcpPeer& its_peer) {
    net->command({"host", "127.0.0.1"});
    net->command({"port", std::to_string(its_peer.port())});
  }

  TcpPeer peer;
};

TEST_F(LinkTest, SndIOOpensTheLinkAndWritesUnescapedText) {
  script("");
  pointTo(peer);
  net->persistent = true;
  EXPECT_EQ("0", lua("return select('#', sndIO('READ?\\\\r\\\\n'))"));
  peer.accept();
  EXPECT_EQ("READ?\r\n", peer.receive(7));
  EXPECT_GE(net->fd, 0);
}

TEST_F(LinkTest, SndIOLogsAndRefusesWhatIsNoText) {
  script("");
  for (const char* other : {"nil", "{}", "true", "print", ""}) {
    EXPECT_EQ("0", lua("return select('#', sndIO(" + std::string(other) + "))"));
    EXPECT_THAT(newLines(), ElementsAre("3 could not decode data from lua script")) << other;
  }
  pointTo(peer);
  net->persistent = true;
  lua("sndIO(42)");
  peer.accept();
  EXPECT_EQ("42", peer.receive(2));
  EXPECT_THAT(newLines(), Contains("4 IO data from lua script"));
}

TEST_F(LinkTest, RawDataGoesOutAsItIsUpTo4096Bytes) {
  script("");
  net->raw = true;
  net->persistent = true;
  openTo(peer);
  lua("sndIO('a\\0b\\\\n')");
  EXPECT_EQ(std::string("a\0b\\n", 5), peer.receive(5));
  lua("sndIO(('x'):rep(5000)) sndIO('end')");
  EXPECT_EQ(std::string(4096, 'x') + "end", peer.receive(4099));
}

TEST_F(LinkTest, TextIsCutTo4095Characters) {
  script("");
  net->persistent = true;
  openTo(peer);
  lua("sndIO(('x'):rep(1000000)) sndIO('end')");
  EXPECT_EQ(std::string(4095, 'x') + "end", peer.receive(4098));
}

TEST_F(LinkTest, WithoutAPeerAWriteIsDropped) {
  const RefusingPort nobody;
  script("");
  net->command({"host", "127.0.0.1"});
  net->command({"port", std::to_string(nobody.port())});
  newLines();
  EXPECT_EQ("", lua("sndIO('x')"));
  EXPECT_EQ("4 request message ignored as socket not connected", newLines().back());
}

TEST_F(LinkTest, EveryMessageIsShownToTheScriptBeforeItGoesOut) {
  script("function ROVIK_RCV(msg) sndIO('seen ' .. msg.value .. ',') return 5000000 end");
  net->persistent = true;
  openTo(peer);
  newLines();
  const auto request = newMessage<MMActuatorRequest>(MM_ACTUATOR_REQUEST);
  request->setKey("5_0_0");
  request->value_type = VAL_STRING;
  request->value_s = "ON";
  EXPECT_EQ(0, net->selectMM(request.get()));
  EXPECT_EQ("seen ON,ON", peer.receive(10));
  EXPECT_THAT(newLines(),
              ElementsAre("4 IO data from lua script", "3 Actuator Request 5_0_0 = ON"));
}

TEST_F(LinkTest, AnErrorInTheScriptDoesNotHoldTheRequestBack) {
  script("function ROVIK_RCV(msg) error('no', 0) end");
  net->persistent = true;
  openTo(peer);
  const auto request = newMessage<MMActuatorRequest>(MM_ACTUATOR_REQUEST);
  request->setKey("5_0_0");
  request->value_type = VAL_STRING;
  request->value_s = "ON";
  EXPECT_EQ(0, net->selectMM(request.get()));
  EXPECT_EQ("ON", peer.receive(2));
  EXPECT_EQ("lua function error: no", warning());
}

TEST_F(LinkTest, WithReconnectEachTickOpensTheLinkBeforeTheScriptRuns) {
  script("function ROVIK_PERIODIC() print('tick') end function ROVIK_RCVOPEN() print('open') end");
  pointTo(peer);
  net->reconnect = true;
  newLines();
  EXPECT_EQ(0, net->selectTI());
  EXPECT_GE(net->fd, 0);
  EXPECT_THAT(
      newLines(),
      ElementsAre("4 opening TCP socket", "4 notify lua script of OPEN event", "3 LUA: open",
                  "4 lua ROVIK_RCVOPEN did not return expected timer info, using default timer",
                  "3 LUA: tick",
                  "4 lua ROVIK_PERIODIC did not return expected timer info, using default timer"));
}

TEST_F(LinkTest, ATickWithoutAScriptDoesNothing) {
  newLines();
  EXPECT_EQ(0, net->selectTI());
  EXPECT_THAT(newLines(), IsEmpty());
  EXPECT_LT(net->fd, 0);
}

TEST_F(LinkTest, AnAnswerToEachLineOnAPersistentLinkReachesThePeer) {
  script("function ROVIK_RCVIO(data) sndIO('got ' .. data) end");
  net->persistent = true;
  net->chopeolin = true;
  openTo(peer);
  feed(peer, "one\ntwo\n");
  EXPECT_EQ("got onegot two", peer.receive(14));
}

TEST_F(LinkTest, AnAnswerOnALinkThatIsNotKeptClosesItAndDropsTheRestOfTheRead) {
  script("lines = {} function ROVIK_RCVIO(data) lines[#lines + 1] = data sndIO('ok') end");
  net->chopeolin = true;
  openTo(peer);
  feed(peer, "one\ntwo\nthr");
  EXPECT_EQ("ok", peer.receive(2));
  EXPECT_TRUE(peer.seesEnd());
  EXPECT_LT(net->fd, 0);
  EXPECT_EQ("1 one", lua("return #lines, lines[1]"));
}

TEST_F(LinkTest, EchoHandsWhatWasWrittenToTheScript) {
  script("function ROVIK_RCVIO(data) print('heard ' .. data) end");
  net->persistent = true;
  net->echo = true;
  net->addeolout = true;
  openTo(peer);
  lua("sndIO('hi')");
  EXPECT_EQ("hi\n", peer.receive(3));
  EXPECT_EQ(1U, log.count("LUA: heard hi\\n"));
}

TEST_F(LinkTest, EchoComesAfterTheCloseOfALinkThatIsNotKept) {
  script(
      "function ROVIK_RCVIO(data) print('heard ' .. data) end "
      "function ROVIK_RCVCLOSE() print('closed') end");
  net->echo = true;
  openTo(peer);
  newLines();
  lua("sndIO('hi')");
  Texts prints;
  for (const auto& text : newLines())
    if (text.starts_with("3 LUA")) prints.push_back(text);
  EXPECT_THAT(prints, ElementsAre("3 LUA: closed", "3 LUA: heard hi"));
}

TEST_F(LinkTest, EchoToAScriptThatAnswersEveryLineEndsInAScriptError) {
  script("n = 0 function ROVIK_RCVIO(data) n = n + 1 sndIO('x') end");
  net->persistent = true;
  net->echo = true;
  openTo(peer);
  lua("sndIO('x')");
  EXPECT_THAT(warning(), HasSubstr("C stack overflow"));
  EXPECT_EQ("true", lua("return n > 10 and n < 1000"));
  EXPECT_EQ("x", peer.receive(1));
  EXPECT_TRUE(net->lockIsFree());
}

TEST_F(LinkTest, TheSameEchoOnALinkThatIsNotKeptEndsToo) {
  script("n = 0 function ROVIK_RCVIO(data) n = n + 1 sndIO('x') end");
  net->echo = true;
  openTo(peer);
  lua("sndIO('x')");
  EXPECT_GE(log.count("C stack overflow"), 1U);
  EXPECT_EQ("true", lua("return n > 10 and n < 1000"));
  EXPECT_LT(net->fd, 0);
}

TEST_F(LinkTest, TheEchoThroughCoroutinesEndsToo) {
  script("n = 0 function ROVIK_RCVIO(data) n = n + 1 coroutine.wrap(sndIO)('x') end");
  net->persistent = true;
  net->echo = true;
  openTo(peer);
  lua("sndIO('x')");
  EXPECT_EQ("true", lua("return n > 10 and n < 1000"));
  EXPECT_EQ("alive", lua("return 'alive'"));
}

TEST_F(LinkTest, AWriteInRcvopenOfALinkThatIsNotKeptTakesTheLinkAway) {
  script("function ROVIK_RCVOPEN() sndIO('hello') end");
  pointTo(peer);
  EXPECT_EQ("", lua("sndIO('x')"));
  peer.accept();
  EXPECT_EQ("hello", peer.receive(5));
  EXPECT_TRUE(peer.seesEnd());
  EXPECT_LT(net->fd, 0);
  EXPECT_THAT(warning(), HasSubstr("send (errno: 9 "));
}

TEST_F(LinkTest, AWriteInRcvopenOfAKeptLinkComesFirst) {
  script("function ROVIK_RCVOPEN() sndIO('hello,') end");
  net->persistent = true;
  pointTo(peer);
  lua("sndIO('x')");
  peer.accept();
  EXPECT_EQ("hello,x", peer.receive(7));
}

TEST_F(LinkTest, RcvcloseCanStillWrite) {
  for (const bool kept : {true, false}) {
    script("closes = 0 function ROVIK_RCVCLOSE() closes = closes + 1 sndIO('bye') end");
    net->persistent = kept;
    openTo(peer);
    EXPECT_EQ("OK", net->command({"close"}));
    EXPECT_EQ("bye", peer.receive(3));
    EXPECT_TRUE(peer.seesEnd());
    EXPECT_LT(net->fd, 0);
    EXPECT_EQ("1", lua("return closes"));
  }
}

TEST_F(LinkTest, RcvcloseThatWritesAfterAWriteIsCalledOnce) {
  script("closes = 0 function ROVIK_RCVCLOSE() closes = closes + 1 sndIO('bye') end");
  openTo(peer);
  lua("sndIO('x,')");
  EXPECT_EQ("x,bye", peer.receive(5));
  EXPECT_TRUE(peer.seesEnd());
  EXPECT_EQ("1", lua("return closes"));
}

// The argument of sndIO lies at the bottom of the stack while ROVIK_RCVCLOSE runs inside it.
TEST_F(LinkTest, ADelayThatIsNoNumberInsideAnotherCallDoesNotKeepTheLinkOpen) {
  script("function ROVIK_RCVCLOSE() return {} end");
  openTo(peer);
  EXPECT_EQ("", lua("sndIO(123)"));
  EXPECT_EQ("lua function error: bad argument #-1 (number expected, got table)", warning());
  EXPECT_LT(net->fd, 0);
  EXPECT_EQ("123", peer.receive(3));
  EXPECT_TRUE(peer.seesEnd());
  openTo(peer);
  EXPECT_EQ("OK", net->command({"close"}));
  EXPECT_TRUE(peer.seesEnd());
}

TEST_F(LinkTest, RawBytesReachTheScriptAsTheyAre) {
  script("function ROVIK_RCVIO(data) seen = data end");
  net->raw = true;
  openTo(peer);
  feed(peer, std::string("a\0\r\n\\", 5));
  EXPECT_EQ(std::string("a\0\r\n\\", 5), lua("return seen"));
}

TEST_F(LinkTest, TextReachesTheScriptEscaped) {
  script("function ROVIK_RCVIO(data) seen = data end");
  openTo(peer);
  feed(peer, std::string("a\0\\\r\n", 5));
  EXPECT_EQ("a\\x00\\\\\\r\\n", lua("return seen"));
}

TEST_F(LinkTest, TheLoopDrivesAScriptThatAnswersALiveDevice) {
  script("function ROVIK_RCVIO(data) sndIO(data:upper() .. '\\n') return 30000000 end");
  net->persistent = true;
  net->chopeolin = true;
  openTo(peer);
  net->run();
  peer.send("one\ntwo\n");
  EXPECT_EQ("ONE\nTWO\n", peer.receive(8));
  net->stop();
}

}  // namespace
