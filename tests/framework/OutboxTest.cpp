// The way of a message from its sender into the mailboxes: stamps, addresses, order.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

#include "framework/Outbox.h"
#include "framework/RecordPool.h"
#include "support/LogCapture.h"
#include "support/Message.h"

namespace {

using drovane::Mailbox;
using drovane::Outbox;
using drovane::RecordPool;
using drovane::Router;
using drovane::Waker;
using testing::ElementsAre;
using testing::IsEmpty;

// A mailbox that is in the router for the time of a test.
class Address {
 public:
  Address(int id, const std::string& name)
      : box(std::make_shared<Mailbox>(id, name, std::make_shared<Waker>())) {
    entered = Router::global().add(box);
  }
  ~Address() {
    Router::global().remove(*box);
    box->close();
  }
  Address(const Address&) = delete;
  Address& operator=(const Address&) = delete;

  std::vector<Owned<RovikMessage>> take() const {
    std::vector<RovikMessage*> batch;
    box->take(batch);
    box->left(0);
    return {batch.begin(), batch.end()};
  }
  std::vector<std::string> takeTexts() const {
    std::vector<std::string> texts;
    for (const auto& msg : take()) texts.push_back(textOf(*msg));
    return texts;
  }

  const std::shared_ptr<Mailbox> box;
  bool entered = false;
};

class OutboxTest : public testing::Test {
 protected:
  int sent(const Owned<MMMsg>& msg) {
    const int receivers = outbox.send(*msg);
    outbox.flush();
    return receivers;
  }

