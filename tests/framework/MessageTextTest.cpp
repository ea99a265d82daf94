// The one-line and the JSON form of message records.
#include <gtest/gtest.h>

#include <array>
#include <cfloat>
#include <limits>
#include <random>

#include "framework/MessageJson.h"
#include "framework/RecordPool.h"
#include "support/LogCapture.h"
#include "support/Message.h"

namespace {

using drovane::Json;
using drovane::jsonLine;

std::string line(RovikMessage& msg) { return jsonLine(Json(msg.toJSON()).get()); }

Owned<RovikMessage> parsed(std::string text) {
  return Owned<RovikMessage>(RovikMessage::create(text.data()));
}

// From the text form and back; "no record" when that does not work.
std::string roundTrip(RovikMessage& msg) {
  const auto copy = parsed(line(msg));
  return copy ? line(*copy) : "no record";
}

Owned<MMData> boilerText() {
  auto data = newText("21.5");
  data->setKey("5_1_0");
  data->src = 5;
  data->src_s = "boiler";
  data->seqnr = 17;
  return data;
}

TEST(MessageTextTest, EachKindHasItsOneLineForm) {
  EXPECT_EQ(boilerText()->toString(), "MM_DATA 5_1_0 = \"21.5\" from 5 boiler to everybody #17");

  auto request = to(7, newMessage<MMDataRequest>(MM_DATA_REQUEST));
  request->setKey("5_1_0");
  request->setValueType("float");
  EXPECT_EQ(request->toString(), "MM_DATA_REQUEST 5_1_0 (float) from 0 to 7 #0");

  auto actuator = to("boiler", newMessage<MMActuatorRequest>(MM_ACTUATOR_REQUEST));
  actuator->value_i = static_cast<std::uint32_t>(-3);
  EXPECT_EQ(actuator->toString(), "MM_ACTUATOR_REQUEST 0_0_0 = -3 from 0 to boiler #0");

  EXPECT_EQ(newCommand("port 7001")->toString(),
            "MM_CMD_REQUEST \"port 7001\" from 0 to everybody #0");
  auto response = newMessage<MMCmdResponse>(MM_CMD_RESPONSE);
  response->rsp = "OK";
  EXPECT_EQ(response->toString(), "MM_CMD_RESPONSE \"OK\" from 0 to everybody #0");
  auto note = newNote("hello");
  note->channel = 2;
  EXPECT_EQ(note->toString(), "MM_MSG channel 2 \"hello\" from 0 to everybody #0");
  EXPECT_EQ(newMessage<RovikMessage>(MM_EMPTY)->toString(), "MM_EMPTY from 0 to everybody #0");
}

TEST(MessageTextTest, TheOneLineFormIsOneLineWhateverTheTexts) {
  const std::string nasty("a\nb\r\x01\0\xff", 7);
  auto data = to(nasty, newText(nasty));
  data->src_s = nasty;
  for (const char byte : data->toString()) {
    EXPECT_GE(byte, 0x20);
    EXPECT_NE(byte, 0x7F);
  }
  EXPECT_NE(data->toString().find("\"a\\nb\\r\\x01\\x00\\xff\""), std::string::npos);
}

TEST(MessageTextTest, TheOneLineFormIsCutToTheBuffer) {
  auto data = newText(std::string(1000, 'x'));
  std::array<char, 512> buf{};
  EXPECT_EQ(data->toString(buf.data(), 512), 511);
  EXPECT_EQ(std::string(buf.data()), data->toString().substr(0, 511));
  EXPECT_EQ(boilerText()->toString(buf.data(), 512), 53);
  EXPECT_STREQ(buf.data(), "MM_DATA 5_1_0 = \"21.5\" from 5 boiler to everybody #17");
  buf[0] = 'x';
  EXPECT_EQ(data->toString(buf.data(), 1), 0);
  EXPECT_EQ(buf[0], '\0');
}

TEST(MessageTextTest, PrintLogsTheOneLineFormAtLevel3) {
  LogCapture log(3);
  auto data = boilerText();
  data->print();
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].level, 3);
  EXPECT_EQ(log.lines()[0].text, data->toString());
}

TEST(MessageTextTest, TheJsonFormHasTheHeaderAndThePayload) {
  EXPECT_EQ(line(*boilerText()),
            R"({"type":"MM_DATA","seqnr":17,"ident":0,"flags":0,"src":5,"src_s":"boiler",)"
            R"("dst":16383,"dst_s":"","last":0,"route":false,"network_type":0,"key":"5_1_0",)"
            R"("tv_sec":0,"tv_usec":0,"value_type":"string","value":"21.5"})");
}

