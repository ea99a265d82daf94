// In which slot a rovik is, seen from outside.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "framework/Busy.h"
#include "framework/Clock.h"
#include "support/Eventually.h"
#include "support/Message.h"
#include "support/SocketPair.h"
#include "support/TestRovik.h"

namespace {

namespace Clock = drovane::Clock;

// Moments are exact to one tick of the kernel's clock; some have one of 10 ms.
constexpr std::int64_t kTick = 20'000'000;

std::string slotOf(TestRovik& rovik) {
  const auto busy = rovik.host().busy();
  return busy ? busy->slot : "none";
}

bool comesBack(TestRovik& rovik) {
  return eventually([&] { return slotOf(rovik) == "none"; });
}

class RovikBusyTest : public testing::Test {
 protected:
  // Lets the slot that has just been entered go on, after it was seen.
  void expectSlot(const std::string& name) {
    ASSERT_TRUE(gate.waitForVisitor());
    EXPECT_EQ(slotOf(*rovik), name);
    gate.open();
    EXPECT_TRUE(comesBack(*rovik));
  }

  Gate gate;
  const std::unique_ptr<TestRovik> rovik = TestRovik::make(1, "boiler");
};

TEST_F(RovikBusyTest, ARovikThatWaitsForEventsIsInNoSlot) {
  EXPECT_EQ(slotOf(*rovik), "none");
  rovik->run();
  EXPECT_EQ(rovik->command({"go"}), "OK");
  EXPECT_TRUE(comesBack(*rovik));
  EXPECT_FALSE(rovik->host().status().busy.has_value());
}

TEST_F(RovikBusyTest, TheSlotOfTheLinkIsNamed) {
  SocketPair pair;
  rovik->fd = pair.near.get();
  rovik->on_link = [&] {
    gate.pass();
    rovik->fd = -1;
  };
  rovik->run();
  ASSERT_TRUE(pair.send("x"));
  expectSlot("selectFD");
}

TEST_F(RovikBusyTest, TheSlotOfMessagesIsNamed) {
  rovik->on_message = [&](RovikMessage*) { gate.pass(); };
  rovik->run();
  rovik->messageSnd(to(1, newNote("go")).get());
  expectSlot("selectMM");
}

TEST_F(RovikBusyTest, TheSlotOfTheTimerIsNamed) {
  rovik->on_timer = [&] { gate.pass(); };
  rovik->run();
  EXPECT_EQ(rovik->command({"go"}), "OK");  // the timer is armed by now
  rovik->passTime(40);
  expectSlot("selectTI");
}

TEST_F(RovikBusyTest, TheSlotOfCommandsIsNamed) {
  rovik->on_command = [&](const Words&) {
    gate.pass();
    return "OK";
  };
  rovik->run();
  ASSERT_TRUE(rovik->host().post(
      std::make_shared<drovane::Command>(Words{"go"}, [](const drovane::CommandResult&) {})));
  expectSlot("interpretCmd");
}

TEST_F(RovikBusyTest, TheDescriptionIsASlotToo) {
  bool first = true;
  rovik->on_description = [&](cJSON*) {
    if (!std::exchange(first, false)) gate.pass();
  };
  rovik->run();
  ASSERT_TRUE(eventually([&] { return rovik->host().status().description == "{}"; }));
  ASSERT_TRUE(rovik->host().post(
      std::make_shared<drovane::Command>(Words{"go"}, [](const drovane::CommandResult&) {})));
  expectSlot("getDescription");
}

TEST_F(RovikBusyTest, ACommandBeforeTheLoopIsInItsSlotToo) {
  rovik->on_command = [&](const Words&) {
    gate.pass();
    return "OK";
  };
  ASSERT_EQ(rovik->host().start([&] { return rovik->command({"go"}) == "OK"; }), 0);
  expectSlot("interpretCmd");
}

TEST_F(RovikBusyTest, TheTimeInASlotBeginsWithTheSlot) {
  rovik->on_message = [&](RovikMessage*) { gate.pass(); };
  rovik->run();
  Clock::skip(1000 * Clock::kNanosecondsPerSecond);
  const std::int64_t before = Clock::now();
  rovik->messageSnd(to(1, newNote("go")).get());
  ASSERT_TRUE(gate.waitForVisitor());
  const auto busy = rovik->host().status().busy;
  gate.open();
  ASSERT_TRUE(busy.has_value());
  EXPECT_GE(busy->since, before - kTick);
  EXPECT_LE(busy->since, Clock::now());
}

// One message after the other, each of which takes long, are no hang.
TEST_F(RovikBusyTest, EachLongSlotOfABatchHasATimeOfItsOwn) {
  std::vector<std::int64_t> begun;
  rovik->on_message = [&](RovikMessage*) {
    begun.push_back(rovik->host().busy()->since);
    Clock::skip(10 * Clock::kNanosecondsPerSecond);
  };
  for (int i = 0; i < 3; ++i) rovik->messageSnd(to(1, newNote("go")).get());
  rovik->run();
  ASSERT_TRUE(rovik->waitForMessages(3));
  EXPECT_GE(begun[1], begun[0] + 10 * Clock::kNanosecondsPerSecond - kTick);
  EXPECT_GE(begun[2], begun[1] + 10 * Clock::kNanosecondsPerSecond - kTick);
}

TEST_F(RovikBusyTest, EachCommandHasATimeOfItsOwn) {
  std::vector<std::int64_t> begun;
  rovik->on_command = [&](const Words&) {
    begun.push_back(rovik->host().busy()->since);
    Clock::skip(10 * Clock::kNanosecondsPerSecond);
    return "OK";
  };
  for (int i = 0; i < 2; ++i) EXPECT_EQ(rovik->command({"go"}), "OK");
  EXPECT_GE(begun[1], begun[0] + 10 * Clock::kNanosecondsPerSecond - kTick);
}

// The command of the message is its own slot; what comes behind it does not begin before it.
TEST_F(RovikBusyTest, ACommandWithinAMessageIsNamedAndTimedByItself) {
  std::string inside;
  std::int64_t ended = 0;
  std::int64_t next = 0;
  rovik->on_command = [&](const Words&) {
    inside = slotOf(*rovik);
    Clock::skip(10 * Clock::kNanosecondsPerSecond);
    ended = Clock::now();
    return "OK";
  };
  rovik->on_message = [&](RovikMessage* msg) {
    if (msg->type == MM_MSG) next = rovik->host().busy()->since;
  };
  rovik->messageSnd(to(1, newCommand("go")).get());
  rovik->messageSnd(to(1, newNote("next")).get());
  rovik->run();
  ASSERT_TRUE(rovik->waitForMessages(2));
  EXPECT_EQ(inside, "interpretCmd");
  EXPECT_GE(next, ended - kTick);
  EXPECT_TRUE(comesBack(*rovik));
}

TEST(BusySignTest, AfterASlotWithinAnotherThatOneBeginsAnew) {
  drovane::BusySign sign;
  const drovane::BusySign::In outer(sign, "selectMM", Clock::coarse());
  {
    const drovane::BusySign::In inner(sign, "interpretCmd", Clock::coarse());
    Clock::skip(10 * Clock::kNanosecondsPerSecond);
  }
  ASSERT_TRUE(sign.look().has_value());
  EXPECT_STREQ(sign.look()->slot, "selectMM");
  EXPECT_GE(sign.look()->since, Clock::now() - kTick);
}

TEST_F(RovikBusyTest, ASlotThatThrowsIsLeft) {
  rovik->on_message = [](RovikMessage*) { throw std::runtime_error("no"); };
  rovik->run();
  rovik->messageSnd(to(1, newNote("go")).get());
  ASSERT_TRUE(eventually([&] { return rovik->host().status().warning_count == 1; }));
  EXPECT_TRUE(comesBack(*rovik));
}

}  // namespace
