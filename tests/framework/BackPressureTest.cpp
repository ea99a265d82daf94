// A link that brings more than its receivers take.
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <thread>

#include "framework/RecordPool.h"
#include "support/Eventually.h"
#include "support/Message.h"
#include "support/SocketPair.h"
#include "support/TestRovik.h"

namespace {

using drovane::Mailbox;

constexpr std::size_t kAtATime = 64;
// The mark, and what one call of selectFD may still add.
constexpr std::size_t kMostThatWait = Mailbox::kHighWater + kAtATime;

class BackPressureTest : public testing::Test {
 protected:
  // Each byte from the link becomes a numbered message.
  BackPressureTest() {
    feeder->fd = pair.near.get();
    feeder->on_link = [this] {
      std::array<char, kAtATime> buffer;
      const ssize_t count = read(feeder->fd, buffer.data(), buffer.size());
      for (ssize_t i = 0; i < count; ++i) {
        const auto note = newNote(std::to_string(fed++));
        if (!to_everybody) note->dst = 2;
        feeder->messageSnd(note.get());
      }
    };
    receiver->on_message = [this](RovikMessage*) { gate.pass(); };
  }

  void run() {
    receiver->run();
    feeder->run();
  }

  bool heldBack() { return feeder->host().status().held_back; }
  int unread() const {
    int bytes = 0;
    EXPECT_EQ(ioctl(pair.near.get(), FIONREAD, &bytes), 0);
    return bytes;
  }
  static void expectInOrder(const TestRovik& rovik, std::size_t count) {
    const auto received = rovik.received();
    ASSERT_EQ(received.size(), count);
    for (std::size_t i = 0; i < count; ++i) ASSERT_EQ(received[i].text, std::to_string(i));
  }

  Gate gate;
  SocketPair pair;
  bool to_everybody = false;
  std::atomic<std::size_t> fed{0};
  std::unique_ptr<TestRovik> feeder = TestRovik::make(1, "feeder");
  std::unique_ptr<TestRovik> receiver = TestRovik::make(2, "receiver");
};

TEST_F(BackPressureTest, AFeederOfASlowReceiverStopsReadingItsLink) {
  run();
  ASSERT_TRUE(pair.send(std::string(10000, 'x')));
  EXPECT_TRUE(eventually([&] { return heldBack(); }));
  const int left = unread();
  EXPECT_GT(left, 0);
  EXPECT_EQ(feeder->command({"a", "round"}), "OK");
  EXPECT_EQ(unread(), left);
  EXPECT_LE(receiver->host().status().queued, kMostThatWait);
  gate.open();
}

TEST_F(BackPressureTest, ItGoesOnAfterwardsAndNothingIsLost) {
  run();
  ASSERT_TRUE(pair.send(std::string(10000, 'x')));
  EXPECT_TRUE(eventually([&] { return heldBack(); }));
  gate.open();
  EXPECT_TRUE(receiver->waitForMessages(10000));
  expectInOrder(*receiver, 10000);
  EXPECT_TRUE(eventually([&] { return !heldBack(); }));
  EXPECT_EQ(receiver->host().status().dropped, 0U);
}

TEST_F(BackPressureTest, MessagesTimersAndCommandsGoOnMeanwhile) {
  run();
  ASSERT_TRUE(pair.send(std::string(10000, 'x')));
  EXPECT_TRUE(eventually([&] { return heldBack(); }));
  EXPECT_EQ(feeder->command({"x"}), "OK");
  receiver->messageSnd(to(1, newNote("hello")).get());
  EXPECT_TRUE(feeder->waitForEvent("message hello"));
  feeder->passTime(31);
  EXPECT_TRUE(feeder->waitForEvent("timer"));
  EXPECT_TRUE(heldBack());
  gate.open();
}

TEST_F(BackPressureTest, AReceiverThatGoesAwayFreesTheLink) {
  run();
  ASSERT_TRUE(pair.send(std::string(10000, 'x')));
  EXPECT_TRUE(eventually([&] { return heldBack(); }));
  receiver->host().askToStop();
  gate.open();
  receiver.reset();
  EXPECT_TRUE(eventually([&] { return fed == 10000; }));
}

TEST_F(BackPressureTest, TheSlowestReceiverOfABroadcastHoldsTheLinkBack) {
  to_everybody = true;
  const auto quick = TestRovik::makeRunning(3, "quick");
  run();
  ASSERT_TRUE(pair.send(std::string(10000, 'x')));
  EXPECT_TRUE(eventually([&] { return heldBack(); }));
  gate.open();
  EXPECT_TRUE(receiver->waitForMessages(10000));
  EXPECT_TRUE(quick->waitForMessages(10000));
  expectInOrder(*receiver, 10000);
  expectInOrder(*quick, 10000);
}

TEST_F(BackPressureTest, ALongStreamNeverFillsTheMemory) {
  constexpr std::size_t kStream = 100000;
  const auto before = drovane::RecordPool::inUse();
  gate.open();
  run();
  std::thread peer([&] { EXPECT_TRUE(pair.send(std::string(kStream, 'x'))); });
  std::size_t most = 0;
  EXPECT_TRUE(eventually([&] {
    most = std::max(most, receiver->host().status().queued);
    return receiver->receivedCount() == kStream;
  }));
  peer.join();
  EXPECT_LE(most, kMostThatWait);
  expectInOrder(*receiver, kStream);
  feeder.reset();
  receiver.reset();
  EXPECT_EQ(drovane::RecordPool::inUse(), before);
}

TEST_F(BackPressureTest, TwoLinksFeedOneReceiver) {
  SocketPair other_pair;
  const auto other = TestRovik::make(3, "other");
  std::atomic<std::size_t> fed_by_other{0};
  other->fd = other_pair.near.get();
  other->on_link = [&] {
    std::array<char, kAtATime> buffer;
    const ssize_t count = read(other->fd, buffer.data(), buffer.size());
    for (ssize_t i = 0; i < count; ++i) other->messageSnd(to(2, newNote("other")).get());
    fed_by_other += static_cast<std::size_t>(count);
  };
  run();
  other->run();
  ASSERT_TRUE(pair.send(std::string(10000, 'x')));
  ASSERT_TRUE(other_pair.send(std::string(10000, 'y')));
  EXPECT_TRUE(eventually([&] { return heldBack() && other->host().status().held_back; }));
  gate.open();
  EXPECT_TRUE(receiver->waitForMessages(20000));
  EXPECT_EQ(receiver->countOf("message other"), 10000U);
}

}  // namespace