TEST(MessageTextTest, TheHeaderHasAJsonFormOfItsOwn) {
  EXPECT_EQ(jsonLine(Json(boilerText()->headerToJSON()).get()),
            R"({"type":"MM_DATA","seqnr":17,"ident":0,"flags":0,"src":5,"src_s":"boiler",)"
            R"("dst":16383,"dst_s":"","last":0,"route":false})");
}

TEST(MessageTextTest, EveryHeaderFieldSurvivesTheWayThereAndBack) {
  auto msg = newMessage<RovikMessage>(MM_EMPTY);
  msg->seqnr = 0xFFFFFFFF;
  msg->ident = 0x80000000;
  msg->flags = 3;
  msg->src = 4;
  msg->src_s = "from";
  msg->dst = 6;
  msg->dst_s = "to";
  msg->last = 7;
  msg->route = true;
  const auto copy = parsed(line(*msg));
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->seqnr, 0xFFFFFFFFU);
  EXPECT_EQ(copy->ident, 0x80000000U);
  EXPECT_EQ(copy->flags, 3U);
  EXPECT_EQ(copy->src, 4U);
  EXPECT_EQ(copy->src_s, "from");
  EXPECT_EQ(copy->dst, 6U);
  EXPECT_EQ(copy->dst_s, "to");
  EXPECT_EQ(copy->last, 7U);
  EXPECT_TRUE(copy->route);
}

TEST(MessageTextTest, EveryPayloadSurvivesTheWayThereAndBack) {
  auto data = boilerText();
  data->network_type = 9;
  data->tv_sec = 0xFFFFFFFF;
  data->tv_usec = 999999;
  EXPECT_EQ(roundTrip(*data), line(*data));

  auto request = newMessage<MMDataRequest>(MM_DATA_REQUEST);
  request->setKey("-1_2_-3");
  request->value_type = VAL_STRING;
  request->req_op = 4;
  request->from_tv_sec = 5;
  request->from_tv_usec = 6;
  request->to_tv_sec = 7;
  request->to_tv_usec = 8;
  EXPECT_EQ(roundTrip(*request), line(*request));

  auto actuator = newMessage<MMActuatorRequest>(MM_ACTUATOR_REQUEST);
  actuator->setKey("1_2_3");
  actuator->value_i = 0x80000000;
  EXPECT_EQ(roundTrip(*actuator), line(*actuator));
  EXPECT_NE(line(*actuator).find("\"value\":-2147483648"), std::string::npos);

  EXPECT_EQ(roundTrip(*newCommand("a b")), line(*newCommand("a b")));
  auto response = newMessage<MMCmdResponse>(MM_CMD_RESPONSE);
  response->rsp = "ERROR";
  EXPECT_EQ(roundTrip(*response), line(*response));
  auto note = newNote("text");
  note->channel = 0xFFFFFFFF;
  EXPECT_EQ(roundTrip(*note), line(*note));
}

TEST(MessageTextTest, TextsThatAreNoUtf8OrHoldAZeroByteAreWrittenInHexadecimal) {
  EXPECT_NE(line(*newNote(std::string("a\0b", 3))).find("\"msg_hex\":\"610062\""),
            std::string::npos);
  EXPECT_NE(line(*newNote("\xff")).find("\"msg_hex\":\"ff\""), std::string::npos);
  EXPECT_NE(line(*newNote("gr\xc3\xbcn")).find("\"msg\":\"gr\xc3\xbcn\""), std::string::npos);
}

TEST(MessageTextTest, EveryTextSurvivesTheWayThereAndBack) {
  std::mt19937 random(3);
  std::vector<std::string> texts = {
      "",         "\xc3", "\xed\xa0\x80", "\xc0\x80", "\xf5\x80\x80\x80", "\xf4\x8f\xbf\xbf",
      "\"\\\n\t", "_hex", "\x7f",         "\xe2\x82"};
  for (int i = 0; i < 500; ++i) {
    std::string text(random() % 20, ' ');
    for (char& byte : text) byte = static_cast<char>(random());
    texts.push_back(text);
  }
  for (const auto& text : texts) {
    auto data = to(text, newText(text));
    data->src_s = text;
    const auto copy = parsed(line(*data));
    ASSERT_NE(copy, nullptr) << line(*data);
    EXPECT_EQ(static_cast<MMData&>(*copy).value_s, text);
    EXPECT_EQ(copy->src_s, text);
    EXPECT_EQ(copy->dst_s, text);
  }
}

