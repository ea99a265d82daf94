#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include "framework/Mailbox.h"
#include "framework/RecordPool.h"
#include "support/LogCapture.h"
#include "support/Message.h"

namespace {

using drovane::Mailbox;
using drovane::RecordPool;
using drovane::Waker;
using testing::ElementsAre;
using testing::IsEmpty;

bool rings(const Waker& waker) {
  pollfd watched{waker.descriptor(), POLLIN, 0};
  return poll(&watched, 1, 0) == 1;
}

class MailboxTest : public testing::Test {
 protected:
  ~MailboxTest() override { EXPECT_EQ(RecordPool::inUse(), records_before); }

  void put(RovikMessage* msg) const { box->put({&msg, 1}); }
  void putNotes(std::size_t count) const {
    for (std::size_t i = 0; i < count; ++i) put(newNote(std::to_string(i)).release());
  }
  // Takes everything and releases it, as a receiver does; the texts.
  std::vector<std::string> takeTexts() const {
    std::vector<RovikMessage*> batch;
    box->take(batch);
    std::vector<std::string> texts;
    for (RovikMessage* msg : batch) {
      texts.push_back(textOf(*msg));
      RecordPool::release(msg);
    }
    box->left(0);
    return texts;
  }
  static RovikMessage* reply(MessageTypes type, std::uint32_t seqnr) {
    RovikMessage* msg = RovikMessage::create(type);
    msg->seqnr = seqnr;
    msg->dst = 5;
    return msg;
  }

  const std::int64_t records_before = RecordPool::inUse();
  const std::shared_ptr<Waker> waker = std::make_shared<Waker>();
  std::shared_ptr<Mailbox> box = std::make_shared<Mailbox>(5, "boiler", waker);
};

TEST_F(MailboxTest, GivesWhatWasPutInOrderAndInOneGo) {
  putNotes(3);
  EXPECT_FALSE(box->empty());
  EXPECT_EQ(box->depth(), 3U);
  EXPECT_THAT(takeTexts(), ElementsAre("0", "1", "2"));
  EXPECT_TRUE(box->empty());
  EXPECT_THAT(takeTexts(), IsEmpty());
  EXPECT_EQ(box->received(), 3U);
}

TEST_F(MailboxTest, WakesASleepingReceiver) {
  putNotes(1);
  EXPECT_FALSE(rings(*waker));
  waker->aboutToSleep();
  putNotes(1);
  EXPECT_TRUE(rings(*waker));
  takeTexts();
}

TEST_F(MailboxTest, WhatTheReceiverHasInHandStillCounts) {
  putNotes(5);
  std::vector<RovikMessage*> batch;
  box->take(batch);
  EXPECT_EQ(box->depth(), 5U);
  box->left(2);
  EXPECT_EQ(box->depth(), 2U);
  putNotes(1);
  EXPECT_EQ(box->depth(), 3U);
  for (RovikMessage* msg : batch) RecordPool::release(msg);
  box->left(0);
  takeTexts();
}

TEST_F(MailboxTest, PastTheHardLimitMessagesAreDroppedCountedAndReportedOnce) {
  LogCapture log(2);
  putNotes(Mailbox::kHardLimit + 10);
  EXPECT_EQ(box->depth(), Mailbox::kHardLimit);
  EXPECT_EQ(box->dropped(), 10U);
  EXPECT_THAT(
      log.lines(),
      ElementsAre(CapturedLine{
          2, 0, "drovane", "65536 messages wait for rovik 5 boiler: further ones are dropped"}));
  const auto texts = takeTexts();
  EXPECT_EQ(texts.front(), "0");
  EXPECT_EQ(texts.back(), "65535");
}

TEST_F(MailboxTest, ASecondFloodIsReportedAgain) {
  LogCapture log(2);
  putNotes(Mailbox::kHardLimit + 1);
  takeTexts();
  putNotes(Mailbox::kHardLimit + 1);
  EXPECT_EQ(log.count("further ones are dropped"), 2U);
  EXPECT_EQ(box->dropped(), 2U);
  takeTexts();
}

TEST_F(MailboxTest, TheAnswerThatIsWaitedForIsKeptAside) {
  for (const auto type : {MM_DATA, MM_CMD_RESPONSE}) {
    box->beginWait(17);
    EXPECT_FALSE(box->replied());
    put(reply(type, 17));
    EXPECT_TRUE(box->replied());
    EXPECT_TRUE(box->empty());
    const Owned<RovikMessage> answer(box->endWait());
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer->type, type);
    EXPECT_EQ(box->endWait(), nullptr);
  }
}

TEST_F(MailboxTest, OtherMessagesAreNoAnswer) {
  box->beginWait(17);
  put(reply(MM_DATA, 18));
  for (const auto type : {MM_EMPTY, MM_DATA_REQUEST, MM_ACTUATOR_REQUEST, MM_CMD_REQUEST, MM_MSG})
    put(reply(type, 17));
  RovikMessage* broadcast = reply(MM_DATA, 17);
  broadcast->dst = NO_DESTINATION;
  put(broadcast);
  EXPECT_FALSE(box->replied());
  EXPECT_EQ(box->endWait(), nullptr);
  EXPECT_EQ(takeTexts().size(), 7U);
}

