// The line that "drovane watch" shows for each kind of message.
#include <gtest/gtest.h>

#include "drovane/MessageText.h"
#include "framework/MessageJson.h"

namespace {

using drovane::Json;
using drovane::messageText;

std::string lineOf(const std::string& fields, bool colours = false) {
  const Json json(
      cJSON_Parse((R"({"time":"2026-01-02T03:04:05.678+01:00","src":5,)" + fields + "}").c_str()));
  return messageText(json.get(), {{5, "boiler"}, {6, "lamp"}}, colours);
}

TEST(MessageLine, EachKindHasItsWordAndItsPayload) {
  const std::string head = "03:04:05.678 boiler(5) -> everybody ";
  EXPECT_EQ(lineOf(R"("type":"MM_EMPTY")"), head + "empty ");
  EXPECT_EQ(lineOf(R"("type":"MM_DATA","key":"5_1_0","value_type":"float","value":21.5)"),
            head + "data 5_1_0 = 21.5");
  EXPECT_EQ(lineOf(R"("type":"MM_DATA_REQUEST","key":"5_1_0","value_type":"int")"),
            head + "data request 5_1_0 (int)");
  EXPECT_EQ(lineOf(R"("type":"MM_ACTUATOR_REQUEST","key":"5_1_0","value_type":"string",)"
                   R"("value":"on\t")"),
            head + R"(actuator 5_1_0 = "on\t")");
  EXPECT_EQ(lineOf(R"("type":"MM_CMD_REQUEST","cmd":"close\n")"), head + R"(command close\n)");
  EXPECT_EQ(lineOf(R"("type":"MM_CMD_RESPONSE","rsp":"OK\u001b")"), head + R"(response OK\x1b)");
  EXPECT_EQ(lineOf(R"("type":"MM_MSG","channel":3,"msg":"hello")"), head + "text channel 3: hello");
}

TEST(MessageLine, TheWordIsColoured) {
  EXPECT_EQ(lineOf(R"("type":"MM_MSG","msg":"hello")", true),
            "03:04:05.678 boiler(5) -> everybody \033[37mtext\033[0m channel 0: hello");
}

TEST(MessageLine, NamesWhoGetsIt) {
  EXPECT_EQ(lineOf(R"("type":"MM_EMPTY","dst":6)"), "03:04:05.678 boiler(5) -> lamp(6) empty ");
  EXPECT_EQ(lineOf(R"("type":"MM_EMPTY","dst":7)"), "03:04:05.678 boiler(5) -> 7 empty ");
  EXPECT_EQ(lineOf(R"("type":"MM_EMPTY","dst_s":"la\u0007mp")"),
            R"(03:04:05.678 boiler(5) -> la\x07mp empty )");
}

TEST(MessageLine, ASenderThatTheStatusDoesNotKnowNamesItself) {
  const Json json(cJSON_Parse(R"({"type":"MM_EMPTY","src":9,"src_s":"ne\u0007w"})"));
  EXPECT_EQ(messageText(json.get(), {}, false), R"( ne\x07w(9) -> everybody empty )");
}

TEST(MessageLine, ATimeInAnotherFormIsShownAsItIs) {
  const Json json(cJSON_Parse(R"({"type":"MM_EMPTY","src":9,"time":"now\u0007"})"));
  EXPECT_EQ(messageText(json.get(), {}, false), R"(now\x07 9 -> everybody empty )");
}

TEST(MessageLine, WhatIsNoMessageIsSaidToBeNone) {
  EXPECT_EQ(messageText(nullptr, {}, false), "a message of an unknown kind");
  EXPECT_EQ(lineOf(R"("type":"MM_FUTURE")"), "a message of an unknown kind");
}

}  // namespace