TEST(MessageTextTest, EveryFloatSurvivesTheWayThereAndBack) {
  auto data = newMessage<MMData>(MM_DATA);
  data->value_type = VAL_FLOAT;
  for (const float value :
       {0.0F, 0.1F, -21.5F, 1e10F, FLT_MIN, -FLT_MAX, FLT_MAX,
        std::numeric_limits<float>::denorm_min(), std::numeric_limits<float>::infinity()}) {
    data->value_f = value;
    const auto copy = parsed(line(*data));
    ASSERT_NE(copy, nullptr) << line(*data);
    EXPECT_EQ(static_cast<MMData&>(*copy).value_f, value);
  }
  data->value_f = 0.1F;
  EXPECT_NE(line(*data).find("\"value\":0.1}"), std::string::npos);
}

TEST(MessageTextTest, ANotANumberSurvivesTheWayThereAndBack) {
  auto data = newMessage<MMData>(MM_DATA);
  data->value_type = VAL_FLOAT;
  data->value_f = std::numeric_limits<float>::quiet_NaN();
  const auto copy = parsed(line(*data));
  ASSERT_NE(copy, nullptr) << line(*data);
  EXPECT_NE(static_cast<MMData&>(*copy).value_f, static_cast<MMData&>(*copy).value_f);
}

TEST(MessageTextTest, ARecordIsMadeFromAJsonObjectWhichStaysTheCallers) {
  const Json json(boilerText()->toJSON());
  const std::string before = jsonLine(json.get());
  const Owned<RovikMessage> msg(RovikMessage::create(json.get()));
  ASSERT_NE(msg, nullptr);
  EXPECT_EQ(line(*msg), before);
  EXPECT_EQ(jsonLine(json.get()), before);
}

TEST(MessageTextTest, WhatIsNotGivenIsAsInANewRecord) {
  const auto msg = parsed(R"({"type":"MM_MSG","msg":"hi"})");
  ASSERT_NE(msg, nullptr);
  EXPECT_EQ(msg->dst, NO_DESTINATION);
  EXPECT_EQ(msg->seqnr, 0U);
  EXPECT_EQ(textOf(*msg), "hi");
}

TEST(MessageTextTest, ALineEndBehindTheTextFormIsAccepted) {
  EXPECT_NE(parsed("{\"type\":\"MM_EMPTY\"}\r\n"), nullptr);
}

TEST(MessageTextTest, WhatIsNoTextFormMakesNoRecord) {
  const auto before = drovane::RecordPool::inUse();
  EXPECT_EQ(RovikMessage::create(static_cast<char*>(nullptr)), nullptr);
  EXPECT_EQ(RovikMessage::create(static_cast<cJSON*>(nullptr)), nullptr);
  for (const char* text : {"",
                           "{",
                           "null",
                           "7",
                           "\"MM_DATA\"",
                           "[]",
                           "[\"type\"]",
                           "{}",
                           R"({"type":1})",
                           R"({"type":"MM_NONE"})",
                           R"({"type":"mm_empty"})",
                           R"({"type":"MM_EMPTY"} and more)",
                           R"({"type":"MM_EMPTY","seqnr":"1"})",
                           R"({"type":"MM_EMPTY","seqnr":1.5})",
                           R"({"type":"MM_EMPTY","seqnr":4294967296})",
                           R"({"type":"MM_EMPTY","src_s":5})",
                           R"({"type":"MM_EMPTY","src_s_hex":"6"})",
                           R"({"type":"MM_EMPTY","src_s_hex":"xy"})",
                           R"({"type":"MM_EMPTY","src_s_hex":"-1"})",
                           R"({"type":"MM_MSG"})",
                           R"({"type":"MM_CMD_REQUEST"})",
                           R"({"type":"MM_CMD_RESPONSE","rsp":null})",
                           R"({"type":"MM_DATA","key":"1_2","value_type":"int","value":1})",
                           R"({"type":"MM_DATA","key":"1_2_3","value_type":"integer","value":1})",
                           R"({"type":"MM_DATA","key":"1_2_3","value_type":"int"})",
                           R"({"type":"MM_DATA","key":"1_2_3","value_type":"int","value":"1"})",
                           R"({"type":"MM_DATA","key":"1_2_3","value_type":"int","value":1e10})",
                           R"({"type":"MM_DATA","key":"1_2_3","value_type":"float","value":1e39})",
                           R"({"type":"MM_DATA","key":"1_2_3","value_type":"float"})",
                           R"({"type":"MM_DATA","key":"1_2_3","value_type":"string","value":1})",
                           R"({"type":"MM_DATA","value_type":"int","value":1})",
                           R"({"type":"MM_DATA_REQUEST","key":"1_2_3"})"}) {
    EXPECT_EQ(parsed(text), nullptr) << text;
  }
  EXPECT_EQ(drovane::RecordPool::inUse(), before);
}

}  // namespace