TEST_F(MailboxTest, AnAnswerByNameIsAnAnswer) {
  box->beginWait(17);
  RovikMessage* named = reply(MM_DATA, 17);
  named->dst = NO_DESTINATION;
  named->dst_s = "boiler";
  put(named);
  EXPECT_NE(Owned<RovikMessage>(box->endWait()), nullptr);
}

TEST_F(MailboxTest, OnlyTheFirstAnswerIsTheAnswer) {
  box->beginWait(17);
  put(reply(MM_DATA, 17));
  put(reply(MM_DATA, 17));
  EXPECT_NE(Owned<RovikMessage>(box->endWait()), nullptr);
  EXPECT_EQ(takeTexts().size(), 1U);
}

TEST_F(MailboxTest, AfterTheWaitAnAnswerIsAMessageLikeAnyOther) {
  box->beginWait(17);
  EXPECT_EQ(box->endWait(), nullptr);
  put(reply(MM_DATA, 17));
  EXPECT_EQ(takeTexts().size(), 1U);
}

TEST_F(MailboxTest, ClosingEndsTheWait) {
  box->beginWait(17);
  box->close();
  EXPECT_TRUE(box->replied());
  EXPECT_EQ(box->endWait(), nullptr);
  box->beginWait(18);
  EXPECT_TRUE(box->replied());
}

TEST_F(MailboxTest, AClosedMailboxReleasesEverything) {
  putNotes(3);
  box->beginWait(17);
  put(reply(MM_DATA, 17));
  box->close();
  EXPECT_EQ(RecordPool::inUse(), records_before);
  putNotes(2);
  EXPECT_EQ(box->depth(), 0U);
  EXPECT_EQ(box->dropped(), 2U);
  EXPECT_EQ(box->endWait(), nullptr);
}

TEST_F(MailboxTest, ClosingIsNoFlood) {
  LogCapture log(2);
  box->close();
  putNotes(2);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(MailboxTest, IsCrowdedUntilItHasDrainedToTheLowWaterMark) {
  const auto feeder = std::make_shared<Waker>();
  putNotes(Mailbox::kLowWater + 2);
  EXPECT_TRUE(box->crowded(feeder));
  std::vector<RovikMessage*> batch;
  box->take(batch);
  feeder->aboutToSleep();
  box->left(Mailbox::kLowWater + 1);
  EXPECT_TRUE(box->crowded(feeder));
  EXPECT_FALSE(rings(*feeder));
  box->left(Mailbox::kLowWater);
  EXPECT_TRUE(rings(*feeder));
  EXPECT_FALSE(box->crowded(feeder));
  for (RovikMessage* msg : batch) RecordPool::release(msg);
  box->left(0);
}

TEST_F(MailboxTest, EveryFeederIsWokenOnce) {
  const auto first = std::make_shared<Waker>();
  const auto second = std::make_shared<Waker>();
  putNotes(Mailbox::kHighWater + 1);
  EXPECT_TRUE(box->crowded(first));
  EXPECT_TRUE(box->crowded(second));
  EXPECT_TRUE(box->crowded(first));
  first->aboutToSleep();
  second->aboutToSleep();
  takeTexts();
  EXPECT_TRUE(rings(*first));
  EXPECT_TRUE(rings(*second));
}

TEST_F(MailboxTest, FeedersHaveTheirTurnOneAfterTheOther) {
  const auto first = std::make_shared<Waker>();
  const auto second = std::make_shared<Waker>();
  putNotes(Mailbox::kHighWater + 1);
  EXPECT_TRUE(box->crowded(first));
  EXPECT_TRUE(box->crowded(second));
  first->aboutToSleep();
  second->aboutToSleep();
  std::vector<RovikMessage*> batch;
  box->take(batch);
  box->left(Mailbox::kLowWater);
  EXPECT_TRUE(rings(*first));
  EXPECT_FALSE(rings(*second));
  EXPECT_TRUE(box->contended());
  EXPECT_FALSE(box->crowded(first));
  EXPECT_TRUE(box->crowded(second));
  // The first has had its turn, and is now behind the second.
  first->awake(true);
  putNotes(Mailbox::kLowWater + 1);
  EXPECT_TRUE(box->crowded(first));
  first->aboutToSleep();
  for (RovikMessage* msg : batch) RecordPool::release(msg);
  batch.clear();
  box->left(0);
  EXPECT_FALSE(rings(*second));
  box->take(batch);
  box->left(Mailbox::kLowWater);
  EXPECT_TRUE(rings(*second));
  EXPECT_FALSE(rings(*first));
  for (RovikMessage* msg : batch) RecordPool::release(msg);
  box->left(0);
  EXPECT_TRUE(rings(*first));
  EXPECT_FALSE(box->contended());
}

TEST_F(MailboxTest, ClosingFreesTheFeeders) {
  const auto feeder = std::make_shared<Waker>();
  putNotes(Mailbox::kHighWater + 1);
  EXPECT_TRUE(box->crowded(feeder));
  feeder->aboutToSleep();
  box->close();
  EXPECT_TRUE(rings(*feeder));
  EXPECT_FALSE(box->crowded(feeder));
  EXPECT_FALSE(box->contended());
  box->left(0);
}

}  // namespace
