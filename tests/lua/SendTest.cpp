// The six functions that send: what they log, what leaves, what they refuse.
#include <gtest/gtest.h>

#include "ScriptTest.h"
#include "framework/RecordPool.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const char kCount[] = "4 LUA: wrong number of arguments supplied to function call";
const char kNoDestination[] = "4 LUA: could not decode destination id";

class SendTest : public ScriptTest {
 protected:
  SendTest() : net6(ScriptRovik::make(6, "lamp")) {}
  void SetUp() override {
    script("");
    in_use = drovane::RecordPool::inUse();
  }

  // Runs a call and compares the log and what leaves; it returns nothing, and holds nothing.
  void expectSent(const std::string& call, const Texts& lines, const Texts& sent) {
    EXPECT_EQ("0", lua("return select('#', " + call + ")")) << call;
    EXPECT_EQ(lines, newLines()) << call;
    EXPECT_EQ(sent, traffic.takeTexts()) << call;
  }

  void expectRefused(const std::string& call, const Texts& lines) {
    expectSent(call, lines, {});
    EXPECT_EQ(in_use, drovane::RecordPool::inUse()) << call;
  }

  std::unique_ptr<ScriptRovik> net6;
  std::int64_t in_use = 0;
};

TEST_F(SendTest, AnIntIsReportedToEverybody) {
  expectSent("sndDATA('5_1_0', 'int', 5, 'BC')",
             {"3 LUA: DATA 5_1_0 = 5", "3 LUA: DATA 5_1_0 as broadcast"},
             {"MM_DATA 5_1_0 = 5 to everybody"});
}

TEST_F(SendTest, ANegativeIntStaysNegative) {
  expectSent("sndDATA('5_1_0', 'int', -5, 6)", {"3 LUA: DATA 5_1_0 = -5", "3 LUA: DATA 5_1_0 to 6"},
             {"MM_DATA 5_1_0 = -5 to 6"});
}

TEST_F(SendTest, AnIntTakesNumbersThatFitNowhereWithoutHarm) {
  for (const char* number : {"1e300", "-1e300", "math.huge", "-math.huge", "0/0"})
    expectSent(std::string("sndDATA('5_1_0', 'int', ") + number + ", 6)",
               {"3 LUA: DATA 5_1_0 = 0", "3 LUA: DATA 5_1_0 to 6"}, {"MM_DATA 5_1_0 = 0 to 6"});
  expectSent("sndDATA('5_1_0', 'int', 3.7, 6)", {"3 LUA: DATA 5_1_0 = 3", "3 LUA: DATA 5_1_0 to 6"},
             {"MM_DATA 5_1_0 = 3 to 6"});
}

TEST_F(SendTest, AFloatIsLoggedAsItIsStored) {
  expectSent("sndDATA('5_1_0', 'float', 0.1, 6)",
             {"3 LUA: DATA 5_1_0 = 0.100000", "3 LUA: DATA 5_1_0 to 6"},
             {"MM_DATA 5_1_0 = 0.1 to 6"});
  lua("sndDATA('5_1_0', 'float', 0.1, 6)");
  EXPECT_EQ(0.1F, traffic.takeOne<MMData>(MM_DATA)->value_f);
}

TEST_F(SendTest, ATextEndsAtItsFirstZeroByte) {
  expectSent("sndDATA('5_1_0', 'string', 'a\\0b', 'lamp')",
             {"3 LUA: DATA 5_1_0 = a", "3 LUA: DATA 5_1_0 to lamp"},
             {"MM_DATA 5_1_0 = \"a\" to lamp"});
}

TEST_F(SendTest, NumbersAsTextsAndTextsAsNumbersAreConverted) {
  expectSent("sndDATA('5_1_0', 'int', '12', '6')",
             {"3 LUA: DATA 5_1_0 = 12", "3 LUA: DATA 5_1_0 to 6"}, {"MM_DATA 5_1_0 = 12 to 6"});
  expectSent("sndDATA('5_1_0', 'string', 3, 6)",
             {"3 LUA: DATA 5_1_0 = 3", "3 LUA: DATA 5_1_0 to 6"}, {"MM_DATA 5_1_0 = \"3\" to 6"});
}

TEST_F(SendTest, ATextOfOneMegabyteIsWhole) {
  lua("sndDATA('5_1_0', 'string', ('x'):rep(1000000), 6)");
  EXPECT_EQ(std::string(1000000, 'x'), traffic.takeOne<MMData>(MM_DATA)->value_s);
}

