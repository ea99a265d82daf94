// Turns of the loop that are out of the ordinary.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "faults/LibraryFaults.h"
#include "support/DescriptorLimits.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/Message.h"
#include "support/SocketPair.h"
#include "support/TestRovik.h"

namespace {

using drovane::Command;
using drovane::CommandResult;

TEST(RovikTurnTest, ALinkThatDoesNotFitIntoReadfdsIsReadableAllTheSame) {
  const DescriptorLimit enough(FD_SETSIZE + 64);
  SocketPair pair;
  const drovane::Descriptor high = drovane::moveAboveLinks(std::move(pair.near));
  ASSERT_GE(high.get(), FD_SETSIZE);
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->fd = high.get();
  rovik->on_link = [&] {
    fd_set none;
    FD_ZERO(&none);
    const bool empty = std::memcmp(&none, &rovik->readfds, sizeof none) == 0;
    rovik->note(empty ? "readfds are empty" : "readfds hold something");
    char byte = 0;
    EXPECT_EQ(::read(rovik->fd, &byte, 1), 1);
  };
  rovik->run();
  ASSERT_TRUE(pair.send("x"));
  EXPECT_TRUE(rovik->waitForEvent("readfds are empty"));
}

TEST(RovikTurnTest, WithoutATimerTheLoopSleepsUntilSomethingComes) {
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->on_command = [&](const Words& words) {
    if (words.at(0) == "disarm") rovik->timer.clear();
    return "DONE";
  };
  rovik->run();
  EXPECT_EQ(rovik->command({"disarm"}), "DONE");
  rovik->passTime(1000);
  EXPECT_EQ(rovik->command({"another"}), "DONE");
  EXPECT_EQ(rovik->countOf("timer"), 0U);
}

TEST(RovikTurnTest, ACommandRequestWithoutASenderIsRunAndNotAnswered) {
  const auto rovik = TestRovik::make(1, "boiler");
  const auto other = TestRovik::make(2, "other");
  rovik->on_command = [](const Words&) { return "DONE"; };
  const auto request = to(1, newCommand("go"));
  request->src = NO_DESTINATION;
  other->messageSnd(request.get());
  rovik->run();
  other->run();
  EXPECT_TRUE(rovik->waitForEvent("command go"));
  rovik->messageSnd(to(2, newNote("afterwards")).get());
  ASSERT_TRUE(other->waitForMessages(1));
  EXPECT_EQ(other->received().at(0).text, "afterwards");
}

TEST(RovikTurnTest, ACommandThatWasWithdrawnIsPassedOver) {
  const auto rovik = TestRovik::make(1, "boiler");
  Gate gate;
  rovik->on_message = [&](RovikMessage*) { gate.pass(); };
  rovik->on_command = [](const Words&) { return "DONE"; };
  rovik->run();
  rovik->messageSnd(to(1, newNote("busy")).get());
  ASSERT_TRUE(gate.waitForVisitor());
  const auto command = std::make_shared<Command>(
      Words{"late"}, [](const CommandResult&) { ADD_FAILURE() << "it was answered"; });
  ASSERT_TRUE(rovik->host().post(command));
  ASSERT_TRUE(command->withdraw());
  gate.open();
  EXPECT_EQ(rovik->command({"next"}), "DONE");
  EXPECT_EQ(rovik->countOf("command late"), 0U);
}

TEST(RovikTurnTest, ACommandThatWasWithdrawnIsNotRefusedWhenTheRovikEnds) {
  const auto rovik = TestRovik::make(1, "boiler");
  Gate gate;
  rovik->on_message = [&](RovikMessage*) { gate.pass(); };
  rovik->run();
  rovik->messageSnd(to(1, newNote("busy")).get());
  ASSERT_TRUE(gate.waitForVisitor());
  const auto command = std::make_shared<Command>(
      Words{"late"}, [](const CommandResult&) { ADD_FAILURE() << "it was answered"; });
  ASSERT_TRUE(rovik->host().post(command));
  ASSERT_TRUE(command->withdraw());
  rovik->host().askToStop();
  gate.open();
  EXPECT_EQ(rovik->stop(), 0);
  EXPECT_EQ(rovik->countOf("command late"), 0U);
}

TEST(RovikTurnTest, AnExceptionOfTheDescriptionIsLoggedAndWarnedOf) {
  LogCapture log;
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->on_description = [](cJSON*) { throw std::runtime_error("no idea"); };
  rovik->on_command = [](const Words&) { return "DONE"; };
  EXPECT_EQ(rovik->command({"go"}), "DONE");
  EXPECT_EQ(log.lines(),
            (std::vector<CapturedLine>{{2, 1, "boiler", "exception in getDescription: no idea"}}));
  EXPECT_EQ(rovik->host().status().warning, "exception in getDescription: no idea");
  EXPECT_EQ(rovik->host().status().description, "{}");
}

TEST(RovikTurnTest, WhenItsThreadCannotBeStartedItsCommandsRunDirectly) {
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->on_command = [](const Words&) { return "DONE"; };
  {
    const LibraryFault fault("pthread_create", EAGAIN);
    EXPECT_EQ(rovik->host().start(), EAGAIN);
  }
  EXPECT_FALSE(rovik->host().status().running);
  EXPECT_EQ(rovik->command({"go"}), "DONE");
  EXPECT_EQ(rovik->host().start(), 0);
  EXPECT_TRUE(eventually([&] { return rovik->host().status().running; }));
}

TEST(RovikTurnTest, AValueKeepsATimeOfMicrosecondsOnly) {
  const auto sender = TestRovik::make(1, "sender");
  const auto receiver = TestRovik::make(2, "receiver");
  std::atomic<std::uint32_t> seconds{1};
  receiver->on_message = [&](RovikMessage* msg) { seconds = static_cast<MMData&>(*msg).tv_sec; };
  const auto data = to(2, newText("x"));
  data->tv_usec = 5;
  sender->messageSnd(data.get());
  receiver->run();
  ASSERT_TRUE(receiver->waitForMessages(1));
  EXPECT_EQ(seconds.load(), 0U);
}

}  // namespace
