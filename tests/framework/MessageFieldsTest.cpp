// Keys, value types and values of message records as text.
#include <gtest/gtest.h>

#include <array>
#include <cfloat>
#include <cmath>
#include <limits>
#include <random>

#include "framework/MessageFields.h"
#include "support/Message.h"

namespace {

template <typename Kind>
struct KindOf;
template <>
struct KindOf<MMData> {
  static constexpr MessageTypes type = MM_DATA;
};
template <>
struct KindOf<MMDataRequest> {
  static constexpr MessageTypes type = MM_DATA_REQUEST;
};
template <>
struct KindOf<MMActuatorRequest> {
  static constexpr MessageTypes type = MM_ACTUATOR_REQUEST;
};

template <typename Kind>
class KeyTest : public testing::Test {
 protected:
  Owned<Kind> msg = newMessage<Kind>(KindOf<Kind>::type);
};
using KindsWithKey = testing::Types<MMData, MMDataRequest, MMActuatorRequest>;
TYPED_TEST_SUITE(KeyTest, KindsWithKey);

TYPED_TEST(KeyTest, ThreeNumbersAreAKey) {
  EXPECT_EQ(this->msg->setKey("7_0_0"), 0);
  EXPECT_EQ(this->msg->network_id, 7U);
  EXPECT_EQ(this->msg->node_id, 0U);
  EXPECT_EQ(this->msg->value_id, 0U);
  EXPECT_EQ(this->msg->getKey(), "7_0_0");
}

TYPED_TEST(KeyTest, ANegativeNumberStaysNegative) {
  EXPECT_EQ(this->msg->setKey("-1_0_-25"), 0);
  EXPECT_EQ(this->msg->network_id, 0xFFFFFFFFU);
  EXPECT_EQ(this->msg->getKey(), "-1_0_-25");
}

TYPED_TEST(KeyTest, TheKeyIsWrittenSigned) {
  this->msg->network_id = static_cast<std::uint32_t>(-1);
  EXPECT_EQ(this->msg->getKey(), "-1_0_0");
}

TYPED_TEST(KeyTest, WhatIsNoKeyIsRefusedAndChangesNothing) {
  ASSERT_EQ(this->msg->setKey("1_2_3"), 0);
  for (const char* text : {"",
                           "7_0",
                           "a_b_c",
                           "7",
                           "_",
                           "__",
                           "7__0",
                           "_7_0",
                           "7_0_",
                           "7_0_0_",
                           "7_0_0_0",
                           " 7_0_0",
                           "7_0_0 ",
                           "7 _0_0",
                           "7_0_0\n",
                           "+7_0_0",
                           "--7_0_0",
                           "-_0_0",
                           "7_0_x",
                           "7_0_0x",
                           "0x7_0_0",
                           "7.0_0_0",
                           "7-0-0",
                           "4294967296_0_0",
                           "0_4294967296_0",
                           "0_0_-2147483649",
                           "99999999999999999999_0_0",
                           "-99999999999999999999_0_0"}) {
    EXPECT_LT(this->msg->setKey(text), 0) << text;
    EXPECT_EQ(this->msg->getKey(), "1_2_3") << text;
  }
  EXPECT_LT(this->msg->setKey(nullptr), 0);
  EXPECT_EQ(this->msg->getKey(), "1_2_3");
}

TYPED_TEST(KeyTest, NumbersUpToTheBordersOf32BitsAreTaken) {
  EXPECT_EQ(this->msg->setKey("2147483647_-2147483648_4294967295"), 0);
  EXPECT_EQ(this->msg->network_id, 0x7FFFFFFFU);
  EXPECT_EQ(this->msg->node_id, 0x80000000U);
  EXPECT_EQ(this->msg->value_id, 0xFFFFFFFFU);
  EXPECT_EQ(this->msg->getKey(), "2147483647_-2147483648_-1");
}

TYPED_TEST(KeyTest, EveryKeyIsReadBackAsItWasWritten) {
  std::mt19937 random(1);
  for (int i = 0; i < 2000; ++i) {
    const auto node = static_cast<std::uint32_t>(random());
    this->msg->network_id = static_cast<std::uint32_t>(random());
    this->msg->node_id = node;
    this->msg->value_id = node % 7;
    const std::string key = this->msg->getKey();
    this->msg->node_id = 0;
    ASSERT_EQ(this->msg->setKey(key.c_str()), 0) << key;
    ASSERT_EQ(this->msg->node_id, node) << key;
  }
}

TYPED_TEST(KeyTest, TheKeyIsCutToTheBuffer) {
  ASSERT_EQ(this->msg->setKey("123_45_6"), 0);
  std::array<char, 512> wide{};
  EXPECT_EQ(this->msg->getKey(wide.data(), 512), 8);
  EXPECT_STREQ(wide.data(), "123_45_6");
  std::array<char, 9> narrow;
  narrow.fill('x');
  EXPECT_EQ(this->msg->getKey(narrow.data(), 4), 3);
  EXPECT_STREQ(narrow.data(), "123");
  EXPECT_EQ(narrow[4], 'x');
  EXPECT_EQ(this->msg->getKey(narrow.data(), 0), 0);
  EXPECT_EQ(narrow[0], '1');
}

TYPED_TEST(KeyTest, ValueTypesHaveTheirNames) {
  EXPECT_EQ(this->msg->setValueType("int"), 0);
  EXPECT_EQ(this->msg->value_type, VAL_INT);
  EXPECT_EQ(this->msg->setValueType("float"), 0);
  EXPECT_EQ(this->msg->value_type, VAL_FLOAT);
  EXPECT_EQ(this->msg->setValueType("string"), 0);
  EXPECT_EQ(this->msg->value_type, VAL_STRING);
}

TYPED_TEST(KeyTest, WhatGetValueTypeYieldsIsAccepted) {
  for (const auto type : {VAL_INT, VAL_FLOAT, VAL_STRING}) {
    this->msg->value_type = type;
    const std::string name = this->msg->getValueType();
    this->msg->value_type = 99;
    EXPECT_EQ(this->msg->setValueType(name.c_str()), 0);
    EXPECT_EQ(this->msg->value_type, type);
  }
}

TYPED_TEST(KeyTest, OtherNamesOfValueTypesAreRefusedAndChangeNothing) {
  this->msg->value_type = VAL_FLOAT;
  for (const char* name : {"", "INT", "Int", "integer", "str", "strings", "float ", " int", "1"})
    EXPECT_LT(this->msg->setValueType(name), 0) << name;
  EXPECT_LT(this->msg->setValueType(nullptr), 0);
  EXPECT_EQ(this->msg->value_type, VAL_FLOAT);
}

TYPED_TEST(KeyTest, TheNameOfTheValueTypeIsCutToTheBuffer) {
  this->msg->value_type = VAL_STRING;
  std::array<char, 512> wide{};
  EXPECT_EQ(this->msg->getValueType(wide.data(), 512), 6);
  EXPECT_STREQ(wide.data(), "string");
  EXPECT_EQ(this->msg->getValueType(wide.data(), 3), 2);
  EXPECT_STREQ(wide.data(), "st");
}

template <typename Kind>
class ValueTest : public KeyTest<Kind> {
 protected:
  int set(ValueTypes type, const char* text) {
    this->msg->value_type = type;
    return this->msg->setValue(text);
  }
};
using KindsWithValue = testing::Types<MMData, MMActuatorRequest>;
TYPED_TEST_SUITE(ValueTest, KindsWithValue);

TYPED_TEST(ValueTest, AnIntIs32BitTwosComplement) {
  EXPECT_EQ(this->set(VAL_INT, "-5"), 0);
  EXPECT_EQ(this->msg->value_i, 0xFFFFFFFBU);
  EXPECT_EQ(this->msg->getValue(), "-5");
  EXPECT_EQ(this->set(VAL_INT, "2147483647"), 0);
  EXPECT_EQ(this->msg->getValue(), "2147483647");
  EXPECT_EQ(this->set(VAL_INT, "-2147483648"), 0);
  EXPECT_EQ(this->msg->getValue(), "-2147483648");
}

TYPED_TEST(ValueTest, WhatIsNoIntIsRefusedAndChangesNothing) {
  ASSERT_EQ(this->set(VAL_INT, "42"), 0);
  for (const char* text : {"", "x", "4 2", " 42", "42 ", "4.2", "1e3", "0x10", "+42", "--42", "-",
                           "2147483648", "-2147483649", "99999999999999999999"}) {
    EXPECT_LT(this->msg->setValue(text), 0) << text;
    EXPECT_EQ(this->msg->getValue(), "42") << text;
  }
  EXPECT_LT(this->msg->setValue(nullptr), 0);
}

TYPED_TEST(ValueTest, AFloatIsWrittenInItsShortestForm) {
  EXPECT_EQ(this->set(VAL_FLOAT, "0.1"), 0);
  EXPECT_EQ(this->msg->value_f, 0.1F);
  EXPECT_EQ(this->msg->getValue(), "0.1");
  EXPECT_EQ(this->set(VAL_FLOAT, "-21.50"), 0);
  EXPECT_EQ(this->msg->getValue(), "-21.5");
  EXPECT_EQ(this->set(VAL_FLOAT, "3"), 0);
  EXPECT_EQ(this->msg->getValue(), "3");
}

TYPED_TEST(ValueTest, EveryFloatIsReadBackAsItWasWritten) {
  std::mt19937 random(2);
  for (int i = 0; i < 2000; ++i) {
    const float value =
        std::ldexp(static_cast<float>(random()), static_cast<int>(random() % 180) - 120);
    this->msg->value_type = VAL_FLOAT;
    this->msg->value_f = value;
    const std::string text = this->msg->getValue();
    this->msg->value_f = 0;
    ASSERT_EQ(this->msg->setValue(text.c_str()), 0) << text;
    ASSERT_EQ(this->msg->value_f, value) << text;
  }
}

TYPED_TEST(ValueTest, TheLargestAndSmallestFloatsAreReadBack) {
  for (const float value : {FLT_MAX, -FLT_MAX, FLT_MIN, std::numeric_limits<float>::denorm_min()}) {
    this->msg->value_type = VAL_FLOAT;
    this->msg->value_f = value;
    const std::string text = this->msg->getValue();
    this->msg->value_f = 0;
    EXPECT_EQ(this->msg->setValue(text.c_str()), 0) << text;
    EXPECT_EQ(this->msg->value_f, value) << text;
  }
}

TYPED_TEST(ValueTest, WhatIsNoFloatIsRefusedAndChangesNothing) {
  ASSERT_EQ(this->set(VAL_FLOAT, "1.5"), 0);
  for (const char* text : {"", "x", "1,5", "1.5 ", " 1.5", "1.5x", "+1.5", "1e99", "."}) {
    EXPECT_LT(this->msg->setValue(text), 0) << text;
    EXPECT_EQ(this->msg->value_f, 1.5F) << text;
  }
}

TYPED_TEST(ValueTest, AStringIsTakenAsItIs) {
  EXPECT_EQ(this->set(VAL_STRING, " T=21 \\n"), 0);
  EXPECT_EQ(this->msg->value_s, " T=21 \\n");
  EXPECT_EQ(this->msg->getValue(), " T=21 \\n");
  EXPECT_EQ(this->set(VAL_STRING, ""), 0);
  EXPECT_EQ(this->msg->getValue(), "");
}

TYPED_TEST(ValueTest, SettingOneValueLeavesTheOthers) {
  ASSERT_EQ(this->set(VAL_INT, "1"), 0);
  ASSERT_EQ(this->set(VAL_FLOAT, "2.5"), 0);
  ASSERT_EQ(this->set(VAL_STRING, "three"), 0);
  EXPECT_EQ(this->msg->value_i, 1U);
  EXPECT_EQ(this->msg->value_f, 2.5F);
  EXPECT_EQ(this->msg->value_s, "three");
}

TYPED_TEST(ValueTest, AValueOfNoTypeCannotBeSet) {
  this->msg->value_type = 3;
  EXPECT_LT(this->msg->setValue("1"), 0);
}

TYPED_TEST(ValueTest, TheValueIsCutToTheBuffer) {
  ASSERT_EQ(this->set(VAL_STRING, "abcdef"), 0);
  std::array<char, 512> buf{};
  EXPECT_EQ(this->msg->getValue(buf.data(), 512), 6);
  EXPECT_STREQ(buf.data(), "abcdef");
  EXPECT_EQ(this->msg->getValue(buf.data(), 4), 3);
  EXPECT_STREQ(buf.data(), "abc");
}

TEST(MessageFieldsTest, NumbersThatAreNoTypeHaveNoName) {
  EXPECT_EQ(drovane::valueTypeName(3), "?");
  EXPECT_EQ(drovane::messageTypeName(7), "?");
  EXPECT_FALSE(drovane::messageTypeFromName("?").has_value());
  EXPECT_FALSE(drovane::valueTypeFromName("?").has_value());
}

}  // namespace
