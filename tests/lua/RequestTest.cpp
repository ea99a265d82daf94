// getDATA, getCMD and getMM: between real roviks, each with its thread and its script.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>

#include "ScriptTest.h"
#include "framework/Clock.h"
#include "framework/RecordPool.h"
#include "support/Eventually.h"
#include "support/TestRovik.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

const char kCount[] = "4 LUA: wrong number of arguments supplied to function call";
const char kNoDestination[] = "4 LUA: could not decode destination id";
const char kNoReply[] = "4 got no reply message!";
const char kReply[] = "4 got a reply message!";
const char kNoData[] = "4 got a reply message but no valid data";
const char kNoCmd[] = "4 got a reply message but no valid cmd reply";

class RequestTest : public ScriptTest {
 protected:
  void SetUp() override { script(""); }

  // A running rovik 9 called "meter" with a script of its own.
  void runMeter(std::string_view text) {
    scripts.write("meter.lua", std::string(kPlainScript) + std::string(text));
    meter = ScriptRovik::make(9, "meter");
    ASSERT_EQ("OK", meter->command({"luafile", "meter.lua"}));
    ASSERT_EQ("OK", meter->command({"luaopen"}));
    meter->run();
  }

  // Runs the expression inside rovik 5 on its own thread, with the script's own stack left clean.
  std::string ask(const std::string& expression) {
    if (!running) net->run();
    running = true;
    return net->command({"evaluate", expression});
  }

  void scriptThatEvaluates() {
    script(
        "function evaluate(t) local reply = assert(load('return ' .. t.arg1))() "
        "return tostring(reply) end function ROVIK_RCV(msg) print('saw ' .. msg.type) end");
  }

  void expectRefused(const std::string& call, const Texts& lines) {
    const auto in_use = drovane::RecordPool::inUse();
    EXPECT_EQ("0", lua("return select('#', " + call + ")")) << call;
    EXPECT_EQ(lines, newLines()) << call;
    EXPECT_THAT(traffic.takeTexts(), IsEmpty()) << call;
    EXPECT_EQ(in_use, drovane::RecordPool::inUse()) << call;
  }

  std::unique_ptr<ScriptRovik> meter;
  bool running = false;
};

// Answers data requests the way a script does: the seqnr of the request, to its sender.
constexpr const char* kAnswers = R"(
function ROVIK_RCV(msg)
  if msg.type == 'MM_DATA_REQUEST' then
    sndMM({type='MM_DATA', key=msg.key, value_type=msg.value_type, value=230.5, seqnr=msg.seqnr},
          msg.src)
  end
end
function hello(words) return 'you said hello ' .. words.arg1 end
function nothing() end
)";

TEST_F(RequestTest, GetDataRefusesInTheOrderOfItsArguments) {
  for (const char* arguments : {"()", "('9_1_0', 'int')", "('9_1_0', 'int', 9, 9)"})
    expectRefused(std::string("getDATA") + arguments, {kCount});
  expectRefused("getDATA({}, {}, {})", {"4 LUA: could not decode key (null) "});
  expectRefused("getDATA('9_1', {}, {})", {"4 LUA: could not decode key 9_1 "});
  expectRefused("getDATA('9_1_0', {}, {})", {"4 LUA: could not decode type (null) "});
  expectRefused("getDATA('9_1_0', 'x', {})", {"4 LUA: could not decode type x "});
  for (const char* destination : {"true", "nil", "{}", "print"})
    expectRefused(std::string("getDATA('9_1_0', 'int', ") + destination + ")",
                  {kNoDestination, kNoReply});
}

TEST_F(RequestTest, GetCmdRefusesInTheOrderOfItsArguments) {
  for (const char* arguments : {"()", "('open')", "('open', 9, 9)"})
    expectRefused(std::string("getCMD") + arguments, {kCount});
  for (const char* text : {"nil", "{}", "true"})
    expectRefused(std::string("getCMD(") + text + ", {})", {"4 LUA: could not decode cmd "});
  expectRefused("getCMD('open', {})", {kNoDestination, kNoReply});
}