TEST_F(SendTest, OnlyTheValueOfItsTypeIsSet) {
  struct {
    const char* type;
    std::uint32_t as_int;
    float as_float;
    const char* as_string;
  } const kCases[] = {{"int", 12, 0, ""}, {"float", 0, 12, ""}, {"string", 0, 0, "12"}};
  for (const auto& each : kCases) {
    lua("sndDATA('5_1_0', '" + std::string(each.type) + "', '12', 6)");
    const auto data = traffic.takeOne<MMData>(MM_DATA);
    EXPECT_EQ(each.as_int, data->value_i) << each.type;
    EXPECT_EQ(each.as_float, data->value_f) << each.type;
    EXPECT_EQ(each.as_string, data->value_s) << each.type;
  }
}

TEST_F(SendTest, TheDestinationIsANumberEverybodyOrAName) {
  lua("sndDATA('5_1_0', 'int', 1, 6)");
  auto data = traffic.takeOne<MMData>(MM_DATA);
  EXPECT_EQ(6U, data->dst);
  EXPECT_EQ("", data->dst_s);
  lua("sndDATA('5_1_0', 'int', 1, 'BC')");
  data = traffic.takeOne<MMData>(MM_DATA);
  EXPECT_EQ(NO_DESTINATION, data->dst);
  EXPECT_EQ("", data->dst_s);
  for (const std::string name : {"lamp", "bc", "BC ", "BCx", ""}) {
    lua("sndDATA('5_1_0', 'int', 1, '" + name + "')");
    data = traffic.takeOne<MMData>(MM_DATA);
    EXPECT_EQ(NO_DESTINATION, data->dst);
    EXPECT_EQ(name, data->dst_s);
  }
}

TEST_F(SendTest, ANumericTextIsANumberAndNotAName) {
  newLines();
  lua("sndDATA('5_1_0', 'int', 1, '7')");
  EXPECT_EQ("3 LUA: DATA 5_1_0 to 7", newLines().at(1));
  EXPECT_EQ(7U, traffic.takeOne<MMData>(MM_DATA)->dst);
  lua("sndDATA('5_1_0', 'int', 1, -1)");
  EXPECT_EQ("3 LUA: DATA 5_1_0 to -1", newLines().at(1));
}

TEST_F(SendTest, ValuesRefuseInTheOrderOfTheirArguments) {
  struct {
    const char* function;
    const char* what;
  } const kFunctions[] = {{"sndDATA", "DATA"}, {"sndACTUATOR_REQUEST", "ACTUATOR_REQUEST"}};
  for (const auto& each : kFunctions) {
    const std::string f = each.function;
    const std::string value_line = std::string("3 LUA: ") + each.what + " 5_1_0 = 1";
    for (const char* arguments :
         {"()", "('5_1_0')", "('5_1_0', 'int', 1)", "('5_1_0', 'int', 1, 6, 7)", "(nil, nil, nil)"})
      expectRefused(f + arguments, {kCount});
    expectRefused(f + "('5_1', 'x', {}, {})", {"4 LUA: could not decode key 5_1 "});
    expectRefused(f + "(7, 'int', 1, 6)", {"4 LUA: could not decode key 7 "});
    for (const char* key : {"nil", "{}", "true", "print", "coroutine.create(print)", "m_p"})
      expectRefused(f + "(" + key + ", 'x', {}, {})", {"4 LUA: could not decode key (null) "});
    expectRefused(f + "('5_1_0', 'x', {}, {})", {"4 LUA: could not decode type x "});
    expectRefused(f + "('5_1_0', 'INT', 1, 6)", {"4 LUA: could not decode type INT "});
    for (const char* type : {"nil", "{}", "true", "print", "m_p"})
      expectRefused(f + "('5_1_0', " + type + ", {}, {})",
                    {"4 LUA: could not decode type (null) "});
    for (const char* value : {"'int', 'abc'", "'int', nil", "'int', true", "'float', 'x'",
                              "'float', {}", "'string', {}", "'string', nil", "'string', print"})
      expectRefused(f + "('5_1_0', " + value + ", {})", {"4 LUA: could not decode data"});
    for (const char* destination : {"nil", "{}", "true", "print", "m_p"})
      expectRefused(f + "('5_1_0', 'int', 1, " + destination + ")", {value_line, kNoDestination});
  }
}

TEST_F(SendTest, AKeyWithAZeroByteIsReadUpToIt) {
  expectSent("sndDATA('5_1_0\\0x', 'int\\0x', 1, 6)",
             {"3 LUA: DATA 5_1_0 = 1", "3 LUA: DATA 5_1_0 to 6"}, {"MM_DATA 5_1_0 = 1 to 6"});
}

