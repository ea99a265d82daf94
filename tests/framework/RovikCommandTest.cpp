// Configuration commands: on which thread they run, when, and what they answer.
#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "support/LogCapture.h"
#include "support/Message.h"
#include "support/TestRovik.h"

namespace {

using drovane::CommandResult;

TEST(RovikCommandTest, RunsDirectlyBeforeTheStart) {
  const auto rovik = TestRovik::make(1, "boiler");
  std::thread::id runner;
  rovik->on_command = [&](const Words&) {
    runner = std::this_thread::get_id();
    return "DONE";
  };
  EXPECT_EQ(rovik->command({"port", "7001"}), "DONE");
  EXPECT_EQ(runner, std::this_thread::get_id());
  EXPECT_EQ(rovik->countOf("command port 7001"), 1U);
}

TEST(RovikCommandTest, RunsOnTheRoviksThreadAfterwards) {
  const auto rovik = TestRovik::make(1, "boiler");
  std::thread::id of_command;
  std::thread::id of_message;
  rovik->on_command = [&](const Words&) {
    of_command = std::this_thread::get_id();
    return "DONE";
  };
  rovik->on_message = [&](RovikMessage*) { of_message = std::this_thread::get_id(); };
  rovik->run();
  EXPECT_EQ(rovik->command({"x"}), "DONE");
  rovik->messageSnd(to(1, newNote("x")).get());
  EXPECT_TRUE(rovik->waitForMessages(1));
  rovik->stop();
  EXPECT_NE(of_command, std::this_thread::get_id());
  EXPECT_EQ(of_command, of_message);
}

TEST(RovikCommandTest, RunsDirectlyAgainAfterTheStop) {
  const auto rovik = TestRovik::makeRunning(1, "boiler");
  rovik->stop();
  std::thread::id runner;
  rovik->on_command = [&](const Words&) {
    runner = std::this_thread::get_id();
    return "DONE";
  };
  EXPECT_EQ(rovik->command({"close"}), "DONE");
  EXPECT_EQ(runner, std::this_thread::get_id());
}

TEST(RovikCommandTest, WaitsForTheEndOfTheEventInHand) {
  const auto rovik = TestRovik::make(1, "boiler");
  Gate gate;
  rovik->on_message = [&](RovikMessage*) { gate.pass(); };
  rovik->run();
  rovik->messageSnd(to(1, newNote("long")).get());
  EXPECT_TRUE(gate.waitForVisitor());
  std::string reply;
  std::thread commander([&] { reply = rovik->command({"x"}); });
  EXPECT_EQ(rovik->countOf("command x"), 0U);
  gate.open();
  commander.join();
  EXPECT_EQ(reply, "OK");
  EXPECT_EQ(rovik->events(), (std::vector<std::string>{"message long", "command x"}));
}

TEST(RovikCommandTest, ComesBetweenTwoMessagesOfALongQueue) {
  const auto rovik = TestRovik::make(1, "boiler");
  Gate gate;
  rovik->on_message = [&](RovikMessage*) { gate.pass(); };
  for (int i = 0; i < 100; ++i) rovik->messageSnd(to(1, newNote("m")).get());
  rovik->run();
  EXPECT_TRUE(gate.waitForVisitor());
  const auto command = std::make_shared<drovane::Command>(Words{"x"}, [](const CommandResult&) {});
  EXPECT_TRUE(rovik->host().post(command));
  gate.open();
  EXPECT_TRUE(rovik->waitForMessages(100));
  const auto events = rovik->events();
  ASSERT_GE(events.size(), 2U);
  EXPECT_EQ(events[1], "command x");
}

TEST(RovikCommandTest, CommandsRunInTheirOrder) {
  const auto rovik = TestRovik::make(1, "boiler");
  Gate gate;
  rovik->on_message = [&](RovikMessage*) { gate.pass(); };
  rovik->run();
  rovik->messageSnd(to(1, newNote("m")).get());
  EXPECT_TRUE(gate.waitForVisitor());
  std::vector<std::string> replies;
  for (const char* word : {"a", "b", "c"}) {
    EXPECT_TRUE(rovik->host().post(std::make_shared<drovane::Command>(
        Words{word}, [&](const CommandResult& result) { replies.push_back(result.text); })));
  }
  gate.open();
  EXPECT_EQ(rovik->command({"d"}), "OK");
  EXPECT_EQ(rovik->events(), (std::vector<std::string>{"message m", "command a", "command b",
                                                       "command c", "command d"}));
  EXPECT_EQ(replies.size(), 3U);
}

TEST(RovikCommandTest, GetsAVectorOfAtLeastTenEntries) {
  class Counter : public Rovik {
   public:
    std::string interpretCmd(char** arg) override {
      for (int i = 2; i < 10; ++i)
        if (arg[i] != nullptr) return "ERROR";
      arg[1][0] = 'T';
      return arg[1];
    }
  };
  const drovane::IdentityForConstruction identity(1, "boiler");
  Counter counter;
  EXPECT_EQ(drovane::RovikHost::of(counter).command({"mode", "tcp"}).text, "Tcp");
}

TEST(RovikCommandTest, AnEmptyCommandLineIsNotHandedToTheRovik) {
  const auto rovik = TestRovik::make(1, "boiler");
  EXPECT_TRUE(rovik->command({}).empty());
  rovik->run();
  EXPECT_TRUE(rovik->command({}).empty());
  EXPECT_EQ(rovik->countOf("command "), 0U);
}

TEST(RovikCommandTest, AnExceptionIsAnErrorReply) {
  LogCapture log(2);
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->on_command = [](const Words&) -> std::string { throw std::runtime_error("boom"); };
  EXPECT_EQ(rovik->command({"x"}), "ERROR (EXCEPTION)");
  rovik->run();
  EXPECT_EQ(rovik->command({"x"}), "ERROR (EXCEPTION)");
  EXPECT_EQ(log.count("exception in interpretCmd: boom"), 2U);
}

TEST(RovikCommandTest, WhatACommandSendsLeavesWhenItReturns) {
  const auto receiver = TestRovik::makeRunning(2, "receiver");
  const auto rovik = TestRovik::make(1, "boiler");
  rovik->on_command = [&](const Words&) {
    rovik->messageSnd(to(2, newNote("sent")).get());
    return "OK";
  };
  rovik->command({"before the start"});
  EXPECT_TRUE(receiver->waitForEvent("message sent", 1));
  rovik->run();
  rovik->command({"afterwards"});
  EXPECT_TRUE(receiver->waitForEvent("message sent", 2));
}

// The one test that waits the whole time in earnest.
TEST(RovikCommandTest, ACommandThatGetsNoTurnInFiveSecondsIsRefusedAndNeverRun) {
  const auto rovik = TestRovik::make(1, "boiler");
  Gate gate;
  rovik->on_message = [&](RovikMessage*) { gate.pass(); };
  rovik->run();
  rovik->messageSnd(to(1, newNote("long")).get());
  EXPECT_TRUE(gate.waitForVisitor());
  const auto before = std::chrono::steady_clock::now();
  const auto result = rovik->host().command({"x"});
  const auto waited = std::chrono::steady_clock::now() - before;
  EXPECT_FALSE(result.answered);
  EXPECT_EQ(result.text, "no turn within 5 s: the rovik is busy");
  EXPECT_GE(waited, std::chrono::seconds(5));
  EXPECT_LT(waited, std::chrono::seconds(10));
  gate.open();
  EXPECT_EQ(rovik->command({"y"}), "OK");
  EXPECT_EQ(rovik->countOf("command x"), 0U);
}

TEST(RovikCommandTest, ACommandThatWaitsWhenTheRovikStopsIsRefused) {
  const auto rovik = TestRovik::make(1, "boiler");
  Gate gate;
  rovik->on_message = [&](RovikMessage*) { gate.pass(); };
  rovik->run();
  rovik->messageSnd(to(1, newNote("long")).get());
  EXPECT_TRUE(gate.waitForVisitor());
  std::vector<CommandResult> results;
  EXPECT_TRUE(rovik->host().post(std::make_shared<drovane::Command>(
      Words{"x"}, [&](const CommandResult& result) { results.push_back(result); })));
  rovik->host().askToStop();
  gate.open();
  rovik->stop();
  ASSERT_EQ(results.size(), 1U);
  EXPECT_FALSE(results[0].answered);
  EXPECT_EQ(results[0].text, "the rovik is being stopped");
  EXPECT_EQ(rovik->countOf("command x"), 0U);
}

TEST(RovikCommandTest, NothingIsQueuedForAThreadThatDoesNotRun) {
  const auto rovik = TestRovik::make(1, "boiler");
  const auto command = std::make_shared<drovane::Command>(Words{"x"}, [](const CommandResult&) {});
  EXPECT_FALSE(rovik->host().post(command));
  rovik->run();
  rovik->stop();
  EXPECT_FALSE(rovik->host().post(command));
  EXPECT_TRUE(command->begin());
}

TEST(RovikCommandTest, ExactlyOneOfBeginAndWithdrawSucceeds) {
  drovane::Command begun({"x"}, [](const CommandResult&) {});
  EXPECT_TRUE(begun.begin());
  EXPECT_FALSE(begun.withdraw());
  drovane::Command withdrawn({"x"}, [](const CommandResult&) {});
  EXPECT_TRUE(withdrawn.withdraw());
  EXPECT_FALSE(withdrawn.begin());
}

class CommandMessageTest : public testing::Test {
 protected:
  // The reply to a command request that the asker sends.
  Received replyTo(const std::string& line, std::uint32_t seqnr = 0) {
    const std::size_t before = asker->received().size();
    const auto request = to(1, newCommand(line));
    request->seqnr = seqnr;
    asker->messageSnd(request.get());
    EXPECT_TRUE(asker->waitForMessages(before + 1));
    return asker->received().at(before);
  }