TEST_F(RequestTest, GetMmRefusesInTheOrderOfItsArguments) {
  for (const char* arguments : {"()", "({})", "({}, 9, 9)"})
    expectRefused(std::string("getMM") + arguments, {kCount});
  for (const char* table : {"nil", "'x'", "7"})
    expectRefused(std::string("getMM(") + table + ", {})", {"4 LUA: could not decode mm object"});
  expectRefused("getMM({}, {})", {"4 LUA: could not create message from lua table (type=?)",
                                  "4 LUA: could not create message"});
  for (const char* table : {"{type='MM_DATA', key='5_1_0', value_type='int', value=1}",
                            "{type='MM_ACTUATOR_REQUEST', key='5_1_0', value_type='int', value=1}",
                            "{type='MM_CMD_RESPONSE'}", "{type='MM_MSG'}"})
    expectRefused(std::string("getMM(") + table + ", {})",
                  {"4 LUA: getMM is only valid for MM_DATA_REQUEST or MM_CMD_REQUEST"});
  expectRefused("getMM({type='MM_CMD_REQUEST'}, {})", {kNoDestination, kNoReply});
}

TEST_F(RequestTest, NobodyThereIsNoReplyAtOnce) {
  EXPECT_EQ("0", lua("return select('#', getDATA('9_1_0', 'int', 'nobody'))"));
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: DATA_REQUEST 9_1_0 to nobody", kNoReply));
  EXPECT_EQ("0", lua("return select('#', getCMD('open', 77))"));
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: CMD_REQUEST open to 77", kNoReply));
  EXPECT_EQ("0", lua("return select('#', getMM({type='MM_CMD_REQUEST', cmd='x'}, 'nobody'))"));
  EXPECT_THAT(
      newLines(),
      ElementsAre("3 LUA: MM_CMD_REQUEST \"x\" from 0 to everybody #0 to nobody", kNoReply));
}

TEST_F(RequestTest, GetDataIsAnsweredByAnotherScript) {
  runMeter(kAnswers);
  scriptThatEvaluates();
  EXPECT_EQ("230.5", ask("getDATA('9_1_0', 'float', 'meter').value"));
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: DATA_REQUEST 9_1_0 to meter", kReply));
  EXPECT_EQ("9", ask("getDATA('9_1_0', 'float', 9).src"));
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: DATA_REQUEST 9_1_0 to 9", kReply));
  EXPECT_EQ("MM_DATA", ask("getDATA('9_1_0', 'float', 'BC').type"));
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: DATA_REQUEST 9_1_0 as broadcast", kReply));
  EXPECT_EQ("1", ask("select('#', getDATA('9_1_0', 'float', 9))"));
  EXPECT_EQ(0U, log.count("saw MM_DATA"));
}

TEST_F(RequestTest, GetCmdIsAnsweredByAnyRovik) {
  runMeter(kAnswers);
  scriptThatEvaluates();
  EXPECT_EQ("you said hello there", ask("getCMD('hello there', 'meter').rsp"));
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: CMD_REQUEST hello there to meter", kReply));
  EXPECT_EQ("MM_CMD_RESPONSE", ask("getCMD('nothing', 9).type"));
  EXPECT_EQ("OK", ask("getCMD('mode tcp', 9).rsp"));
  EXPECT_EQ("OK", ask("getCMD('mode tcp', 'BC').rsp"));
}

TEST_F(RequestTest, GetMmWithADataRequestIsAnsweredByData) {
  runMeter(kAnswers);
  scriptThatEvaluates();
  EXPECT_EQ("230.5",
            ask("getMM({type='MM_DATA_REQUEST', key='9_1_0', value_type='float'}, 9).value"));
  EXPECT_THAT(
      newLines(),
      ElementsAre("3 LUA: MM_DATA_REQUEST 9_1_0 (float) from 0 to everybody #0 to 9", kReply));
}

TEST_F(RequestTest, GetMmTurnsACommandResponseAway) {
  runMeter(kAnswers);
  scriptThatEvaluates();
  EXPECT_EQ("nil", ask("(getMM({type='MM_CMD_REQUEST', cmd='nothing'}, 9))"));
  EXPECT_THAT(
      newLines(),
      ElementsAre("3 LUA: MM_CMD_REQUEST \"nothing\" from 0 to everybody #0 to 9", kNoData));
}

