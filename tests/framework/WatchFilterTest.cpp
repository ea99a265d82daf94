// Which messages a filter lets through.
#include <gtest/gtest.h>

#include "framework/WatchFilter.h"
#include "support/Message.h"

namespace {

using drovane::WatchFilter;

Owned<MMData> dataFrom(std::uint32_t src, const char* key) {
  auto data = newMessage<MMData>(MM_DATA);
  data->src = src;
  data->setKey(key);
  return data;
}

TEST(WatchFilterTest, WithoutAnyWishEverythingPasses) {
  EXPECT_TRUE(WatchFilter{}.passes(*dataFrom(5, "5_1_0")));
  EXPECT_TRUE(WatchFilter{}.passes(*newNote("text")));
}

TEST(WatchFilterTest, ARovikIsMeantAsSenderAndAsReceiver) {
  const WatchFilter filter{{{5, "boiler"}}, {}, {}};
  const auto msg = dataFrom(5, "5_1_0");
  EXPECT_TRUE(filter.passes(*msg));
  msg->src = 6;
  EXPECT_FALSE(filter.passes(*msg));
  msg->dst = 5;
  EXPECT_TRUE(filter.passes(*msg));
  msg->dst = NO_DESTINATION;
  msg->dst_s = "boiler";
  EXPECT_TRUE(filter.passes(*msg));
  msg->dst_s = "lamp";
  EXPECT_FALSE(filter.passes(*msg));
}

TEST(WatchFilterTest, AMessageToEverybodyIsNotMeantForOne) {
  EXPECT_FALSE((WatchFilter{{{5, "boiler"}}, {}, {}}.passes(*dataFrom(6, "5_1_0"))));
}

TEST(WatchFilterTest, OneOfTheKindsIsEnough) {
  const WatchFilter filter{{}, {MM_DATA, MM_CMD_REQUEST}, {}};
  EXPECT_TRUE(filter.passes(*dataFrom(5, "5_1_0")));
  EXPECT_FALSE(filter.passes(*newNote("text")));
}

TEST(WatchFilterTest, AKeyMayMatchAPattern) {
  const WatchFilter filter{{}, {}, {"5_*", "*_9_0"}};
  EXPECT_TRUE(filter.passes(*dataFrom(5, "5_1_0")));
  EXPECT_TRUE(filter.passes(*dataFrom(5, "7_9_0")));
  EXPECT_FALSE(filter.passes(*dataFrom(5, "7_1_0")));
  EXPECT_FALSE(filter.passes(*dataFrom(5, "55_1_0")));
}

TEST(WatchFilterTest, RequestsHaveKeysTooAndOtherKindsHaveNone) {
  const WatchFilter filter{{}, {}, {"5_1_0"}};
  const auto request = newMessage<MMDataRequest>(MM_DATA_REQUEST);
  request->setKey("5_1_0");
  EXPECT_TRUE(filter.passes(*request));
  const auto actuator = newMessage<MMActuatorRequest>(MM_ACTUATOR_REQUEST);
  actuator->setKey("5_1_0");
  EXPECT_TRUE(filter.passes(*actuator));
  EXPECT_FALSE(filter.passes(*newNote("5_1_0")));
  EXPECT_FALSE((WatchFilter{{}, {}, {"*"}}.passes(*newNote("text"))));
}

TEST(WatchFilterTest, AMessageHasToPassAllThree) {
  const WatchFilter filter{{{5, "boiler"}}, {MM_DATA}, {"5_*"}};
  EXPECT_TRUE(filter.passes(*dataFrom(5, "5_1_0")));
  EXPECT_FALSE(filter.passes(*dataFrom(6, "5_1_0")));
  EXPECT_FALSE(filter.passes(*dataFrom(5, "6_1_0")));
}

}  // namespace
