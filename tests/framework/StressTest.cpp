// Several roviks and threads that send to each other at once.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "framework/RecordPool.h"
#include "support/Message.h"
#include "support/TestRovik.h"

namespace {

constexpr int kRoviks = 4;
constexpr int kRounds = 300;
// Each round brings every rovik one message by number, one by name and one broadcast of each other
// rovik, and the same of that rovik's second thread.
constexpr std::size_t kExpected = std::size_t{kRounds} * 3 * 2 * (kRoviks - 1);

std::string nameOf(int id) { return "rovik" + std::to_string(id); }

// One round: to every other rovik by number and by name, and once to all. `who` marks the thread.
void sendRound(TestRovik& from, const std::string& who, int round) {
  const std::string mark = who + ' ' + std::to_string(round);
  for (int id = 1; id <= kRoviks; ++id) {
    if (id == from.id) continue;
    from.messageSnd(to(static_cast<std::uint32_t>(id), newText("number " + mark)).get());
    from.messageSnd(to(nameOf(id), newNote("name " + mark)).get());
  }
  from.messageSnd(newText("all " + mark).get());
}

// Every message came exactly once, and those of one thread and one kind in order.
void expectEachOnceInOrder(const TestRovik& rovik) {
  std::map<std::string, int> next;
  for (const auto& msg : rovik.received()) {
    const std::size_t gap = msg.text.rfind(' ');
    const std::string series = msg.src_s + ' ' + msg.text.substr(0, gap);
    ASSERT_EQ(std::stoi(msg.text.substr(gap)), next[series]++) << series;
  }
  EXPECT_EQ(next.size(), std::size_t{3} * 2 * (kRoviks - 1));
  for (const auto& [series, count] : next) EXPECT_EQ(count, kRounds) << series;
}

TEST(StressTest, EveryMessageArrivesExactlyOnceAndEveryRecordComesBack) {
  const auto before = drovane::RecordPool::inUse();
  {
    std::vector<std::unique_ptr<TestRovik>> roviks;
    for (int id = 1; id <= kRoviks; ++id) {
      roviks.push_back(TestRovik::make(id, nameOf(id)));
      TestRovik& rovik = *roviks.back();
      rovik.on_command = [&rovik](const Words& words) {
        sendRound(rovik, "inside", std::stoi(words.at(0)));
        return "OK";
      };
    }
    for (const auto& rovik : roviks) rovik->run();
    std::vector<std::thread> threads;
    for (const auto& rovik : roviks) {
      threads.emplace_back([&rovik] {
        for (int i = 0; i < kRounds; ++i) EXPECT_EQ(rovik->command({std::to_string(i)}), "OK");
      });
      threads.emplace_back([&rovik] {
        for (int i = 0; i < kRounds; ++i) sendRound(*rovik, "outside", i);
      });
    }
    for (auto& thread : threads) thread.join();
    for (const auto& rovik : roviks) {
      EXPECT_TRUE(rovik->waitForMessages(kExpected));
      expectEachOnceInOrder(*rovik);
    }
  }
  EXPECT_EQ(drovane::RecordPool::inUse(), before);
}

TEST(StressTest, RoviksComeAndGoWhileOthersSend) {
  const auto before = drovane::RecordPool::inUse();
  {
    const auto sender = TestRovik::make(1, "sender");
    sender->on_timer = [&sender] {
      for (int i = 0; i < 20; ++i) {
        sender->messageSnd(newText("to all").get());
        sender->messageSnd(to(2, newText("to one")).get());
        sender->messageSnd(to("guest", newNote("by name")).get());
      }
      sender->timer.set({0, 0}, false);
    };
    sender->period = TimeValue(0, 0);
    sender->run();
    for (int i = 0; i < 100; ++i) {
      const auto guest = TestRovik::makeRunning(2, "guest");
      ASSERT_TRUE(guest->waitForMessages(30)) << i;
      guest->messageSnd(to(1, newNote("bye")).get());
    }
    EXPECT_TRUE(sender->waitForMessages(100));
  }
  EXPECT_EQ(drovane::RecordPool::inUse(), before);
}

TEST(StressTest, ManyRoviksAskOneAtOnce) {
  const auto oracle = TestRovik::make(100, "oracle");
  oracle->on_command = [](const Words& words) { return words.at(0); };
  oracle->run();
  std::vector<std::unique_ptr<TestRovik>> askers;
  for (int id = 1; id <= 4; ++id) {
    askers.push_back(TestRovik::make(id, nameOf(id)));
    TestRovik& asker = *askers.back();
    asker.on_command = [&asker](const Words& words) {
      const auto request = to("oracle", newCommand(words.at(0)));
      const Owned<RovikMessage> reply(asker.messageSndBlock(request.get()));
      return reply ? textOf(*reply) : "null";
    };
    asker.run();
  }
  std::vector<std::thread> threads;
  for (const auto& asker : askers) {
    threads.emplace_back([&asker] {
      for (int i = 0; i < 300; ++i) {
        const std::string question = asker->name + '-' + std::to_string(i);
        ASSERT_EQ(asker->command({question}), question);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (const auto& asker : askers) EXPECT_TRUE(asker->received().empty());
}

}  // namespace