TEST_F(RequestTest, GetMmTakesDataAsTheAnswerToACommand) {
  // The script's data comes before the framework's own response.
  runMeter(
      "function ROVIK_RCV(msg) sndMM({type='MM_DATA', key='9_1_0', value_type='int', value=3, "
      "seqnr=msg.seqnr}, msg.src) end function nothing() end");
  scriptThatEvaluates();
  EXPECT_EQ("3", ask("getMM({type='MM_CMD_REQUEST', cmd='nothing'}, 9).value"));
  EXPECT_EQ(1U, log.count("got a reply message!"));
  // The framework's response comes second and is an ordinary message.
  EXPECT_TRUE(log.waitFor("saw MM_CMD_RESPONSE"));
}

TEST_F(RequestTest, AnAnswerOfTheWrongKindIsTurnedAway) {
  runMeter(
      "function ROVIK_RCV(msg) sndMM({type='MM_DATA', key='9_1_0', value_type='int', value=3, "
      "seqnr=msg.seqnr}, msg.src) end function nothing() end");
  scriptThatEvaluates();
  EXPECT_EQ("nil", ask("(getCMD('nothing', 9))"));
  EXPECT_THAT(newLines(), Contains(kNoCmd));
}

// A rovik 9 "meter" that is no script: it answers a request as the test says.
std::unique_ptr<TestRovik> oracle(const std::function<Owned<RovikMessage>(RovikMessage&)>& answer) {
  auto rovik = TestRovik::make(9, "meter");
  TestRovik& self = *rovik;
  self.on_message = [&self, answer](RovikMessage* msg) {
    const auto reply = answer(*msg);
    reply->dst = msg->src;
    reply->seqnr = msg->seqnr;
    self.messageSnd(reply.get());
  };
  self.run();
  return rovik;
}

TEST_F(RequestTest, GetDataTurnsACommandResponseAway) {
  scriptThatEvaluates();
  const auto meter9 = oracle(
      [](RovikMessage&) { return Owned<RovikMessage>(RovikMessage::create(MM_CMD_RESPONSE)); });
  const auto in_use = drovane::RecordPool::inUse();
  EXPECT_EQ("nil", ask("(getDATA('9_1_0', 'int', 9))"));
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: DATA_REQUEST 9_1_0 to 9", kNoData));
  EXPECT_TRUE(eventually([&] {
    traffic.take();
    return drovane::RecordPool::inUse() == in_use;
  }));
}

TEST_F(RequestTest, GetDataAsksForACurrentValueAndNothingMore) {
  scriptThatEvaluates();
  std::string asked;
  const auto meter9 = oracle([&asked](RovikMessage& msg) {
    const auto& request = static_cast<MMDataRequest&>(msg);
    asked = request.type == MM_DATA_REQUEST ? static_cast<MMDataRequest&>(msg).getKey() : "?";
    for (const std::uint32_t number :
         {request.value_type, request.req_op, request.from_tv_sec, request.from_tv_usec,
          request.to_tv_sec, request.to_tv_usec, request.flags, request.ident})
      asked += ' ' + std::to_string(number);
    return Owned<RovikMessage>(newText("x").release());
  });
  EXPECT_EQ("x", ask("getDATA('9_1_0', 'string', 9).value"));
  EXPECT_EQ("9_1_0 2 0 0 0 0 0 0 0", asked);
}

TEST_F(RequestTest, EverybodyCanBeAskedAndTheFirstAnswerCounts) {
  runMeter(kAnswers);
  scriptThatEvaluates();
  EXPECT_EQ("OK", ask("getCMD('nothing', 'BC').rsp"));
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: CMD_REQUEST nothing as broadcast", kReply));
  EXPECT_EQ("230.5",
            ask("getMM({type='MM_DATA_REQUEST', key='9_1_0', value_type='float'}, 'BC').value"));
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: MM_DATA_REQUEST 9_1_0 (float) from 0 to everybody "
                                      "#0 as broadcast",
                                      kReply));
}

TEST_F(RequestTest, NoAnswerIsNoWarning) {
  for (const char* call : {"getDATA()", "getDATA('9_1_0', 'int', 'nobody')", "getCMD('x', {})",
                           "getMM({type='MM_MSG'}, 9)"})
    EXPECT_EQ("", lua(call)) << call;
  EXPECT_EQ("", warning());
}

