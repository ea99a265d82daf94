// What becomes of one unit of peer data: the trace, the catch-all message, the rules.
#include <ctime>

#include "NetTest.h"
#include "RovikUtil.h"
#include "framework/RecordPool.h"
#include "support/Inbox.h"
#include "support/TestRovik.h"

namespace {

class Unit : public NetTest {
 protected:
  void handle(std::string bytes) {
    EXPECT_EQ(0, net->rcvData(bytes.data(), static_cast<int>(bytes.size())));
  }

  std::vector<Arrived> resultOf(const std::string& bytes) {
    handle(bytes);
    return inbox.take();
  }

  void rulesOnly() {
    net->command({"unparsedout", "off"});
    net->command({"reg", "on"});
    newLines();
  }

  Inbox inbox;
};

TEST_F(Unit, BecomesTheCatchAllMessage) {
  net->command({"network_id", "7"});
  newLines();
  EXPECT_EQ(std::vector{dataText("7_0_0", "ON")}, resultOf("ON"));
  EXPECT_EQ(Lines{traceLine("Rovik Message: MM_DATA 7_0_0 = {ON}")}, newLines());
}

TEST_F(Unit, CatchAllIsUnderTheRoviksOwnNumberByDefault) {
  EXPECT_EQ(std::vector{dataText("5_0_0", "x")}, resultOf("x"));
}

TEST_F(Unit, NegativeNetworkIdKeepsItsSignInTheKey) {
  net->command({"network_id", "-3"});
  newLines();
  EXPECT_EQ(std::vector{dataText("-3_0_0", "x")}, resultOf("x"));
  EXPECT_EQ(Lines{traceLine("Rovik Message: MM_DATA -3_0_0 = {x}")}, newLines());
}

TEST_F(Unit, ControlBytesAreEscaped) {
  const std::string bytes("a\r\n\t\\\0\x7f\x80\xff z", 11);
  EXPECT_EQ(std::vector{dataText("5_0_0", "a\\r\\n\\t\\\\\\x00\\x7f\\x80\\xff z")},
            resultOf(bytes));
}

TEST_F(Unit, EveryByteIsData) {
  for (int byte = 0; byte < 256; ++byte) {
    const auto messages = resultOf(std::string(3, static_cast<char>(byte)));
    ASSERT_EQ(1U, messages.size());
    std::string decoded(8, '?');
    const int size = RovikUtil::unescape(decoded.data(), 8, messages[0].value.c_str());
    EXPECT_EQ(std::string(3, static_cast<char>(byte)),
              decoded.substr(0, static_cast<std::size_t>(size)));
  }
}

TEST_F(Unit, EmptyOneIsAnEmptyMessage) {
  EXPECT_EQ(std::vector{dataText("5_0_0", "")}, resultOf(""));
  EXPECT_EQ(Lines{traceLine("Rovik Message: MM_DATA 5_0_0 = {}")}, newLines());
}

TEST_F(Unit, NeedsNoTerminator) {
  const char bytes[] = {'a', 'b', 'c', 'd'};
  std::string two(bytes, 4);
  EXPECT_EQ(0, net->rcvData(two.data(), 2));
  EXPECT_EQ(std::vector{dataText("5_0_0", "ab")}, inbox.take());
}

TEST_F(Unit, LongestOneIsKeptWhole) {
  const std::string bytes(4096, '\0');
  std::string text;
  for (int i = 0; i < 4096; ++i) text += "\\x00";
  EXPECT_EQ(std::vector{dataText("5_0_0", text)}, resultOf(bytes));
}

// The memory of one unit's text serves the next: nothing of it may show.
TEST_F(Unit, ShorterOneShowsNothingOfALongerOne) {
  resultOf(std::string(3000, 'x'));
  EXPECT_EQ(std::vector{dataText("5_0_0", "y")}, resultOf("y"));
}

TEST_F(Unit, WithoutUnparsedoutThereIsNoMessage) {
  net->command({"unparsedout", "off"});
  newLines();
  EXPECT_EQ(std::vector<Arrived>{}, resultOf("ON"));
  EXPECT_EQ(Lines{}, newLines());
}

TEST_F(Unit, IodebugShowsTheBytesFirst) {
  net->command({"iodebug", "on"});
  newLines();
  handle(std::string("a\0b\n", 4));
  EXPECT_EQ((Lines{traceLine("rcvData (length = 4): a\\x00b\\n"),
                   traceLine("Rovik Message: MM_DATA 5_0_0 = {a\\x00b\\n}")}),
            newLines());
}

TEST_F(Unit, IodebugHasNothingToShowOfAnEmptyOne) {
  net->command({"iodebug", "on"});
  newLines();
  handle("");
  EXPECT_EQ(Lines{traceLine("Rovik Message: MM_DATA 5_0_0 = {}")}, newLines());
}

TEST_F(Unit, MessageNamesItsSenderAndItsTime) {
  struct Seen {
    std::uint32_t src, dst, seqnr, tv_sec;
    std::string src_s, dst_s;
  } first{};
  auto rovik = TestRovik::make(91, "listener");
  rovik->on_message = [&](RovikMessage* msg) {
    first = {msg->src,   msg->dst,  msg->seqnr, static_cast<MMData*>(msg)->tv_sec,
             msg->src_s, msg->dst_s};
  };
  rovik->run();
  const auto before = static_cast<std::uint32_t>(time(nullptr));
  handle("x");
  ASSERT_TRUE(rovik->waitForMessages(1));
  rovik->stop();
  EXPECT_EQ(5U, first.src);
  EXPECT_EQ("net", first.src_s);
  EXPECT_EQ(16383U, first.dst);
  EXPECT_EQ("", first.dst_s);
  EXPECT_NE(0U, first.seqnr);
  EXPECT_GE(first.tv_sec, before);
}

TEST_F(Unit, MatchingRuleMakesDataUnderItsKey) {
  rulesOnly();
  net->command({"regin", "3_1_4", "^T=(.*)$", "temp \\1"});
  newLines();
  EXPECT_EQ(std::vector{dataText("3_1_4", "temp 21.5")}, resultOf("T=21.5"));
  EXPECT_EQ(
      (Lines{traceLine("REGIN MATCH"), traceLine("Rovik Message: MM_DATA 3_1_4 = {temp 21.5}")}),
      newLines());
}

TEST_F(Unit, MatchingRuleMakesARequestWhenItsTypeSaysSo) {
  rulesOnly();
  net->command({"regin", "3_1_4", "^T=(.*)$", "\\1", "MM_ACTUATOR_REQUEST"});
  newLines();
  EXPECT_EQ(std::vector{requestText("3_1_4", "21.5")}, resultOf("T=21.5"));
  EXPECT_EQ((Lines{traceLine("REGIN MATCH"),
                   traceLine("Rovik Message: MM_ACTUATOR_REQUEST 3_1_4 = {21.5}")}),
            newLines());
}

TEST_F(Unit, WithoutRegNoRuleIsTried) {
  net->command({"regin", "3_1_0", "x", "y"});
  EXPECT_EQ(std::vector{dataText("5_0_0", "x")}, resultOf("x"));
  net->command({"reg", "on"});
  EXPECT_EQ((std::vector{dataText("5_0_0", "x"), dataText("3_1_0", "y")}), resultOf("x"));
  net->command({"reg", "off"});
  EXPECT_EQ(std::vector{dataText("5_0_0", "x")}, resultOf("x"));
}

TEST_F(Unit, CatchAllComesFirstThenEveryMatchInTableOrder) {
  net->command({"reg", "on"});
  net->command({"regin", "9_0_1", "T", "first"});
  net->command({"regin", "1_0_2", "nothing like it", "never"});
  net->command({"regin", "9_0_3", "=", "third", "MM_ACTUATOR_REQUEST"});
  net->command({"regin", "9_0_1", "T", "first again"});
  net->command({"regout", "9_0_9", "T", "not for lines"});
  newLines();
  EXPECT_EQ((std::vector{dataText("5_0_0", "T=1"), dataText("9_0_1", "first"),
                         requestText("9_0_3", "third"), dataText("9_0_1", "first again")}),
            resultOf("T=1"));
  EXPECT_EQ(
      (Lines{traceLine("Rovik Message: MM_DATA 5_0_0 = {T=1}"), traceLine("REGIN MATCH"),
             traceLine("Rovik Message: MM_DATA 9_0_1 = {first}"), traceLine("REGIN MATCH"),
             traceLine("Rovik Message: MM_ACTUATOR_REQUEST 9_0_3 = {third}"),
             traceLine("REGIN MATCH"), traceLine("Rovik Message: MM_DATA 9_0_1 = {first again}")}),
      newLines());
}

TEST_F(Unit, RulesSeeTheEscapedText) {
  rulesOnly();
  net->command({"regin", "1_1_1", "^a\\\\n$", "line end"});
  net->command({"regin", "1_1_2", "^a\n$", "raw line end"});
  EXPECT_EQ(std::vector{dataText("1_1_1", "line end")}, resultOf("a\n"));
}

TEST_F(Unit, RuleMayMatchAnEmptyUnitOnly) {
  rulesOnly();
  net->command({"regin", "1_1_1", "^$", "empty line"});
  EXPECT_EQ(std::vector{dataText("1_1_1", "empty line")}, resultOf(""));
  EXPECT_EQ(std::vector<Arrived>{}, resultOf("x"));
}

TEST_F(Unit, OutputOfARuleIsNotUnescaped) {
  rulesOnly();
  net->command({"regin", "1_1_1", "x", "a\\nb\\q\\\\c\\"});
  EXPECT_EQ(std::vector{dataText("1_1_1", "a\\nb\\q\\\\c\\")}, resultOf("x"));
}

// A bad key does not keep the message back.
TEST_F(Unit, RuleWithABadKeySendsUnderTheEmptyKey) {
  rulesOnly();
  net->command({"regin", "not_a_key", "x", "y"});
  newLines();
  EXPECT_EQ(std::vector{dataText("0_0_0", "y")}, resultOf("x"));
  EXPECT_EQ((Lines{traceLine("REGIN MATCH"), traceLine("Rovik Message: MM_DATA not_a_key = {y}")}),
            newLines());
}

TEST_F(Unit, RuleWithAnInvalidExpressionNeverMatchesAndHarmsNoOther) {
  rulesOnly();
  net->command({"regin", "1_1_1", "unit (", "never"});
  net->command({"regin", "1_1_2", "unit", "good"});
  EXPECT_EQ(std::vector{dataText("1_1_2", "good")}, resultOf("unit ("));
}

TEST_F(Unit, RuleAddedAfterAMatchIsTriedNextTime) {
  rulesOnly();
  net->command({"regin", "1_1_1", "x", "a"});
  EXPECT_EQ(1U, resultOf("x").size());
  net->command({"regin", "1_1_2", "x", "b"});
  EXPECT_EQ((std::vector{dataText("1_1_1", "a"), dataText("1_1_2", "b")}), resultOf("x"));
}

TEST_F(Unit, HandlingLeavesNoRecordInUse) {
  net->command({"reg", "on"});
  net->command({"regin", "1_1_1", "x", "a"});
  net->command({"regin", "1_1_1", "x", "b", "MM_ACTUATOR_REQUEST"});
  const auto before = drovane::RecordPool::inUse();
  for (int i = 0; i < 100; ++i) resultOf("x");
  EXPECT_EQ(before, drovane::RecordPool::inUse());
}

}  // namespace