  std::unique_ptr<TestRovik> rovik = TestRovik::make(1, "boiler");
  std::unique_ptr<TestRovik> asker = TestRovik::makeRunning(2, "asker");
};

TEST_F(CommandMessageTest, IsShownToSelectMMAndThenRunAndAnswered) {
  rovik->on_command = [](const Words& words) { return "got " + words.back(); };
  rovik->run();
  const auto reply = replyTo("port 7001", 4711);
  EXPECT_EQ(reply.type, MM_CMD_RESPONSE);
  EXPECT_EQ(reply.text, "got 7001");
  EXPECT_EQ(reply.seqnr, 4711U);
  EXPECT_EQ(reply.src, 1U);
  EXPECT_EQ(reply.src_s, "boiler");
  EXPECT_EQ(reply.dst, 2U);
  EXPECT_EQ(rovik->events(), (std::vector<std::string>{"message port 7001", "command port 7001"}));
}

TEST_F(CommandMessageTest, IsSplitIntoWordsLikeALineOfAConfiguration) {
  rovik->on_command = [](const Words& words) { return words.at(1); };
  rovik->run();
  EXPECT_EQ(replyTo("eolin 'a b'\"\\n\" # comment").text, "a b\\n");
}

TEST_F(CommandMessageTest, ALineThatCannotBeReadIsAnsweredWithAnError) {
  rovik->run();
  EXPECT_EQ(replyTo("port '7001").text.find("ERROR (quote is not closed"), 0U);
  EXPECT_EQ(rovik->countOf("command port"), 0U);
}

TEST_F(CommandMessageTest, AnEmptyLineIsAnsweredToo) {
  rovik->run();
  EXPECT_EQ(replyTo("").text, "");
  EXPECT_EQ(replyTo("  # only a comment").text, "");
  EXPECT_EQ(rovik->countOf("command "), 0U);
}

TEST_F(CommandMessageTest, AnExceptionIsAnErrorReply) {
  rovik->on_command = [](const Words&) -> std::string { throw std::runtime_error("boom"); };
  rovik->run();
  EXPECT_EQ(replyTo("x").text, "ERROR (EXCEPTION)");
}

TEST_F(CommandMessageTest, ARequestToEverybodyIsAnsweredByEachToTheAsker) {
  const auto lamp = TestRovik::makeRunning(3, "lamp");
  rovik->run();
  asker->messageSnd(newCommand("x").get());
  EXPECT_TRUE(asker->waitForMessages(2));
  for (const auto& reply : asker->received()) EXPECT_EQ(reply.dst, 2U);
}

}  // namespace
