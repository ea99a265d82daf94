// Messages for which there is no memory: every maker says so, and nothing is lost of the books.
#include <gtest/gtest.h>

#include <memory>
#include <optional>

#include "faults/MemoryFaults.h"
#include "framework/Outbox.h"
#include "framework/RecordPool.h"
#include "support/Message.h"
#include "support/TestRovik.h"

namespace {

using drovane::Mailbox;
using drovane::Outbox;
using drovane::RecordPool;
using drovane::Waker;

// So long that its copy takes memory of its own.
constexpr std::size_t kLength = 10'000;
constexpr std::size_t kMemory = kLength + 1;

TEST(MessageWithoutMemoryTest, EachKindIsNullAndCanBeHadAgainLater) {
  for (int type = MM_EMPTY; type <= static_cast<int>(MM_MSG); ++type) {
    const auto kind = static_cast<MessageTypes>(type);
    const std::int64_t in_use = RecordPool::inUse();
    {
      const NoRecords gone(kind);
      EXPECT_EQ(RovikMessage::create(kind), nullptr) << type;
    }
    EXPECT_NE(newMessage<RovikMessage>(kind), nullptr) << type;
    EXPECT_EQ(RecordPool::inUse(), in_use) << type;
  }
}

TEST(MessageWithoutMemoryTest, ACopyIsNull) {
  const auto note = newNote("x");
  const NoRecords gone(MM_MSG);
  EXPECT_EQ(RovikMessage::create(note.get()), nullptr);
}

TEST(MessageWithoutMemoryTest, ACopyWhoseTextDoesNotFitIsNullAndLeavesNoRecordBehind) {
  const auto note = newNote(std::string(kLength, 'x'));
  const std::int64_t in_use = RecordPool::inUse();
  const NoMemory none(kMemory);
  EXPECT_EQ(RovikMessage::create(note.get()), nullptr);
  EXPECT_TRUE(none.happened());
  EXPECT_EQ(RecordPool::inUse(), in_use);
}

class OutboxWithoutMemoryTest : public testing::Test {
 protected:
  OutboxWithoutMemoryTest() { drovane::Router::global().add(box); }
  ~OutboxWithoutMemoryTest() override { drovane::Router::global().remove(*box); }

  const std::shared_ptr<Mailbox> box =
      std::make_shared<Mailbox>(1, "sender", std::make_shared<Waker>());
  Outbox outbox{box};
  const Owned<MMMsg> note = to(1, newNote("x"));
};

TEST_F(OutboxWithoutMemoryTest, NothingIsSent) {
  {
    const NoRecords gone(MM_MSG);
    EXPECT_EQ(outbox.send(*note), -1);
    EXPECT_EQ(outbox.sendNow(*note), -1);
  }
  outbox.flush();
  EXPECT_TRUE(box->empty());
  EXPECT_EQ(outbox.sent(), 0U);
}

TEST_F(OutboxWithoutMemoryTest, ARequestExpectsNoAnswer) {
  const NoRecords gone(MM_MSG);
  EXPECT_EQ(outbox.sendRequest(*note), 0U);
  EXPECT_TRUE(box->replied());
}

TEST_F(OutboxWithoutMemoryTest, ARequestThatCannotLeaveExpectsNoAnswer) {
  {
    NoRecords gone(MM_MSG);
    gone.spareOne();  // the request itself, but not what is delivered
    EXPECT_EQ(outbox.sendRequest(*note), 0U);
  }
  EXPECT_TRUE(box->empty());
  EXPECT_TRUE(box->replied());
}

// Better a receiver that gets more than it likes than a sender that cannot go on.
TEST(MailboxWithoutMemoryTest, AFeederForWhichThereIsNoPlaceInLineGoesOn) {
  Mailbox box(1, "slow", std::make_shared<Waker>());
  const auto feeder = std::make_shared<Waker>();
  for (std::size_t i = 0; i <= Mailbox::kHighWater; ++i) {
    RovikMessage* const msg = newNote("x").release();
    box.put({&msg, 1});
  }
  {
    const NoMemory none(sizeof(std::shared_ptr<Waker>));
    EXPECT_FALSE(box.crowded(feeder));
    EXPECT_TRUE(none.happened());
  }
  EXPECT_FALSE(box.contended());
  EXPECT_TRUE(box.crowded(feeder));
}

TEST(RovikWithoutMemoryTest, ItsMessageIsRefused) {
  const auto rovik = TestRovik::make(1, "boiler");
  const auto note = to(1, newNote("x"));
  const NoRecords gone(MM_MSG);
  EXPECT_EQ(rovik->messageSnd(note.get()), -1);
}

TEST(RovikWithoutMemoryTest, ARequestIsNotAnsweredButTheNextOneIs) {
  const auto rovik = TestRovik::make(1, "boiler");
  const auto asker = TestRovik::make(2, "asker");
  std::optional<NoRecords> gone;
  rovik->on_message = [&](RovikMessage* msg) {
    gone.reset();
    if (textOf(*msg) == "first") gone.emplace(MM_CMD_RESPONSE);
  };
  rovik->on_command = [](const Words& words) { return words.at(0) + " done"; };
  rovik->run();
  asker->messageSnd(to(1, newCommand("first")).get());
  asker->messageSnd(to(1, newCommand("second")).get());
  asker->run();
  ASSERT_TRUE(asker->waitForMessages(1));
  EXPECT_EQ(asker->received().at(0).text, "second done");
  EXPECT_EQ(rovik->countOf("command first"), 0U);
}

}  // namespace