TEST_F(SendTest, AKeyOfOneMegabyteIsRefusedAndLogged) {
  lua("sndDATA(('k'):rep(1000000), 'int', 1, 6)");
  EXPECT_THAT(newLines(),
              ElementsAre("4 LUA: could not decode key " + std::string(1000000, 'k') + " "));
}

TEST_F(SendTest, AnActuatorRequestHasItsOwnLines) {
  expectSent("sndACTUATOR_REQUEST('5_1_0', 'int', -1, 6)",
             {"3 LUA: ACTUATOR_REQUEST 5_1_0 = -1", "3 LUA: ACTUATOR_REQUEST 5_1_0 to 6"},
             {"MM_ACTUATOR_REQUEST 5_1_0 = -1 to 6"});
  expectSent(
      "sndACTUATOR_REQUEST('5_1_0', 'float', 1.5, 'BC')",
      {"3 LUA: ACTUATOR_REQUEST 5_1_0 = 1.500000", "3 LUA: ACTUATOR_REQUEST 5_1_0 as broadcast"},
      {"MM_ACTUATOR_REQUEST 5_1_0 = 1.5 to everybody"});
  expectSent("sndACTUATOR_REQUEST('5_1_0', 'string', 'ON', 'lamp')",
             {"3 LUA: ACTUATOR_REQUEST 5_1_0 = ON", "3 LUA: ACTUATOR_REQUEST 5_1_0 to lamp"},
             {"MM_ACTUATOR_REQUEST 5_1_0 = \"ON\" to lamp"});
}

TEST_F(SendTest, ADataRequestIsSentAndLogged) {
  expectSent("sndDATA_REQUEST('9_1_0', 'float', 6)", {"3 LUA: DATA_REQUEST 9_1_0 to 6"},
             {"MM_DATA_REQUEST 9_1_0 (float) to 6"});
  expectSent("sndDATA_REQUEST('9_1_0', 'int', 'BC')", {"3 LUA: DATA_REQUEST 9_1_0 as broadcast"},
             {"MM_DATA_REQUEST 9_1_0 (int) to everybody"});
  lua("sndDATA_REQUEST('9_1_0', 'string', 'lamp')");
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: DATA_REQUEST 9_1_0 to lamp"));
  const auto request = traffic.takeOne<MMDataRequest>(MM_DATA_REQUEST);
  EXPECT_EQ(0U, request->req_op + request->from_tv_sec + request->to_tv_sec + request->flags);
}

TEST_F(SendTest, ADataRequestRefusesInTheOrderOfItsArguments) {
  for (const char* arguments : {"()", "('9_1_0', 'int')", "('9_1_0', 'int', 6, 7)"})
    expectRefused(std::string("sndDATA_REQUEST") + arguments, {kCount});
  expectRefused("sndDATA_REQUEST({}, {}, {})", {"4 LUA: could not decode key (null) "});
  expectRefused("sndDATA_REQUEST('9_1_0', {}, {})", {"4 LUA: could not decode type (null) "});
  expectRefused("sndDATA_REQUEST('9_1_0', 'int', {})", {kNoDestination});
}

TEST_F(SendTest, ACommandIsSentAndLogged) {
  expectSent("sndCMD('open now', 6)", {"3 LUA: CMD_REQUEST open now to 6"},
             {"MM_CMD_REQUEST \"open now\" to 6"});
  expectSent("sndCMD('open', 'BC')", {"3 LUA: CMD_REQUEST open as broadcast"},
             {"MM_CMD_REQUEST \"open\" to everybody"});
  expectSent("sndCMD('open\\0x', 'lamp')", {"3 LUA: CMD_REQUEST open to lamp"},
             {"MM_CMD_REQUEST \"open\" to lamp"});
  expectSent("sndCMD(42, 'lamp')", {"3 LUA: CMD_REQUEST 42 to lamp"},
             {"MM_CMD_REQUEST \"42\" to lamp"});
}

TEST_F(SendTest, ACommandRefusesInTheOrderOfItsArguments) {
  for (const char* arguments : {"()", "('open')", "('open', 6, 7)"})
    expectRefused(std::string("sndCMD") + arguments, {kCount});
  for (const char* text : {"nil", "{}", "true", "print"})
    expectRefused(std::string("sndCMD(") + text + ", {})", {"4 LUA: could not decode cmd "});
  expectRefused("sndCMD('open', {})", {kNoDestination});
}

