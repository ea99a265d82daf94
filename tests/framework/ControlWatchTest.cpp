// What those who watch are shown, and what becomes of the rest.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "framework/ControlWatch.h"
#include "framework/Outbox.h"
#include "framework/RecordPool.h"
#include "support/Message.h"

namespace {

using drovane::ControlWatch;
using drovane::Mailbox;
using drovane::RecordPool;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ControlWatchTest : public testing::Test {
 protected:
  void send(const std::string& text) { outbox.sendNow(*newNote(text)); }

  // The lines of one turn.
  std::vector<std::string> handedOut() {
    std::vector<std::string> lines;
    watch.handOut([&](std::uint64_t, const std::string& line) { lines.push_back(line); },
                  [&](std::uint64_t count) { lost += count; });
    return lines;
  }

  const std::shared_ptr<drovane::Waker> waker = std::make_shared<drovane::Waker>();
  drovane::Outbox outbox{std::make_shared<Mailbox>(1, "sender", waker)};
  ControlWatch watch{waker};
  std::uint64_t lost = 0;
};

TEST_F(ControlWatchTest, NobodyIsShownAnythingUntilSomebodyWatches) {
  send("before");
  watch.add(1);
  watch.add(2);
  send("meanwhile");
  EXPECT_THAT(handedOut(),
              ElementsAre(HasSubstr(R"("msg":"meanwhile")"), HasSubstr(R"("msg":"meanwhile")")));
  watch.remove(1);
  send("for one");
  EXPECT_THAT(handedOut(), ElementsAre(HasSubstr(R"("msg":"for one")")));
  watch.remove(2);
  send("afterwards");
  EXPECT_FALSE(watch.waiting());
  EXPECT_THAT(handedOut(), IsEmpty());
}

TEST_F(ControlWatchTest, AFloodIsHandedOutInPartsAndWhatDidNotFitIsCounted) {
  constexpr std::size_t kTooMany = 10;
  watch.add(1);
  for (std::size_t i = 0; i < Mailbox::kHardLimit + kTooMany; ++i) send("x");
  EXPECT_EQ(handedOut().size(), 512U);
  EXPECT_EQ(lost, kTooMany);
  EXPECT_TRUE(watch.waiting());
  std::size_t shown = 512;
  while (watch.waiting()) shown += handedOut().size();
  EXPECT_EQ(shown, Mailbox::kHardLimit);
  EXPECT_EQ(lost, kTooMany);
}

TEST_F(ControlWatchTest, WhatIsLeftWhenTheLastOneLeavesIsReleased) {
  const std::int64_t in_use = RecordPool::inUse();
  watch.add(1);
  for (int i = 0; i < 1000; ++i) send("x");
  EXPECT_EQ(handedOut().size(), 512U);
  send("y");
  EXPECT_GT(RecordPool::inUse(), in_use);
  watch.remove(1);
  EXPECT_EQ(RecordPool::inUse(), in_use);
}

}  // namespace
