// The numbers of messages where they begin anew.
#include <gtest/gtest.h>

#include <vector>

#include "framework/Router.h"
#include "support/Message.h"
#include "support/TestRovik.h"

namespace {

using drovane::Router;

// Moves the counter of the process to its last number but `left`.
void nearlyExhaustNumbers(std::uint32_t left) {
  const std::uint32_t next = Router::global().nextSeqnr() + 1;
  Router::global().reserveSeqnrs(0U - next - left);
}

TEST(SequenceNumbersTest, ZeroIsPassedOverWhenTheyBeginAnew) {
  nearlyExhaustNumbers(1);
  EXPECT_EQ(Router::global().nextSeqnr(), 0xFFFFFFFFU);
  EXPECT_EQ(Router::global().nextSeqnr(), 1U);
}

TEST(SequenceNumbersTest, ZeroIsPassedOverInsideASendersBlockToo) {
  const auto rovik = TestRovik::make(1, "boiler");
  nearlyExhaustNumbers(2);
  // Sent inside a command, from a block of numbers of its own.
  rovik->on_command = [&](const Words&) {
    for (int i = 0; i < 4; ++i) rovik->messageSnd(to(1, newNote("x")).get());
    return "DONE";
  };
  rovik->command({"go"});
  rovik->run();
  ASSERT_TRUE(rovik->waitForMessages(4));
  std::vector<std::uint32_t> numbers;
  for (const Received& each : rovik->received()) numbers.push_back(each.seqnr);
  EXPECT_EQ(numbers, (std::vector<std::uint32_t>{0xFFFFFFFE, 0xFFFFFFFF, 1, 2}));
}

}  // namespace