  Address sender{1, "sender"};
  Address boiler{2, "boiler"};
  Address lamp{3, "lamp"};
  Outbox outbox{sender.box};
};

TEST_F(OutboxTest, SendsByNumber) {
  EXPECT_EQ(sent(to(2, newNote("hi"))), 1);
  EXPECT_THAT(boiler.takeTexts(), ElementsAre("hi"));
  EXPECT_THAT(lamp.takeTexts(), IsEmpty());
  EXPECT_THAT(sender.takeTexts(), IsEmpty());
}

TEST_F(OutboxTest, SendsByName) {
  EXPECT_EQ(sent(to("lamp", newNote("hi"))), 1);
  EXPECT_THAT(lamp.takeTexts(), ElementsAre("hi"));
  EXPECT_THAT(boiler.takeTexts(), IsEmpty());
}

TEST_F(OutboxTest, TheNumberGoesBeforeTheName) {
  EXPECT_EQ(sent(to(2, to("lamp", newNote("hi")))), 1);
  EXPECT_THAT(boiler.takeTexts(), ElementsAre("hi"));
  EXPECT_THAT(lamp.takeTexts(), IsEmpty());
}

TEST_F(OutboxTest, BroadcastsToAllButTheSender) {
  EXPECT_EQ(sent(newNote("hi")), 2);
  EXPECT_THAT(boiler.takeTexts(), ElementsAre("hi"));
  EXPECT_THAT(lamp.takeTexts(), ElementsAre("hi"));
  EXPECT_THAT(sender.takeTexts(), IsEmpty());
}

TEST_F(OutboxTest, ABroadcastDoesNotReachTheFrameworksOwnAddresses) {
  const Address cli(drovane::kCommandLineId, drovane::kCommandLineName);
  EXPECT_EQ(sent(newNote("hi")), 2);
  EXPECT_THAT(cli.takeTexts(), IsEmpty());
  EXPECT_EQ(sent(to(16382, newNote("by number"))), 1);
  EXPECT_EQ(sent(to("cli", newNote("by name"))), 1);
  EXPECT_THAT(cli.takeTexts(), ElementsAre("by number", "by name"));
}

TEST_F(OutboxTest, ABroadcastIsOneSharedRecord) {
  const auto before = RecordPool::inUse();
  sent(newNote("hi"));
  EXPECT_EQ(RecordPool::inUse(), before + 1);
  const auto first = boiler.take();
  const auto second = lamp.take();
  EXPECT_EQ(first.at(0).get(), second.at(0).get());
}

TEST_F(OutboxTest, ABroadcastThatNobodyHearsIsNotUndeliverable) {
  const auto before = Router::global().undeliverable();
  Router::global().remove(*boiler.box);
  Router::global().remove(*lamp.box);
  EXPECT_EQ(sent(newNote("hi")), 0);
  EXPECT_EQ(Router::global().undeliverable(), before);
}

TEST_F(OutboxTest, OnesOwnNumberIsADestinationLikeAnyOther) {
  EXPECT_EQ(sent(to(1, newNote("to myself"))), 1);
  EXPECT_EQ(sent(to("sender", newNote("by name"))), 1);
  EXPECT_THAT(sender.takeTexts(), ElementsAre("to myself", "by name"));
}

TEST_F(OutboxTest, StampsWhatIsStillZeroOnTheCopyOnly) {
  const auto data = to(2, newText("21.5"));
  const time_t before = time(nullptr);
  outbox.send(*data);
  outbox.flush();
  const auto arrived = boiler.take();
  ASSERT_EQ(arrived.size(), 1U);
  const auto& copy = static_cast<const MMData&>(*arrived[0]);
  EXPECT_NE(copy.seqnr, 0U);
  EXPECT_EQ(copy.src, 1U);
  EXPECT_EQ(copy.src_s, "sender");
  EXPECT_GE(copy.tv_sec, static_cast<std::uint32_t>(before));
  EXPECT_LE(copy.tv_sec, static_cast<std::uint32_t>(time(nullptr)) + 1);
  EXPECT_LT(copy.tv_usec, 1000000U);
  EXPECT_EQ(data->seqnr, 0U);
  EXPECT_EQ(data->src, 0U);
  EXPECT_EQ(data->src_s, "");
  EXPECT_EQ(data->tv_sec, 0U);
}

TEST_F(OutboxTest, LeavesWhatTheSenderHasSet) {
  const auto data = to(2, newText("21.5"));
  data->seqnr = 99;
  data->src = 88;
  data->src_s = "somebody";
  data->tv_usec = 5;
  outbox.send(*data);
  outbox.flush();
  const auto arrived = boiler.take();
  ASSERT_EQ(arrived.size(), 1U);
  const auto& copy = static_cast<const MMData&>(*arrived[0]);
  EXPECT_EQ(copy.seqnr, 99U);
  EXPECT_EQ(copy.src, 88U);
  EXPECT_EQ(copy.src_s, "somebody");
  EXPECT_EQ(copy.tv_sec, 0U);
  EXPECT_EQ(copy.tv_usec, 5U);
}

TEST_F(OutboxTest, EveryMessageGetsASequenceNumberOfItsOwn) {
  sent(to(2, newNote("a")));
  sent(to(2, newNote("b")));
  const auto arrived = boiler.take();
  EXPECT_NE(arrived.at(0)->seqnr, arrived.at(1)->seqnr);
}

TEST_F(OutboxTest, AMessageToNobodyIsLoggedAtLevel4WithItsDestinationAndCounted) {
  const auto before = Router::global().undeliverable();
  const auto records = RecordPool::inUse();
  LogCapture log(4);
  EXPECT_EQ(sent(to(4, newNote("hi"))), -1);
  EXPECT_EQ(sent(to("nobody", newNote("hi"))), -1);
  EXPECT_EQ(Router::global().undeliverable(), before + 2);
  ASSERT_EQ(log.lines().size(), 2U);
  EXPECT_EQ(log.lines()[0].level, 4);
  EXPECT_EQ(log.lines()[0].name, "drovane");
  EXPECT_THAT(
      log.lines()[0].text,
      testing::StartsWith("nobody to receive MM_MSG channel 0 \"hi\" from 1 sender to 4 #"));
  EXPECT_THAT(log.lines()[1].text, testing::HasSubstr(" from 1 sender to nobody #"));
  EXPECT_EQ(RecordPool::inUse(), records);
}

TEST_F(OutboxTest, NumbersBeyondEveryAddressAreNobody) {
  for (const std::uint32_t id : {0U, 16000U, 16384U, 0x80000000U, 0xFFFFFFFFU})
    EXPECT_EQ(sent(to(id, newNote("hi"))), -1) << id;
}

TEST_F(OutboxTest, WaitsForTheFlush) {
  outbox.send(*to(2, newNote("a")));
  EXPECT_THAT(boiler.takeTexts(), IsEmpty());
  outbox.flush();
  EXPECT_THAT(boiler.takeTexts(), ElementsAre("a"));
}

TEST_F(OutboxTest, AFullBatchLeavesByItself) {
  for (int i = 0; i < 512; ++i) outbox.send(*to(2, newNote("x")));
  EXPECT_EQ(boiler.takeTexts().size(), 512U);
}

TEST_F(OutboxTest, KeepsTheOrderToEachReceiver) {
  std::vector<std::string> expected;
  for (int i = 0; i < 200; ++i) {
    expected.push_back(std::to_string(i));
    outbox.send(*newNote(expected.back()));
    outbox.send(*to(2, newNote(expected.back())));
  }
  outbox.flush();
  EXPECT_EQ(lamp.takeTexts(), expected);
  EXPECT_EQ(boiler.takeTexts().size(), 400U);
}

TEST_F(OutboxTest, ARequestGoesAtOnceAndBehindWhatWaits) {
  outbox.send(*to(2, newNote("first")));
  const auto seqnr = outbox.sendRequest(*to(2, newCommand("second")));
  EXPECT_NE(seqnr, 0U);
  const auto arrived = boiler.take();
  ASSERT_EQ(arrived.size(), 2U);
  EXPECT_EQ(textOf(*arrived[0]), "first");
  EXPECT_EQ(textOf(*arrived[1]), "second");
  EXPECT_EQ(arrived[1]->seqnr, seqnr);
  EXPECT_EQ(sender.box->endWait(), nullptr);
}

TEST_F(OutboxTest, ARequestKeepsASequenceNumberThatIsSet) {
  const auto request = to(2, newCommand("x"));
  request->seqnr = 4711;
  EXPECT_EQ(outbox.sendRequest(*request), 4711U);
  EXPECT_EQ(sender.box->endWait(), nullptr);
}

TEST_F(OutboxTest, ARequestToNobodyExpectsNoReply) {
  EXPECT_EQ(outbox.sendRequest(*to(4, newCommand("x"))), 0U);
  EXPECT_TRUE(sender.box->replied());
}

TEST_F(OutboxTest, SendNowDoesNotWait) {
  EXPECT_EQ(outbox.sendNow(*to(2, newNote("now"))), 1);
  EXPECT_THAT(boiler.takeTexts(), ElementsAre("now"));
  EXPECT_EQ(outbox.sendNow(*to(4, newNote("now"))), -1);
}

TEST_F(OutboxTest, CountsWhatItSends) {
  sent(to(2, newNote("a")));
  sent(newNote("b"));
  outbox.sendNow(*newNote("c"));
  EXPECT_EQ(outbox.sent(), 3U);
}

TEST_F(OutboxTest, SeesWhoCameAndWhoLeft) {
  EXPECT_EQ(sent(to(4, newNote("too early"))), -1);
  {
    const Address late(4, "late");
    EXPECT_EQ(sent(to(4, newNote("in time"))), 1);
    EXPECT_THAT(late.takeTexts(), ElementsAre("in time"));
  }
  EXPECT_EQ(sent(to(4, newNote("too late"))), -1);
}

TEST_F(OutboxTest, WhatStillWaitsWhenTheReceiverLeavesIsReleased) {
  const auto before = RecordPool::inUse();
  {
    const Address late(4, "late");
    outbox.send(*to(4, newNote("on its way")));
  }
  outbox.flush();
  EXPECT_EQ(RecordPool::inUse(), before);
}

TEST_F(OutboxTest, IsHeldBackFromTheHighToTheLowWaterMark) {
  for (std::size_t i = 0; i < Mailbox::kHighWater; ++i) outbox.send(*to(2, newNote("x")));
  outbox.flush();
  EXPECT_FALSE(outbox.heldBack());
  outbox.send(*to(2, newNote("x")));
  outbox.flush();
  EXPECT_TRUE(outbox.heldBack());
  std::vector<RovikMessage*> batch;
  boiler.box->take(batch);
  boiler.box->left(Mailbox::kLowWater + 1);
  EXPECT_TRUE(outbox.heldBack());
  boiler.box->left(Mailbox::kLowWater);
  EXPECT_FALSE(outbox.heldBack());
  boiler.box->left(0);
  for (RovikMessage* msg : batch) RecordPool::release(msg);
}

TEST_F(OutboxTest, ACrowdedMailboxThatLeavesHoldsNobodyBack) {
  auto late = std::make_unique<Address>(4, "late");
  for (std::size_t i = 0; i <= Mailbox::kHighWater; ++i) outbox.send(*to(4, newNote("x")));
  outbox.flush();
  EXPECT_TRUE(outbox.heldBack());
  late.reset();
  EXPECT_FALSE(outbox.heldBack());
}

TEST(RouterTest, AnAddressIsTakenByNumberOrByName) {
  const Address boiler(2, "boiler");
  EXPECT_TRUE(boiler.entered);
  EXPECT_FALSE(Address(2, "other").entered);
  EXPECT_FALSE(Address(3, "boiler").entered);
  EXPECT_TRUE(Address(3, "other").entered);
}

TEST(RouterTest, WhoWasRefusedTakesNobodyAway) {
  const Address boiler(2, "boiler");
  { const Address refused(2, "other"); }
  EXPECT_EQ(Router::global().table()->byId(2), boiler.box.get());
  EXPECT_EQ(Router::global().table()->byName("other"), nullptr);
}

TEST(RouterTest, FindsEveryNameAmongMany) {
  std::vector<std::unique_ptr<Address>> many;
  for (int id = 1; id <= 300; ++id)
    many.push_back(std::make_unique<Address>(id, "rovik" + std::to_string(id * 7919 % 1000)));
  const auto table = Router::global().table();
  for (const auto& one : many) {
    EXPECT_EQ(table->byName(one->box->name), one->box.get());
    EXPECT_EQ(table->byId(static_cast<std::uint32_t>(one->box->id)), one->box.get());
  }
  EXPECT_EQ(table->byName("rovik"), nullptr);
  EXPECT_EQ(table->byName(""), nullptr);
  EXPECT_EQ(table->roviks().size(), 300U);
}

TEST(RouterTest, SequenceNumbersAreNeverZeroAndDiffer) {
  const auto first = Router::global().nextSeqnr();
  const auto second = Router::global().nextSeqnr();
  EXPECT_NE(first, 0U);
  EXPECT_NE(second, 0U);
  EXPECT_NE(first, second);
}

TEST_F(OutboxTest, ATapSeesEveryRoutedMessageOnce) {
  const auto tap = std::make_shared<Mailbox>(0, "watch", std::make_shared<Waker>());
  EXPECT_FALSE(Router::global().tapped());
  Router::global().setTap(tap);
  EXPECT_TRUE(Router::global().tapped());
  sent(to(2, newNote("to one")));
  sent(newNote("to all"));
  sent(to(4, newNote("to nobody")));
  Router::global().setTap(nullptr);
  sent(to(2, newNote("unseen")));
  std::vector<RovikMessage*> batch;
  tap->take(batch);
  std::vector<std::string> texts;
  for (RovikMessage* msg : batch) {
    texts.push_back(textOf(*msg));
    EXPECT_EQ(msg->src_s, "sender");
    RecordPool::release(msg);
  }
  EXPECT_THAT(texts, ElementsAre("to one", "to all", "to nobody"));
}

}  // namespace
