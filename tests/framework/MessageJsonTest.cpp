// The JSON form of messages at its edges: fields that do not fit, and texts that are almost UTF-8.
#include <gtest/gtest.h>

#include "framework/MessageJson.h"
#include "framework/RecordPool.h"
#include "support/Message.h"

namespace {

using drovane::Json;

Owned<RovikMessage> parsed(const std::string& text) {
  std::string line = text;
  return Owned<RovikMessage>(RovikMessage::create(line.data()));
}

struct Kind {
  const char* name;
  std::string required;  // what makes a whole record, up to the field that is tried
  std::vector<const char*> numbers;
};

class JsonFields : public testing::TestWithParam<Kind> {
 protected:
  static std::string record(const std::string& field) {
    return R"({"type":")" + std::string(GetParam().name) + '"' + GetParam().required + field + '}';
  }
};

TEST_P(JsonFields, EveryNumberIsWholeAndFitsOrTheRecordIsRefused) {
  ASSERT_NE(parsed(record("")), nullptr);
  const auto before = drovane::RecordPool::inUse();
  for (const char* field : GetParam().numbers) {
    const std::string name = ",\"" + std::string(field) + "\":";
    EXPECT_NE(parsed(record(name + "4294967295")), nullptr) << field;
    for (const char* bad : {"4294967296", "1.5", "\"1\"", "true", "null"})
      EXPECT_EQ(parsed(record(name + bad)), nullptr) << field << ' ' << bad;
  }
  EXPECT_EQ(drovane::RecordPool::inUse(), before);
}

TEST_P(JsonFields, EveryTextOfTheHeaderIsATextOrTheRecordIsRefused) {
  for (const char* field : {"src_s", "dst_s"}) {
    EXPECT_EQ(parsed(record(",\"" + std::string(field) + "\":7")), nullptr) << field;
    EXPECT_EQ(parsed(record(",\"" + std::string(field) + "_hex\":\"0g\"")), nullptr) << field;
  }
}

const std::string kIntValue = R"(,"key":"1_2_3","value_type":"int","value":7)";

INSTANTIATE_TEST_SUITE_P(
    MessageJson, JsonFields,
    testing::Values(Kind{"MM_EMPTY", "", {"seqnr", "ident", "flags", "src", "dst", "last"}},
                    Kind{"MM_DATA", kIntValue, {"network_type", "tv_sec", "tv_usec"}},
                    Kind{"MM_DATA_REQUEST",
                         R"(,"key":"1_2_3","value_type":"int")",
                         {"req_op", "from_tv_sec", "from_tv_usec", "to_tv_sec", "to_tv_usec"}},
                    Kind{"MM_ACTUATOR_REQUEST", kIntValue, {"seqnr"}},
                    Kind{"MM_MSG", R"(,"msg":"x")", {"channel"}}),
    [](const auto& each) { return each.param.name; });

TEST(MessageJson, ARequestNeedsItsKeyItsTypeAndItsValue) {
  for (const char* fields :
       {R"("value_type":"int","value":7)", R"("key":"1_2_3","value":7)",
        R"("key":"1_2_3","value_type":"int")", R"("key":7,"value_type":"int","value":7)",
        R"("key":"1_2_3","value_type":7,"value":7)"})
    EXPECT_EQ(parsed(R"({"type":"MM_ACTUATOR_REQUEST",)" + std::string(fields) + '}'), nullptr)
        << fields;
}

TEST(MessageJson, ATextNeedsItsText) {
  EXPECT_EQ(parsed(R"({"type":"MM_MSG","channel":1})"), nullptr);
}

// The text itself, or its bytes in hexadecimal.
std::string formOf(const std::string& text) {
  const Json json(cJSON_CreateObject());
  drovane::addText(json.get(), "t", text);
  return drovane::jsonLine(json.get());
}

TEST(MessageJson, OnlyWellFormedUtf8IsWrittenAsText) {
  for (const char* text : {"\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
                           "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"})
    EXPECT_EQ(formOf(text), "{\"t\":\"" + std::string(text) + "\"}");
}

TEST(MessageJson, WhatIsAlmostUtf8IsWrittenInHexadecimal) {
  struct Case {
    const char* bytes;
    const char* hex;
  };
  for (const Case& each : {Case{"\xc1\xbf", "c1bf"},              // overlong
                           Case{"\xe0\x9f\xbf", "e09fbf"},        // overlong
                           Case{"\xf0\x8f\xbf\xbf", "f08fbfbf"},  // overlong
                           Case{"\xed\xa0\x80", "eda080"},        // a surrogate
                           Case{"\xf4\x90\x80\x80", "f4908080"},  // above U+10FFFF
                           Case{"\xf5\x80\x80\x80", "f5808080"},  // above U+10FFFF
                           Case{"\xe2\x82", "e282"},              // cut off
                           Case{"\xe2\x82\x28", "e28228"}, Case{"\x80", "80"}})
    EXPECT_EQ(formOf(each.bytes), "{\"t_hex\":\"" + std::string(each.hex) + "\"}");
}

// As when there was no memory to make it.
TEST(MessageJson, NothingIsAnEmptyLine) { EXPECT_EQ(drovane::jsonLine(nullptr), ""); }

}  // namespace
