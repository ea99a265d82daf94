// The event loop: which slot is called when, and what a rovik finds there.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <stdexcept>
#include <thread>

#include "framework/RecordPool.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/Message.h"
#include "support/SocketPair.h"
#include "support/TestRovik.h"

namespace {

// The loop has gone round once: a message to the rovik itself has come back to it.
bool goesRound(TestRovik& rovik) {
  const std::size_t before = rovik.received().size();
  rovik.messageSnd(to(static_cast<std::uint32_t>(rovik.id), newNote("round")).get());
  return rovik.waitForMessages(before + 1);
}

std::string readAll(int link) {
  std::array<char, 4096> buffer;
  const ssize_t count = read(link, buffer.data(), buffer.size());
  return count > 0 ? std::string(buffer.data(), static_cast<std::size_t>(count)) : "";
}

TEST(RovikLoopTest, AReadableLinkCallsSelectFD) {
  SocketPair pair;
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->fd = pair.near.get();
  rovik->on_link = [&] { rovik->note("read " + readAll(rovik->fd)); };
  rovik->run();
  ASSERT_TRUE(pair.send("T=21"));
  EXPECT_TRUE(rovik->waitForEvent("read T=21"));
  ASSERT_TRUE(pair.send("T=22"));
  EXPECT_TRUE(rovik->waitForEvent("read T=22"));
}

// The receiver does not run, so what has left waits in its queue. The two reads may fall apart once
// in a while, since the batch ends with the tick of a clock.
TEST(RovikLoopTest, WhatSeveralShortReadsBringLeavesInOneBatch) {
  constexpr int kBytes = 10;
  SocketPair pair;
  const auto receiver = TestRovik::make(2, "attic");
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->fd = pair.near.get();
  std::size_t left = 0;
  rovik->on_link = [&] {
    char byte = 0;
    if (read(rovik->fd, &byte, 1) != 1) return;
    const std::size_t now = receiver->host().status().queued;
    if (byte > 0 && now == left) rovik->note("together");
    left = now;
    rovik->messageSnd(to(2, newNote("byte")).get());
  };
  std::string bytes(kBytes, '\1');
  bytes[0] = '\0';
  ASSERT_TRUE(pair.send(bytes));
  rovik->run();
  EXPECT_TRUE(rovik->waitForEvent("together"));
  EXPECT_TRUE(eventually([&] { return receiver->host().status().queued == kBytes; }));
}

TEST(RovikLoopTest, MessagesAndCommandsHaveTheirTurnWhileTheLinkHasMore) {
  SocketPair pair;
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->fd = pair.near.get();
  rovik->on_command = [](const Words&) { return "OK"; };
  ASSERT_TRUE(pair.send("never read"));
  rovik->run();
  EXPECT_TRUE(rovik->waitForEvent("link"));
  EXPECT_TRUE(goesRound(*rovik));
  EXPECT_EQ(rovik->command({"anything"}), "OK");
  EXPECT_EQ(rovik->stop(), 0);
}

TEST(RovikLoopTest, ASilentLinkCallsNothing) {
  SocketPair pair;
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->fd = pair.near.get();
  rovik->run();
  EXPECT_TRUE(goesRound(*rovik));
  EXPECT_EQ(rovik->countOf("link"), 0U);
}

TEST(RovikLoopTest, ReadfdsHoldsTheLinkExactlyWhenItIsReadable) {
  SocketPair pair;
  const auto rovik = TestRovik::make(1, "boiler");
  const int link = pair.near.get();
  const auto holds = [&] { return FD_ISSET(link, &rovik->readfds) ? "readable" : "silent"; };
  rovik->fd = link;
  rovik->on_link = [&] {
    rovik->note(std::string("link ") + holds());
    readAll(link);
  };
  rovik->on_message = [&](RovikMessage*) { rovik->note(std::string("message ") + holds()); };
  rovik->run();
  ASSERT_TRUE(pair.send("x"));
  EXPECT_TRUE(rovik->waitForEvent("link readable"));
  EXPECT_TRUE(rovik->waitForEvent("link"));
  EXPECT_TRUE(goesRound(*rovik));  // perhaps still in the pass of the link
  const std::size_t before = rovik->countOf("message silent");
  EXPECT_TRUE(goesRound(*rovik));
  EXPECT_EQ(rovik->countOf("message silent"), before + 1);
  EXPECT_EQ(rovik->countOf("link silent"), 0U);
}

TEST(RovikLoopTest, TheLinkIsReadAnewOnEachPass) {
  SocketPair first;
  SocketPair second;
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->fd = first.near.get();
  rovik->on_link = [&] {
    rovik->note("read " + readAll(rovik->fd));
    rovik->fd = second.near.get();
  };
  rovik->run();
  ASSERT_TRUE(first.send("1"));
  EXPECT_TRUE(rovik->waitForEvent("read 1"));
  ASSERT_TRUE(first.send("unheard"));
  ASSERT_TRUE(second.send("2"));
  EXPECT_TRUE(rovik->waitForEvent("read 2"));
  EXPECT_TRUE(goesRound(*rovik));
  EXPECT_EQ(rovik->countOf("read unheard"), 0U);
}

TEST(RovikLoopTest, ACommandMayOpenAndCloseTheLink) {
  SocketPair pair;
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->on_command = [&](const Words& words) {
    rovik->fd = words[0] == "open" ? pair.near.get() : -1;
    return "OK";
  };
  rovik->run();
  EXPECT_EQ(rovik->command({"open"}), "OK");
  EXPECT_TRUE(rovik->host().status().link_open);
  ASSERT_TRUE(pair.send("x"));
  EXPECT_TRUE(rovik->waitForEvent("link"));
  EXPECT_EQ(rovik->command({"close"}), "OK");
  EXPECT_FALSE(rovik->host().status().link_open);
  ASSERT_TRUE(pair.send("x"));
  EXPECT_TRUE(goesRound(*rovik));
  EXPECT_EQ(rovik->countOf("link"), 1U);
}

TEST(RovikLoopTest, ALinkThatThePeerClosedIsReadable) {
  SocketPair pair;
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->fd = pair.near.get();
  rovik->run();
  pair.far.reset();
  EXPECT_TRUE(rovik->waitForEvent("link"));
  EXPECT_TRUE(eventually([&] { return !rovik->host().status().link_open; }));
  EXPECT_EQ(rovik->countOf("link"), 1U);
}

TEST(RovikLoopTest, TheTimerIsArmedWithThePeriodAtTheStart) {
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->period = TimeValue(30, 0);
  rovik->run();
  EXPECT_TRUE(goesRound(*rovik));
  rovik->passTime(29);
  EXPECT_TRUE(goesRound(*rovik));
  EXPECT_EQ(rovik->countOf("timer"), 0U);
  rovik->passTime(2);
  EXPECT_TRUE(rovik->waitForEvent("timer"));
}

TEST(RovikLoopTest, TheTimerIsArmedWithThePeriodAgainOnEachExpiry) {
  const auto rovik = TestRovik::makeRunning(1, "boiler");
  for (std::size_t times = 1; times <= 3; ++times) {
    EXPECT_TRUE(goesRound(*rovik));
    EXPECT_EQ(rovik->countOf("timer"), times - 1);
    rovik->passTime(31);
    EXPECT_TRUE(rovik->waitForEvent("timer", times));
  }
}

TEST(RovikLoopTest, ATimerThatIsAlreadyArmedIsLeftAlone) {
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->period = TimeValue(30, 0);
  rovik->timer.set({5, 0}, false);
  rovik->run();
  EXPECT_TRUE(goesRound(*rovik));
  rovik->passTime(6);
  EXPECT_TRUE(rovik->waitForEvent("timer"));
}

TEST(RovikLoopTest, TheTimerIsArmedBeforeSelectTIWhichMayRearmIt) {
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->on_timer = [&] {
    rovik->note(rovik->timer.expiry() ? "armed" : "not armed");
    rovik->timer.set({2, 0}, false);
  };
  rovik->run();
  EXPECT_TRUE(goesRound(*rovik));
  rovik->passTime(31);
  EXPECT_TRUE(rovik->waitForEvent("timer"));
  rovik->passTime(3);
  EXPECT_TRUE(rovik->waitForEvent("timer", 2));
  EXPECT_EQ(rovik->countOf("armed"), 2U);
}

TEST(RovikLoopTest, DelaysOfZeroAndBelowExpireAtOnce) {
  for (const auto& delay : {TimeValue(0, 0), TimeValue(0, -1), TimeValue(-30, 0)}) {
    const auto rovik = TestRovik::make(1, "boiler");
    rovik->on_command = [&](const Words&) {
      rovik->timer.set(delay, false);
      return "OK";
    };
    rovik->run();
    EXPECT_EQ(rovik->command({"now"}), "OK");
    EXPECT_TRUE(rovik->waitForEvent("timer"));
  }
}

TEST(RovikLoopTest, MessagesComeInOrder) {
  const auto rovik = TestRovik::makeRunning(1, "boiler");
  const auto sender = TestRovik::make(2, "sender");
  for (int i = 0; i < 3000; ++i) sender->messageSnd(to(1, newNote(std::to_string(i))).get());
  ASSERT_TRUE(rovik->waitForMessages(3000));
  const auto received = rovik->received();
  for (int i = 0; i < 3000; ++i)
    ASSERT_EQ(received[static_cast<std::size_t>(i)].text, std::to_string(i));
}

TEST(RovikLoopTest, MessagesThatCameBeforeTheStartAreDeliveredToo) {
  const auto rovik = TestRovik::make(1, "boiler");
  const auto sender = TestRovik::make(2, "sender");
  EXPECT_EQ(sender->messageSnd(to("boiler", newNote("early")).get()), 0);
  rovik->run();
  EXPECT_TRUE(rovik->waitForEvent("message early"));
}

TEST(RovikLoopTest, AHugeBatchIsFollowedByTheNextMessage) {
  constexpr std::size_t kHuge = 8 * drovane::Mailbox::kHighWater;
  const auto rovik = TestRovik::make(1, "boiler");
  for (std::size_t i = 0; i < kHuge; ++i) rovik->messageSnd(to(1, newNote("early")).get());
  rovik->run();
  ASSERT_TRUE(rovik->waitForMessages(kHuge));
  EXPECT_TRUE(goesRound(*rovik));
}

TEST(RovikLoopTest, WhatASlotSendsLeavesWhenItReturns) {
  const auto receiver = TestRovik::makeRunning(2, "receiver");
  Gate gate;
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->on_message = [&](RovikMessage*) {
    EXPECT_EQ(rovik->messageSnd(to(2, newNote("one line")).get()), 0);
    gate.pass();
  };
  rovik->run();
  receiver->messageSnd(to(1, newNote("go")).get());
  EXPECT_TRUE(gate.waitForVisitor());
  EXPECT_TRUE(goesRound(*receiver));
  EXPECT_EQ(receiver->countOf("message one line"), 0U);
  gate.open();
  EXPECT_TRUE(receiver->waitForEvent("message one line"));
}

TEST(RovikLoopTest, AFullBatchDoesNotWaitForTheSlot) {
  const auto receiver = TestRovik::makeRunning(2, "receiver");
  Gate gate;
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->on_message = [&](RovikMessage*) {
    for (int i = 0; i < 512; ++i) rovik->messageSnd(to(2, newNote("line")).get());
    gate.pass();
  };
  rovik->run();
  receiver->messageSnd(to(1, newNote("go")).get());
  EXPECT_TRUE(receiver->waitForEvent("message line", 512));
  gate.open();
}

TEST(RovikLoopTest, SendingToNobodyIsRefused) {
  const auto rovik = TestRovik::make(1, "boiler");
  EXPECT_EQ(rovik->messageSnd(to(9, newNote("x")).get()), -1);
  EXPECT_EQ(rovik->messageSnd(nullptr), -1);
  EXPECT_EQ(rovik->messageSnd(newNote("a broadcast that nobody hears").get()), 0);
}

TEST(RovikLoopTest, ExceptionsOfSlotsAreLoggedAndTheLoopLivesOn) {
  SocketPair pair;
  LogCapture log(2);
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->fd = pair.near.get();
  rovik->on_link = [&] {
    readAll(rovik->fd);
    throw std::runtime_error("no link");
  };
  rovik->on_message = [](RovikMessage*) { throw 7; };
  rovik->on_timer = [] { throw std::logic_error("no time"); };
  rovik->run();
  ASSERT_TRUE(pair.send("x"));
  EXPECT_TRUE(log.waitFor("exception in selectFD: no link"));
  rovik->messageSnd(to(1, newNote("x")).get());
  EXPECT_TRUE(log.waitFor("exception in selectMM: unknown exception"));
  rovik->passTime(31);
  EXPECT_TRUE(log.waitFor("exception in selectTI: no time"));
  EXPECT_EQ(rovik->command({"still", "there"}), "OK");
  for (const auto& line : log.lines()) {
    EXPECT_EQ(line.level, 2);
    EXPECT_EQ(line.id, 1);
    EXPECT_EQ(line.name, "boiler");
  }
  EXPECT_EQ(rovik->host().status().warning, "exception in selectTI: no time");
  EXPECT_EQ(rovik->host().status().warning_count, 3U);
}

TEST(RovikLoopTest, AFloodOfMessagesKeepsNothingElseFromItsTurn) {
  SocketPair pair;
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->fd = pair.near.get();
  std::atomic<bool> go_on{true};
  rovik->on_message = [&](RovikMessage* msg) {
    if (go_on) rovik->messageSnd(to(1, newNote(textOf(*msg))).get());
  };
  rovik->run();
  for (int i = 0; i < 500; ++i) rovik->messageSnd(to(1, newNote("flood")).get());
  EXPECT_TRUE(rovik->waitForMessages(1000));
  ASSERT_TRUE(pair.send("x"));
  EXPECT_TRUE(rovik->waitForEvent("link"));
  EXPECT_EQ(rovik->command({"status"}), "OK");
  rovik->passTime(31);
  EXPECT_TRUE(rovik->waitForEvent("timer"));
  go_on = false;
}

TEST(RovikLoopTest, StopEndsTheLoopAtOnceHoweverLongItWouldSleep) {
  const auto rovik = TestRovik::makeRunning(1, "boiler");
  EXPECT_TRUE(goesRound(*rovik));
  EXPECT_TRUE(rovik->host().status().running);
  EXPECT_EQ(rovik->stop(), 0);
  EXPECT_FALSE(rovik->host().status().running);
}

// A slot that waits for its peer, as long as the peer likes.
TEST(RovikLoopTest, AnInterruptEndsTheWaitForAPeer) {
  SocketPair link;
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->on_timer = [&] {
    EXPECT_TRUE(rovik->blocksOn(link.near.get()));
    rovik->note("waits");
    rovik->note("heard '" + readAll(link.near.get()) + "'");
    EXPECT_FALSE(rovik->blocksOn(link.near.get()));
  };
  rovik->timer.set(TimeValue(0, 0), false);
  rovik->run();
  ASSERT_TRUE(rovik->waitForEvent("waits"));
  EXPECT_EQ(rovik->countOf("heard ''"), 0U);
  rovik->host().interrupt();
  EXPECT_TRUE(rovik->waitForEvent("heard ''"));
}

TEST(RovikLoopTest, AnInterruptLeavesASocketAloneThatIsNoLongerNamed) {
  SocketPair link;
  const auto rovik = TestRovik::make(1, "boiler");
  EXPECT_TRUE(rovik->blocksOn(link.near.get()));
  EXPECT_TRUE(rovik->blocksOn(-1));
  rovik->host().interrupt();
  EXPECT_TRUE(link.send("x"));
  EXPECT_EQ(readAll(link.near.get()), "x");
}

TEST(RovikLoopTest, WhatIsToComeFirstIsRunByTheThreadBeforeItsLoop) {
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->messageSnd(to(1U, newNote("early")).get());
  const auto here = std::this_thread::get_id();
  ASSERT_EQ(rovik->host().start([&] {
    rovik->note(std::this_thread::get_id() == here ? "owner's thread" : "own thread");
    EXPECT_FALSE(rovik->host().status().running);
    EXPECT_TRUE(rovik->host().command({"mode"}).answered);
    return true;
  }),
            0);
  ASSERT_TRUE(rovik->waitForMessages(1));
  EXPECT_EQ(rovik->events(), (Words{"own thread", "command mode", "message early"}));
}

TEST(RovikLoopTest, WithoutALoopWhenWhatComesFirstSaysSo) {
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->messageSnd(to(1U, newNote("early")).get());
  ASSERT_EQ(rovik->host().start([] { return false; }), 0);
  EXPECT_EQ(rovik->stop(), 0);
  EXPECT_EQ(rovik->events(), Words{});
  EXPECT_FALSE(rovik->host().status().running);
}

TEST(RovikLoopTest, NoSlotIsCalledAfterStop) {
  SocketPair pair;
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->fd = pair.near.get();
  rovik->run();
  EXPECT_TRUE(goesRound(*rovik));
  rovik->stop();
  const auto before = rovik->events();
  ASSERT_TRUE(pair.send("x"));
  rovik->messageSnd(to(1, newNote("x")).get());
  rovik->passTime(31);
  EXPECT_EQ(rovik->events(), before);
}

TEST(RovikLoopTest, AMessageIsReleasedOnceSelectMMIsDoneWithItOrHasThrown) {
  const auto before = drovane::RecordPool::inUse();
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->on_message = [](RovikMessage* msg) {
    if (textOf(*msg) == "bad") throw std::runtime_error("bad message");
  };
  rovik->run();
  for (const char* text : {"good", "bad", "good"}) rovik->messageSnd(to(1, newNote(text)).get());
  EXPECT_TRUE(rovik->waitForMessages(2));
  EXPECT_TRUE(eventually([&] { return drovane::RecordPool::inUse() == before; }));
}

TEST(RovikLoopTest, MessagesThatWaitAtTheEndAreReleased) {
  const auto before = drovane::RecordPool::inUse();
  {
    const auto rovik = TestRovik::make(1, "boiler");
    Gate gate;
    rovik->on_message = [&](RovikMessage*) { gate.pass(); };
    rovik->run();
    for (int i = 0; i < 100; ++i) rovik->messageSnd(to(1, newNote("x")).get());
    EXPECT_TRUE(gate.waitForVisitor());
    rovik->host().askToStop();
    gate.open();
    rovik->stop();
    EXPECT_LT(rovik->received().size(), 100U);
  }
  EXPECT_EQ(drovane::RecordPool::inUse(), before);
}

TEST(RovikLoopTest, EachStartAndStopIsHeard) {
  const auto rovik = TestRovik::make(1, "boiler");
  for (int i = 0; i < 300; ++i) {
    rovik->run();
    if (i % 3 == 0) {
      EXPECT_EQ(rovik->command({"x"}), "OK");
    } else if (i % 3 == 1) {
      EXPECT_TRUE(goesRound(*rovik));
    }
    ASSERT_EQ(rovik->stop(), 0);
  }
}

TEST(RovikLoopTest, EachCommandIsHeardByALoopThatFallsAsleep) {
  const auto rovik = TestRovik::makeRunning(1, "boiler");
  for (int i = 0; i < 5000; ++i) ASSERT_EQ(rovik->command({"x"}), "OK") << i;
}

TEST(RovikLoopTest, TheStatusTellsWhatARovikDoes) {
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->on_description = [](cJSON* json) { cJSON_AddNumberToObject(json, "network_id", 5); };
  rovik->type = MT_NETWORK_GENERIC;
  rovik->run();
  EXPECT_TRUE(goesRound(*rovik));
  rovik->setWarning("could not set DTR\n");
  const auto status = rovik->host().status();
  EXPECT_EQ(status.id, 1);
  EXPECT_EQ(status.name, "boiler");
  EXPECT_EQ(status.type, MT_NETWORK_GENERIC);
  EXPECT_EQ(status.sent, 1U);
  EXPECT_EQ(status.received, 1U);
  EXPECT_EQ(status.dropped, 0U);
  EXPECT_EQ(status.warning, "could not set DTR");
  EXPECT_EQ(status.warning_count, 1U);
  EXPECT_GT(status.warning_time, 0);
  EXPECT_EQ(status.description, "{\"network_id\":5}");
}

TEST(RovikLoopTest, AnAddressIsFreeAgainWhenItsRovikIsGone) {
  TestRovik::make(1, "boiler").reset();
  const auto again = TestRovik::make(1, "boiler");
  EXPECT_THROW(TestRovik::make(1, "other"), std::runtime_error);
  EXPECT_THROW(TestRovik::make(2, "boiler"), std::runtime_error);
}

}  // namespace
