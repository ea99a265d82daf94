// Where a line goes out: which messages become which bytes. Over TCP; what is the same for all
// transports is in OutboundTransportsTest.cpp.
#include <string>

#include "OutboundNet.h"
#include "RovikUtil.h"

namespace {

using Outbound = OutboundNet;

std::string escaped(const std::string& bytes) {
  std::string text;
  RovikUtil::escape(text, bytes.data(), bytes.size());
  return text;
}

std::string everyByte() {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  return bytes;
}

// --- Which messages are requests to this network -------------------------------------------------

TEST_F(Outbound, RequestToTheDefaultAddressIsItsOwnText) {
  request("5_0_0", "ON");
  EXPECT_EQ(Lines{requestLine("5_0_0", "ON")}, newLines());
  EXPECT_EQ("ON", sent());
}

TEST_F(Outbound, RequestThatIsNoTextSendsNothing) {
  rule("5_1_0", "", "rule");
  for (const char* key : {"5_0_0", "5_1_0"}) {
    for (const auto type : {VAL_INT, VAL_FLOAT}) {
      const auto msg = requestFor(key, "ON");
      msg->value_type = type;
      EXPECT_EQ(0, net->selectMM(msg.get()));
    }
  }
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_EQ("", sent());
}

TEST_F(Outbound, RequestToAnotherNetworkSendsNothing) {
  rule("6_1_0", "", "rule");
  for (const char* key : {"6_0_0", "6_1_0", "0_0_0", "-5_0_0", "50_0_0"}) request(key, "ON");
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_EQ("", sent());
}

TEST_F(Outbound, RequestsFollowTheNetworkThatIsSet) {
  set("network_id", "-1");
  rule("-1_2_-3", "", "rule,");
  request("5_0_0", "old");
  request("-1_0_0", "new,");
  request("-1_2_-3", "x");
  EXPECT_EQ((Lines{requestLine("-1_0_0", "new,"), requestLine("-1_2_-3", "x"), matchLine()}),
            newLines());
  EXPECT_EQ("new,rule,", sent());
}

TEST_F(Outbound, MessageOfAnyOtherKindSendsNothing) {
  rule("5_1_0", "", "rule");
  for (const char* key : {"5_0_0", "5_1_0"}) {
    const auto data = newText("ON");
    ASSERT_EQ(0, data->setKey(key));
    EXPECT_EQ(0, net->selectMM(data.get()));
    const auto asked = newMessage<MMDataRequest>(MM_DATA_REQUEST);
    ASSERT_EQ(0, asked->setKey(key));
    asked->value_type = VAL_STRING;
    EXPECT_EQ(0, net->selectMM(asked.get()));
  }
  const auto response = newMessage<MMCmdResponse>(MM_CMD_RESPONSE);
  const auto empty = newMessage<RovikMessage>(MM_EMPTY);
  EXPECT_EQ(0, net->selectMM(newNote("ON").get()));
  EXPECT_EQ(0, net->selectMM(newCommand("close").get()));
  EXPECT_EQ(0, net->selectMM(response.get()));
  EXPECT_EQ(0, net->selectMM(empty.get()));
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_EQ("", sent());
}

TEST_F(Outbound, RequestStaysTheSendersAndAsItWas) {
  rule("5_1_0", "O(N)", "\\1");
  const auto msg = requestFor("5_1_0", "ON");
  const std::string before = msg->toString();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(0, net->selectMM(msg.get()));
  EXPECT_EQ(before, msg->toString());
  EXPECT_EQ("NNN", sent());
}

// --- The default address -------------------------------------------------------------------------

TEST_F(Outbound, DefaultAddressNeedsBothZeros) {
  for (const char* key : {"5_0_1", "5_1_0", "5_-1_0"}) request(key, "ON");
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_EQ("", sent());
}

TEST_F(Outbound, DefaultAddressIsSilentWhenSwitchedOffEvenIfARuleHasItsKey) {
  set("unparsedin", "off");
  rule("5_0_0", "", "rule");
  request("5_0_0", "ON");
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_EQ("", sent());
}

TEST_F(Outbound, DefaultAddressDoesNotAskTheRules) {
  rule("5_0_0", "", "rule");
  request("5_0_0", "ON");
  EXPECT_EQ(Lines{requestLine("5_0_0", "ON")}, newLines());
  EXPECT_EQ("ON", sent());
}

TEST_F(Outbound, RulesDoNotNeedTheDefaultAddress) {
  set("unparsedin", "off");
  rule("5_1_0", "", "rule");
  request("5_1_0", "ON");
  EXPECT_EQ("rule", sent());
}

TEST_F(Outbound, TextOfTheDefaultAddressIsUnescaped) {
  request("5_0_0", "a\\r\\n\\x00\\0\\\\\\q\\x4");
  EXPECT_EQ(std::string("a\r\n\0\0\\\\q\\x4", 11), sent());
}

// Raw mode is one of what comes in and of what a script writes.
TEST_F(Outbound, TextIsUnescapedInRawModeToo) {
  rule("5_1_0", "^(.*)$", "\\1\\x00");
  net->raw = true;
  request("5_0_0", "a\\n");
  request("5_1_0", "b\\t");
  EXPECT_EQ(std::string("a\nb\t\0", 5), sent());
}

TEST_F(Outbound, EveryByteCanBeSent) {
  rule("5_1_0", ".*", "\\0");
  request("5_0_0", escaped(everyByte()));
  request("5_1_0", escaped(everyByte()));
  EXPECT_EQ(everyByte() + everyByte(), sent());
}

TEST_F(Outbound, TextEndsAtItsFirstZeroByte) {
  rule("5_1_0", "^.*$", "<\\0>");
  request("5_0_0", std::string("ab\0cd", 5));
  request("5_1_0", std::string("ef\0gh", 5));
  EXPECT_EQ((Lines{requestLine("5_0_0", "ab"), requestLine("5_1_0", "ef"), matchLine()}),
            newLines());
  EXPECT_EQ("ab<ef>", sent());
}

// --- The rules -----------------------------------------------------------------------------------

TEST_F(Outbound, RuleMakesTheTextOfItsRequests) {
  rule("5_1_0", "^(ON|OFF)$", "HEAT=\\1\\r\\n");
  request("5_1_0", "ON");
  EXPECT_EQ((Lines{requestLine("5_1_0", "ON"), matchLine()}), newLines());
  EXPECT_EQ("HEAT=ON\r\n", sent());
}

TEST_F(Outbound, RulesAreNotAppliedUnlessSwitchedOn) {
  rule("5_1_0", "", "rule");
  set("reg", "off");
  request("5_1_0", "ON");
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_EQ("", sent());
}

TEST_F(Outbound, RequestWithoutARuleIsOnlyLogged) {
  rule("5_2_0", "", "other key");
  rule("5_1_0", "^OFF$", "other value");
  request("5_1_0", "ON");
  request("5_3_0", "ON");
  EXPECT_EQ((Lines{requestLine("5_1_0", "ON"), requestLine("5_3_0", "ON")}), newLines());
  EXPECT_EQ("", sent());
}

TEST_F(Outbound, FirstRuleThatMatchesIsTheOnlyOne) {
  rule("5_1_0", "^OFF$", "no match,");
  rule("5_2_0", "", "no key,");
  rule("5_1_0", "^O", "first,");
  rule("5_1_0", "^ON$", "second,");
  request("5_1_0", "ON");
  EXPECT_EQ((Lines{requestLine("5_1_0", "ON"), matchLine()}), newLines());
  EXPECT_EQ("first,", sent());
}

TEST_F(Outbound, InvalidExpressionIsPassedOver) {
  rule("5_1_0", "(of the outbound test", "invalid,");
  rule("5_1_0", "ON", "valid,");
  newLines();
  request("5_1_0", "ON");
  EXPECT_EQ((Lines{requestLine("5_1_0", "ON"), matchLine()}), newLines());
  EXPECT_EQ("valid,", sent());
}

// The key of a request has one form; what else reads like the same numbers is another text.
TEST_F(Outbound, KeysAreComparedAsTexts) {
  for (const char* key : {"5_01_0", "5_1_00", "+5_1_0", " 5_1_0", "5_1_0 ", "5_1", "5_1_0_0", ""})
    rule(key, "", "wrong");
  request("5_1_0", "ON");
  EXPECT_EQ(Lines{requestLine("5_1_0", "ON")}, newLines());
  rule("5_1_0", "", "right");
  request("5_1_0", "ON");
  EXPECT_EQ("right", sent());
}

TEST_F(Outbound, KeysOfTheLargestNumbersFindTheirRule) {
  rule("5_-2147483648_2147483647", "", "rule");
  request("5_-2147483648_2147483647", "ON");
  EXPECT_EQ((Lines{requestLine("5_-2147483648_2147483647", "ON"), matchLine()}), newLines());
  EXPECT_EQ("rule", sent());
}

TEST_F(Outbound, GroupsOfTheMatchGoIntoTheText) {
  rule("5_1_0", "(\\d+),(\\d+)(x)?", "[\\2;\\1;\\3;\\9;\\0]");
  request("5_1_0", "to 12,34!");
  EXPECT_EQ("[34;12;;;12,34]", sent());
}

// Escapes are read in what the rule has made, whether they come from the rule or from the value.
TEST_F(Outbound, FilledInTextIsUnescaped) {
  rule("5_1_0", "^(.*)$", "\\x02\\1\\x00\\\\\\r\\n");
  request("5_1_0", "a\\tb\\x41");
  EXPECT_EQ(std::string("\x02"
                        "a\tbA\0\\\r\n",
                        9),
            sent());
}

// Nothing at all: no end of line either, and no other rule has its turn.
TEST_F(Outbound, RuleWithoutAnOutputMatchesAndSendsNothing) {
  set("addeol", "on");
  rule("5_1_0", "ON", "");
  rule("5_1_0", "ON", "second");
  request("5_1_0", "ON");
  EXPECT_EQ((Lines{requestLine("5_1_0", "ON"), matchLine()}), newLines());
  EXPECT_EQ("", sent());
}

TEST_F(Outbound, EmptyValueSendsNothing) {
  set("addeol", "on");
  request("5_0_0", "");
  EXPECT_EQ(Lines{requestLine("5_0_0", "")}, newLines());
  EXPECT_EQ("", sent());
}

TEST_F(Outbound, EmptyValueCanMatchARule) {
  rule("5_1_0", "^$", "empty");
  request("5_1_0", "");
  EXPECT_EQ("empty", sent());
}

TEST_F(Outbound, RuleCountsFromWhenItIsAdded) {
  rule("5_1_0", "ON", "1,");
  request("5_1_0", "ON");
  request("5_1_0", "OFF");
  rule("5_1_0", "OFF", "2,");
  request("5_1_0", "OFF");
  EXPECT_EQ("1,2,", sent());
}

TEST_F(Outbound, TenThousandKeysFindEachItsOwnRule) {
  for (int i = 1; i <= 10000; ++i)
    rule("5_1_" + std::to_string(i), "^ON$", std::to_string(i) + ",");
  for (const char* number : {"1", "10000", "37", "5000"}) {
    request(std::string("5_1_") + number, "OFF");
    request(std::string("5_1_") + number, "ON");
  }
  request("5_1_10001", "ON");
  EXPECT_EQ("1,10000,37,5000,", sent());
}

TEST_F(Outbound, OfTenThousandRulesOfOneKeyTheFirstThatMatchesWins) {
  for (int i = 0; i < 10000; ++i)
    rule("5_1_0", "^" + std::to_string(i) + "(?:$|[^0-9])", "rule " + std::to_string(i) + ",");
  rule("5_1_0", "5", "last,");
  newLines();
  for (const char* value : {"0", "9999", "5000", "77", "x5", "x"}) request("5_1_0", value);
  EXPECT_EQ("rule 0,rule 9999,rule 5000,rule 77,last,", sent());
}

// --- How much can be sent ------------------------------------------------------------------------

TEST_F(Outbound, OutputOf4095BytesIsSentAndOneMoreIsNot) {
  rule("5_1_0", ".*", "\\0");
  for (const char* key : {"5_0_0", "5_1_0"}) {
    request(key, std::string(4096, 'x'));
    request(key, std::string(4095, 'y'));
    request(key, std::string(10000, 'x'));
  }
  EXPECT_EQ(0U, warnings());
  EXPECT_EQ(std::string(2 * 4095, 'y'), sent());
}

// What counts is what the escapes stand for.
TEST_F(Outbound, LongEscapedTextIsSentWhenItsBytesFit) {
  rule("5_1_0", ".*", "\\0");
  const auto text = [](int bytes) {
    std::string escapes;
    for (int i = 0; i < bytes; ++i) escapes += "\\x7a";
    return escapes;
  };
  for (const char* key : {"5_0_0", "5_1_0"}) {
    request(key, text(4096));
    request(key, text(4095));
  }
  EXPECT_EQ(std::string(2 * 4095, 'z'), sent());
}

TEST_F(Outbound, ShortValueCanGrowTooLong) {
  rule("5_1_0", ".*", std::string(4094, '.') + "\\0");
  request("5_1_0", "12");
  request("5_1_0", "1");
  EXPECT_EQ(std::string(4094, '.') + "1", sent());
}

TEST_F(Outbound, OutputThatIsTooLongIsLoggedButDoesNotOpenTheLink) {
  net->closeGeneric();
  newLines();
  request("5_0_0", std::string(4096, 'x'));
  EXPECT_EQ(Lines{requestLine("5_0_0", std::string(4096, 'x'))}, newLines());
  EXPECT_EQ(-1, net->fd);
  EXPECT_FALSE(peer.linkWaits());
}

}  // namespace
