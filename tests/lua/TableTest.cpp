// Messages as tables, and tables as messages.
#include <gtest/gtest.h>

#include <array>
#include <ctime>

#include "ScriptTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t kBig = 4'000'000'000;  // above 2^31: stays positive

// Lists the fields of a table, sorted by name.
constexpr const char* kListing = R"(
function listing(t)
  local names, all = {}, {}
  for name in pairs(t) do names[#names + 1] = name end
  table.sort(names)
  for _, name in ipairs(names) do
    local value = t[name]
    if type(value) == 'number' then value = string.format('%.14g', value) else
      value = string.format('%q', value) end
    all[#all + 1] = name .. '=' .. value
  end
  return table.concat(all, ' ')
end
function ROVIK_RCV(msg) seen = listing(msg) return 1 end
)";

class PushTest : public ScriptTest {
 protected:
  void SetUp() override { script(kListing); }

  // What ROVIK_RCV is given.
  std::string pushed(RovikMessage& msg) {
    lua("seen = nil");
    net->selectMM(&msg);
    return lua("return seen");
  }

  template <typename Kind>
  static void fillHeader(Kind& msg) {
    msg.seqnr = kBig;
    msg.src = 16382;
    msg.src_s = "cli";
    msg.ident = 7;
    msg.flags = kBig + 1;
    msg.dst = 5;
    msg.dst_s = "net";
  }
};

TEST_F(PushTest, AnIntValueHasEveryFieldOfItsKind) {
  const auto data = newMessage<MMData>(MM_DATA);
  fillHeader(*data);
  data->network_type = 3;
  data->setKey("5_-1_2000000000");
  data->value_i = static_cast<std::uint32_t>(-5);
  data->tv_sec = kBig;
  data->tv_usec = 999999;
  EXPECT_EQ(
      "flags=4000000001 ident=7 key=\"5_-1_2000000000\" network_id=5 node_id=-1 seqnr=4000000000 "
      "src=16382 tv_sec=4000000000 tv_usec=999999 type=\"MM_DATA\" value=-5 value_id=2000000000 "
      "value_type=\"int\"",
      pushed(*data));
}

TEST_F(PushTest, AFloatIsWidened) {
  const auto data = newMessage<MMData>(MM_DATA);
  data->value_type = VAL_FLOAT;
  data->value_f = 0.1F;
  EXPECT_EQ(
      "flags=0 ident=0 key=\"0_0_0\" network_id=0 node_id=0 seqnr=0 src=0 tv_sec=0 tv_usec=0 "
      "type=\"MM_DATA\" value=0.10000000149012 value_id=0 value_type=\"float\"",
      pushed(*data));
}

TEST_F(PushTest, ATextEndsAtItsFirstZeroByte) {
  const auto data = newText(std::string("ab\0cd", 5));
  net->selectMM(data.get());
  EXPECT_NE(std::string::npos, pushed(*data).find("value=\"ab\" "));
}

TEST_F(PushTest, ADataRequestHasNoValueAndNoTimes) {
  const auto request = newMessage<MMDataRequest>(MM_DATA_REQUEST);
  fillHeader(*request);
  request->setKey("9_1_0");
  request->value_type = VAL_STRING;
  request->req_op = 1;
  request->from_tv_sec = 5;
  request->to_tv_sec = 6;
  EXPECT_EQ(
      "flags=4000000001 ident=7 key=\"9_1_0\" network_id=9 node_id=1 seqnr=4000000000 "
      "src=16382 type=\"MM_DATA_REQUEST\" value_id=0 value_type=\"string\"",
      pushed(*request));
}

TEST_F(PushTest, AnActuatorRequestHasAValue) {
  const auto request = newMessage<MMActuatorRequest>(MM_ACTUATOR_REQUEST);
  fillHeader(*request);
  request->setKey("9_1_0");
  request->value_type = VAL_STRING;
  request->value_s = "ON";
  EXPECT_EQ(
      "flags=4000000001 ident=7 key=\"9_1_0\" network_id=9 node_id=1 seqnr=4000000000 "
      "src=16382 type=\"MM_ACTUATOR_REQUEST\" value=\"ON\" value_id=0 value_type=\"string\"",
      pushed(*request));
}

TEST_F(PushTest, ACommandItsResponseAndANoteHaveTheirTexts) {
  const auto command = newCommand("open now");
  fillHeader(*command);
  EXPECT_EQ(
      "cmd=\"open now\" flags=4000000001 ident=7 seqnr=4000000000 src=16382 "
      "type=\"MM_CMD_REQUEST\"",
      pushed(*command));
  const auto response = newMessage<MMCmdResponse>(MM_CMD_RESPONSE);
  fillHeader(*response);
  response->rsp = "OK";
  EXPECT_EQ(
      "flags=4000000001 ident=7 rsp=\"OK\" seqnr=4000000000 src=16382 "
      "type=\"MM_CMD_RESPONSE\"",
      pushed(*response));
  const auto note = newNote("hello");
  fillHeader(*note);
  note->channel = static_cast<std::uint32_t>(-2);
  EXPECT_EQ(
      "channel=-2 flags=4000000001 ident=7 msg=\"hello\" seqnr=4000000000 src=16382 "
      "type=\"MM_MSG\"",
      pushed(*note));
}

TEST_F(PushTest, RcvIsCalledWithOneTableAndNothingElse) {
  lua("function ROVIK_RCV(...) seen = select('#', ...) .. type((...)) return 1 end");
  EXPECT_EQ("1table", pushed(*newNote("x")));
}

TEST_F(PushTest, AMessageWithoutAKindIsReportedAndNotShown) {
  const auto empty = newMessage<RovikMessage>(MM_EMPTY);
  EXPECT_EQ("nil", pushed(*empty));
  EXPECT_THAT(newLines(), ElementsAre("2 lua function error: push message"));
  EXPECT_EQ("lua function error: push message", warning());
  EXPECT_EQ(0, height());
}

TEST_F(PushTest, WithoutAStateNothingIsPushed) {
  const auto note = newNote("x");
  EXPECT_EQ(-1, net->pushRovikMessage(nullptr, note.get()));
  EXPECT_THAT(newLines(), ElementsAre("4 LUA: lua state invalid"));
  EXPECT_EQ(-1, net->pushRovikMessage(net->lua_state, newMessage<RovikMessage>(MM_EMPTY).get()));
  EXPECT_THAT(newLines(), IsEmpty());
}

TEST_F(PushTest, ExactlyOneTableIsPushed) {
  const auto note = newNote("x");
  EXPECT_EQ(0, net->pushRovikMessage(net->lua_state, note.get()));
  EXPECT_EQ(1, height());
  EXPECT_TRUE(lua_istable(net->lua_state, 1));
}

class ReadTest : public ScriptTest {
 protected:
  void SetUp() override { script(""); }

  // The message that a table describes; null when it describes none. The stack stays as it is.
  template <typename Kind>
  Owned<Kind> read(const std::string& table) {
    lua_State* const L = net->lua_state;
    lua_settop(L, 0);
    EXPECT_EQ(LUA_OK, luaL_loadbuffer(L, ("return " + table).data(), table.size() + 7, "t"));
    EXPECT_EQ(LUA_OK, lua_pcall(L, 0, 1, 0));
    Owned<Kind> msg(static_cast<Kind*>(net->processMM(L)));
    EXPECT_EQ(1, height());
    lua_settop(L, 0);
    return msg;
  }

  void expectRefused(const std::string& table, const Texts& lines) {
    EXPECT_EQ(nullptr, read<RovikMessage>(table)) << table;
    EXPECT_EQ(lines, newLines()) << table;
  }
};

TEST_F(ReadTest, EveryFieldOfAValue) {
  const auto data = read<MMData>(
      "{type='MM_DATA', network_type=3, seqnr=4000000000, ident=7, flags=4000000001, src=9, "
      "key='5_-1_0', value_type='int', value=-5, network_id=1, node_id=1, value_id=1, tv_sec=1, "
      "tv_usec=1, dst=1, dst_s='x', src_s='x'}");
  ASSERT_NE(nullptr, data);
  EXPECT_EQ(static_cast<std::uint32_t>(MM_DATA), data->type);
  EXPECT_EQ(3U, data->network_type);
  EXPECT_EQ(kBig, data->seqnr);
  EXPECT_EQ(7U, data->ident);
  EXPECT_EQ(kBig + 1, data->flags);
  EXPECT_EQ(9U, data->src);
  EXPECT_EQ("5_-1_0", data->getKey());
  EXPECT_EQ(static_cast<std::uint32_t>(-5), data->value_i);
  // Never read: the key says it, the framework stamps it, or the call says it.
  EXPECT_EQ(0U, data->tv_sec);
  EXPECT_EQ(0U, data->tv_usec);
  EXPECT_EQ(NO_DESTINATION, data->dst);
  EXPECT_EQ("", data->dst_s);
  EXPECT_EQ("", data->src_s);
}

TEST_F(ReadTest, AnIntLosesWhatIsBehindThePointAndKeeps32Bits) {
  const auto value = [this](const std::string& number) {
    const auto data =
        read<MMData>("{type='MM_DATA', key='5_1_0', value_type='int', value=" + number + "}");
    return static_cast<std::int32_t>(data->value_i);
  };
  EXPECT_EQ(3, value("3.7"));
  EXPECT_EQ(-3, value("-3.7"));
  EXPECT_EQ(-5, value("-5"));
  EXPECT_EQ(-1, value("4294967295"));
  EXPECT_EQ(1, value("4294967297"));
  EXPECT_EQ(INT32_MIN, value("2147483648"));
  EXPECT_EQ(12, value("'12'"));
  EXPECT_EQ(0, value("0/0"));
  EXPECT_EQ(0, value("math.huge"));
  EXPECT_EQ(0, value("-1e300"));
}

TEST_F(ReadTest, TextsKeepTheirZeroBytesAndNumbersBecomeTexts) {
  EXPECT_EQ(
      std::string("a\0b", 3),
      read<MMData>("{type='MM_DATA', key='5_1_0', value_type='string', value='a\\0b'}")->value_s);
  EXPECT_EQ("42",
            read<MMData>("{type='MM_DATA', key='5_1_0', value_type='string', value=42}")->value_s);
}

TEST_F(ReadTest, AFloatIsNarrowed) {
  EXPECT_EQ(0.1F,
            read<MMData>("{type='MM_DATA', key='5_1_0', value_type='float', value=0.1}")->value_f);
  EXPECT_EQ(
      2.5F,
      read<MMData>("{type='MM_DATA', key='5_1_0', value_type='float', value='2.5'}")->value_f);
}

TEST_F(ReadTest, AnActuatorRequest) {
  const auto request = read<MMActuatorRequest>(
      "{type='MM_ACTUATOR_REQUEST', seqnr=1, ident=2, flags=3, src=4, key='5_1_0', "
      "value_type='string', value='ON'}");
  EXPECT_EQ("5_1_0", request->getKey());
  EXPECT_EQ("ON", request->value_s);
  EXPECT_EQ(1U, request->seqnr);
  EXPECT_EQ(2U, request->ident);
  EXPECT_EQ(3U, request->flags);
  EXPECT_EQ(4U, request->src);
}

TEST_F(ReadTest, ADataRequestWithoutAnOperationKeepsItsTimesAndFlags) {
  for (const char* op : {"", "req_op=0,", "req_op='x',", "req_op=0.9,"}) {
    const auto request = read<MMDataRequest>(
        std::string("{type='MM_DATA_REQUEST', flags=6, key='5_1_0', value_type='int', ") + op +
        "from_tv_sec=1, to_tv_sec=2}");
    EXPECT_EQ(6U, request->flags);
    EXPECT_EQ(0U, request->req_op);
    EXPECT_EQ(0U, request->from_tv_sec);
    EXPECT_EQ(0U, request->to_tv_sec);
  }
}

TEST_F(ReadTest, ARequestForRecordedValuesReachesOneDayBackFromNow) {
  const auto before = static_cast<std::uint32_t>(std::time(nullptr));
  const auto request = read<MMDataRequest>(
      "{type='MM_DATA_REQUEST', flags=6, key='5_1_0', value_type='int', req_op=1}");
  EXPECT_EQ(7U, request->flags);
  EXPECT_EQ(1U, request->req_op);
  EXPECT_GE(request->to_tv_sec, before);
  EXPECT_LE(request->to_tv_sec, before + 60);
  EXPECT_EQ(request->to_tv_sec - 86400, request->from_tv_sec);
  EXPECT_EQ(0U, request->from_tv_usec);
  EXPECT_EQ(0U, request->to_tv_usec);
}

TEST_F(ReadTest, OnlyWhatIsMissingInARangeIsCompleted) {
  const std::string head = "{type='MM_DATA_REQUEST', key='5_1_0', value_type='int', req_op=2, ";
  const auto begun = read<MMDataRequest>(head + "from_tv_sec=1000}");
  EXPECT_EQ(1000U, begun->from_tv_sec);
  EXPECT_GT(begun->to_tv_sec, 1'700'000'000U);
  const auto ended = read<MMDataRequest>(head + "to_tv_sec=4000000000}");
  EXPECT_EQ(kBig, ended->to_tv_sec);
  EXPECT_EQ(kBig - 86400, ended->from_tv_sec);
  const auto both = read<MMDataRequest>(head + "from_tv_sec='5', to_tv_sec=6}");
  EXPECT_EQ(5U, both->from_tv_sec);
  EXPECT_EQ(6U, both->to_tv_sec);
}

TEST_F(ReadTest, CommandsResponsesAndNotesReadTheirTextAndNoHeader) {
  const std::string header = "seqnr=1, ident=2, flags=3, src=4, ";
  const auto command = read<MMCmdRequest>("{type='MM_CMD_REQUEST', " + header + "cmd='open'}");
  EXPECT_EQ("open", command->cmd);
  const auto response = read<MMCmdResponse>("{type='MM_CMD_RESPONSE', " + header + "rsp='OK'}");
  EXPECT_EQ("OK", response->rsp);
  const auto note = read<MMMsg>("{type='MM_MSG', " + header + "channel=-2, msg='hello'}");
  EXPECT_EQ("hello", note->msg);
  EXPECT_EQ(static_cast<std::uint32_t>(-2), note->channel);
  const std::array<const RovikMessage*, 3> all = {command.get(), response.get(), note.get()};
  for (const RovikMessage* msg : all) {
    EXPECT_EQ(0U, msg->seqnr + msg->ident + msg->flags + msg->src);
  }
}

TEST_F(ReadTest, TheirFieldsMayBeMissingOrOfAnotherType) {
  EXPECT_EQ("", read<MMCmdRequest>("{type='MM_CMD_REQUEST', cmd={}}")->cmd);
  EXPECT_EQ("", read<MMCmdResponse>("{type='MM_CMD_RESPONSE', rsp=true}")->rsp);
  const auto note = read<MMMsg>("{type='MM_MSG', channel='x'}");
  EXPECT_EQ("", note->msg);
  EXPECT_EQ(0U, note->channel);
  EXPECT_EQ("7", read<MMMsg>("{type='MM_MSG', msg=7}")->msg);
}

TEST_F(ReadTest, HeaderFieldsOfAnotherTypeAreLeftAlone) {
  const auto data = read<MMData>(
      "{type='MM_DATA', seqnr='x', ident={}, flags=true, src='9', "
      "network_type=false, key='5_1_0', value_type='int', value=1}");
  EXPECT_EQ(0U, data->seqnr + data->ident + data->flags + data->network_type);
  EXPECT_EQ(9U, data->src);
}

TEST_F(ReadTest, WithoutATypeThereIsNoMessage) {
  for (const char* table : {"{}", "{type={}}", "{type=true}"})
    expectRefused(table, {"4 LUA: could not create message from lua table (type=?)"});
}

TEST_F(ReadTest, AnUnknownTypeIsNoMessage) {
  for (const char* table :
       {"{type='mm_data'}", "{type='MM_EMPTY'}", "{type='MM_DATA '}", "{type=''}", "{type=1}"})
    expectRefused(table, {"4 LUA: unknown message type"});
}

TEST_F(ReadTest, AValueNeedsItsKeyItsTypeAndAFittingValue) {
  const Texts refusal = {
      "4 LUA: could not create message from lua table (key=?, value_type=?, value=?)"};
  for (const std::string type : {"MM_DATA", "MM_ACTUATOR_REQUEST"}) {
    for (const char* rest :
         {"", "key='5_1'", "key='5_1_0'", "key={}, value_type='int', value=1",
          "key='5_1_0', value_type='INT', value=1", "key='5_1_0', value_type=0, value=1",
          "key='5_1_0', value_type='int'", "key='5_1_0', value_type='int', value='x'",
          "key='5_1_0', value_type='float', value={}",
          "key='5_1_0', value_type='string', value=true", "value_type='int', value=1",
          "key='5_1_0', value=1"})
      expectRefused("{type='" + type + "', " + rest + "}", refusal);
  }
}

TEST_F(ReadTest, ADataRequestNeedsItsKeyAndType) {
  for (const char* rest : {"", "key='x', value_type='int'", "key='5_1_0'", "value_type='int'",
                           "key='5_1_0', value_type='x'"})
    expectRefused("{type='MM_DATA_REQUEST', " + std::string(rest) + "}",
                  {"4 LUA: could not create message from lua table (key=?, value_type=?)"});
}

TEST_F(ReadTest, ARefusedTableIsNoWarning) {
  for (const char* table : {"{}", "{type='x'}", "{type='MM_DATA'}", "{type='MM_DATA_REQUEST'}"})
    EXPECT_EQ(nullptr, read<RovikMessage>(table)) << table;
  EXPECT_EQ("", warning());
}

// The fields of the table that are asked for, in order; the table has those of `fields`.
std::string askedFor(ScriptRovik& net, const std::string& fields) {
  lua_State* const L = net.lua_state;
  EXPECT_EQ(LUA_OK, luaL_loadstring(L, ("asked = '' return setmetatable({}, {__index = function(_, "
                                        "name) asked = asked .. name .. ' ' return (" +
                                        fields + ")[name] end})")
                                           .c_str()));
  EXPECT_EQ(LUA_OK, lua_pcall(L, 0, 1, 0));
  const Owned<RovikMessage> msg(net.processMM(L));
  lua_getglobal(L, "asked");
  const std::string asked = lua_tostring(L, -1);
  lua_settop(L, 0);
  return asked;
}

TEST_F(ReadTest, FieldsAreReadInTheirOrder) {
  const std::string value = ", key='5_1_0', value_type='int', value=1, req_op=1}";
  EXPECT_EQ("type network_type seqnr ident flags src key value_type value ",
            askedFor(*net, "{type='MM_DATA'" + value));
  EXPECT_EQ("type seqnr ident flags src key value_type req_op from_tv_sec to_tv_sec ",
            askedFor(*net, "{type='MM_DATA_REQUEST'" + value));
  EXPECT_EQ("type seqnr ident flags src key value_type value ",
            askedFor(*net, "{type='MM_ACTUATOR_REQUEST'" + value));
  EXPECT_EQ("type cmd ", askedFor(*net, "{type='MM_CMD_REQUEST'}"));
  EXPECT_EQ("type rsp ", askedFor(*net, "{type='MM_CMD_RESPONSE'}"));
  EXPECT_EQ("type channel msg ", askedFor(*net, "{type='MM_MSG'}"));
}

TEST_F(ReadTest, NothingIsReadBehindTheFirstFieldThatDoesNotFit) {
  EXPECT_EQ("type ", askedFor(*net, "{type='mm_data'}"));
  EXPECT_EQ("type network_type seqnr ident flags src key ", askedFor(*net, "{type='MM_DATA'}"));
  EXPECT_EQ("type seqnr ident flags src key value_type ",
            askedFor(*net, "{type='MM_DATA_REQUEST', key='5_1_0', value_type='x'}"));
  EXPECT_EQ("type seqnr ident flags src key value_type req_op ",
            askedFor(*net, "{type='MM_DATA_REQUEST', key='5_1_0', value_type='int'}"));
}

TEST_F(ReadTest, FieldsThatAMetatableSuppliesCount) {
  const auto data = read<MMData>(
      "setmetatable({}, {__index = {type='MM_DATA', key='5_1_0', "
      "value_type='int', value=4}})");
  EXPECT_EQ(4U, data->value_i);
}

TEST_F(ReadTest, ATableThatWasPushedComesBackAsTheSameValue) {
  const auto data = newMessage<MMData>(MM_DATA);
  data->seqnr = kBig;
  data->src = 9;
  data->ident = 1;
  data->flags = 2;
  data->setKey("5_-1_2147483647");
  data->value_type = VAL_FLOAT;
  data->value_f = -0.1F;
  data->network_type = 3;
  data->tv_sec = 4;
  lua_State* const L = net->lua_state;
  ASSERT_EQ(0, net->pushRovikMessage(L, data.get()));
  const Owned<MMData> back(static_cast<MMData*>(net->processMM(L)));
  ASSERT_NE(nullptr, back);
  data->network_type = 0;
  data->tv_sec = 0;
  EXPECT_EQ(data->toString(), back->toString());
  EXPECT_EQ(data->flags, back->flags);
  EXPECT_EQ(data->ident, back->ident);
  EXPECT_EQ(data->value_f, back->value_f);
  EXPECT_EQ(data->tv_sec, back->tv_sec);
  EXPECT_EQ(data->network_type, back->network_type);
}

}  // namespace