TEST_F(SendTest, SndMSGNeverSends) {
  expectRefused("sndMSG(1, 'hello')", {kNoDestination});
  expectRefused("sndMSG('1', 42)", {kNoDestination});
  expectRefused("sndMSG(1, 'hello', 6)", {kCount});
  expectRefused("sndMSG(1)", {kCount});
  expectRefused("sndMSG('x', {})", {"4 LUA: could not decode channel"});
  expectRefused("sndMSG(nil, 'hello')", {"4 LUA: could not decode channel"});
  expectRefused("sndMSG(1, {})", {"4 LUA: could not decode msg"});
}

TEST_F(SendTest, SndMMSendsWhatTheTableDescribes) {
  expectSent("sndMM({type='MM_DATA', key='5_1_0', value_type='int', value=-5}, 6)",
             {"3 LUA: MM_DATA 5_1_0 = -5 from 0 to everybody #0 to 6"},
             {"MM_DATA 5_1_0 = -5 to 6"});
  expectSent("sndMM({type='MM_MSG', channel=1, msg='hello'}, 'BC')",
             {"3 LUA: MM_MSG channel 1 \"hello\" from 0 to everybody #0 as broadcast"},
             {"MM_MSG channel 1 \"hello\" to everybody"});
  expectSent("sndMM({type='MM_CMD_RESPONSE', rsp='OK'}, 'lamp')",
             {"3 LUA: MM_CMD_RESPONSE \"OK\" from 0 to everybody #0 to lamp"},
             {"MM_CMD_RESPONSE \"OK\" to lamp"});
}

TEST_F(SendTest, SndMMSendsEveryKind) {
  const std::string value = "', key='5_1_0', value_type='int', value=1}, 6)";
  for (const char* type : {"MM_DATA", "MM_DATA_REQUEST", "MM_ACTUATOR_REQUEST", "MM_CMD_REQUEST",
                           "MM_CMD_RESPONSE", "MM_MSG"})
    EXPECT_EQ("", lua("sndMM({type='" + std::string(type) + value));
  EXPECT_THAT(traffic.takeTexts(),
              ElementsAre("MM_DATA 5_1_0 = 1 to 6", "MM_DATA_REQUEST 5_1_0 (int) to 6",
                          "MM_ACTUATOR_REQUEST 5_1_0 = 1 to 6", "MM_CMD_REQUEST \"\" to 6",
                          "MM_CMD_RESPONSE \"\" to 6", "MM_MSG channel 0 \"\" to 6"));
}

TEST_F(SendTest, TheTextOfSndMMIsCutTo511Characters) {
  lua("sndMM({type='MM_MSG', msg=('x'):rep(1000)}, 6)");
  const std::string text = "MM_MSG channel 0 \"" + std::string(493, 'x');
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: " + text + " to 6"));
  EXPECT_EQ(std::string(1000, 'x'), traffic.takeOne<MMMsg>(MM_MSG)->msg);
}

TEST_F(SendTest, SndMMRefusesInTheOrderOfItsArguments) {
  for (const char* arguments : {"()", "({})", "({}, 6, 7)"})
    expectRefused(std::string("sndMM") + arguments, {kCount});
  for (const char* table : {"nil", "'x'", "7", "true", "print", "m_p"})
    expectRefused(std::string("sndMM(") + table + ", {})", {"4 LUA: could not decode mm object"});
  expectRefused("sndMM({}, {})", {"4 LUA: could not create message from lua table (type=?)",
                                  "4 LUA: could not create message"});
  expectRefused("sndMM({type='MM_MSG'}, {})", {kNoDestination});
}

TEST_F(SendTest, WhatIsSentIsStampedWithItsSender) {
  lua("sndDATA('5_1_0', 'int', 1, 6)");
  const auto data = traffic.takeOne<MMData>(MM_DATA);
  EXPECT_EQ(5U, data->src);
  EXPECT_EQ("net", data->src_s);
  EXPECT_NE(0U, data->seqnr);
  EXPECT_GT(data->tv_sec, 1'700'000'000U);
}

TEST_F(SendTest, ARefusedCallIsNoWarning) {
  for (const char* call :
       {"sndDATA()", "sndDATA('x', 'int', 1, 6)", "sndDATA('5_1_0', 'x', 1, 6)",
        "sndDATA('5_1_0', 'int', {}, 6)", "sndDATA('5_1_0', 'int', 1, {})", "sndCMD({}, 6)",
        "sndMSG({}, 'x')", "sndMSG(1, {})", "sndMM(1, 6)", "sndMM({}, 6)"})
    lua(call);
  EXPECT_EQ("", warning());
}

TEST_F(SendTest, ADestinationThatNobodyHasIsNoErrorOfTheScript) {
  lua("sndDATA('5_1_0', 'int', 1, 'nobody')");
  EXPECT_EQ("", warning());
}

}  // namespace