// Lets time pass until the answer is there.
std::string outwait(ScriptRovik& rovik, std::future<std::string>& reply) {
  EXPECT_TRUE(eventually([&] {
    drovane::Clock::skip(drovane::Clock::kNanosecondsPerSecond);
    rovik.host().address().waker->wake();
    return reply.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  }));
  return reply.get();
}

TEST_F(RequestTest, AnAnswerThatComesTooLateArrivesAsAMessage) {
  runMeter(
      "function ROVIK_RCV(msg) kept = msg end function answer() "
      "sndMM({type='MM_DATA', key=kept.key, value_type='int', value=1, seqnr=kept.seqnr}, "
      "kept.src) end");
  scriptThatEvaluates();
  auto reply =
      std::async(std::launch::async, [this] { return ask("(getDATA('9_1_0', 'int', 9))"); });
  ASSERT_TRUE(log.waitFor("LUA: DATA_REQUEST 9_1_0 to 9"));
  EXPECT_EQ("nil", outwait(*net, reply));
  EXPECT_THAT(newLines(), ElementsAre("3 LUA: DATA_REQUEST 9_1_0 to 9", kNoReply));
  EXPECT_EQ("OK", meter->command({"answer"}));
  EXPECT_TRUE(log.waitFor("saw MM_DATA"));
}

TEST_F(RequestTest, TwoThatAskEachOtherAtOnceBothGetNothing) {
  // Rovik 9 is inside its command when it is asked, and then asks back.
  runMeter(std::string(kAnswers) +
           "function evaluate() print('waits') while not io.open(INSTROOT .. '/go') do end "
           "return tostring((getDATA('5_1_0', 'int', 5))) end");
  scriptThatEvaluates();
  auto theirs = std::async(std::launch::async, [this] { return meter->command({"evaluate"}); });
  ASSERT_TRUE(log.waitFor("LUA: waits"));
  auto ours =
      std::async(std::launch::async, [this] { return ask("(getDATA('9_1_0', 'int', 9))"); });
  ASSERT_TRUE(log.waitFor("DATA_REQUEST 9_1_0 to 9"));
  scripts.write("../go", "");
  ASSERT_TRUE(log.waitFor("DATA_REQUEST 5_1_0 to 5"));
  EXPECT_EQ("nil", outwait(*net, ours));
  EXPECT_EQ("nil", outwait(*meter, theirs));
  // What each was asked meanwhile waits no longer, and the late answer is an ordinary message.
  EXPECT_TRUE(log.waitFor("saw MM_DATA_REQUEST"));
  EXPECT_TRUE(log.waitFor("LUA: MM_DATA 9_1_0 = 230"));
}

TEST_F(RequestTest, OneselfCannotAnswerWhileOneWaits) {
  scriptThatEvaluates();
  auto reply = std::async(std::launch::async, [this] { return ask("(getCMD('mode tcp', 5))"); });
  ASSERT_TRUE(log.waitFor("CMD_REQUEST mode tcp to 5"));
  EXPECT_EQ("nil", outwait(*net, reply));
}

TEST_F(RequestTest, StoppingEndsAWait) {
  runMeter("function ROVIK_RCV() end");
  scriptThatEvaluates();
  auto reply =
      std::async(std::launch::async, [this] { return ask("(getDATA('9_1_0', 'int', 9))"); });
  ASSERT_TRUE(log.waitFor("LUA: DATA_REQUEST 9_1_0 to 9"));
  net->stop();
  reply.get();
  EXPECT_THAT(newLines(), Contains(kNoReply));
}

TEST_F(RequestTest, RequestsLeaveNoRecordBehind) {
  runMeter(kAnswers);
  scriptThatEvaluates();
  ask("1");
  traffic.take();
  const auto in_use = drovane::RecordPool::inUse();
  EXPECT_EQ("nil", ask("(function() for i = 1, 1000 do getDATA('9_1_0', 'float', 9) "
                       "getCMD('nothing', 9) getCMD('x', 'nobody') end end)()"));
  EXPECT_TRUE(eventually([&] {
    traffic.take();
    return drovane::RecordPool::inUse() == in_use;
  }));
}

}  // namespace
