// messageSndBlock: who gets the answer, and every way in which there is none.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "framework/RecordPool.h"
#include "support/Eventually.h"
#include "support/Message.h"
#include "support/TestRovik.h"

namespace {

using testing::ElementsAre;

Owned<MMDataRequest> question() { return newMessage<MMDataRequest>(MM_DATA_REQUEST); }

// The address of an answer to `request`.
template <typename Kind>
Owned<Kind> answering(const RovikMessage& request, Owned<Kind> answer) {
  answer->dst = request.src;
  answer->seqnr = request.seqnr;
  return answer;
}

// Two roviks: the asker asks on the command "ask", number 2 answers as the test says.
class RovikRequestTest : public testing::Test {
 protected:
  RovikRequestTest() {
    asker->on_command = [this](const Words& words) { return ask(words); };
  }

  // Runs inside the asker: the text of the answer, or "null".
  std::string ask(const Words& words) {
    const auto request = to(static_cast<std::uint32_t>(std::stoul(words.at(1))), question());
    const Owned<RovikMessage> reply(asker->messageSndBlock(request.get()));
    return reply ? textOf(*reply) : "null";
  }

  // A command that waits for an answer, for tests that do something meanwhile.
  static std::future<std::string> asking(TestRovik& rovik, const std::string& whom) {
    return std::async(std::launch::async, [&rovik, whom] { return rovik.command({"ask", whom}); });
  }

  // Lets the time of a wait pass; what the command answers in the end.
  static std::string outwaited(TestRovik& rovik, std::future<std::string>& reply) {
    EXPECT_TRUE(eventually([&] {
      rovik.passTime(1);
      return reply.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }));
    return reply.get();
  }

  void run() {
    asker->run();
    oracle->run();
  }

  std::unique_ptr<TestRovik> asker = TestRovik::make(1, "asker");
  std::unique_ptr<TestRovik> oracle = TestRovik::make(2, "oracle");
};

TEST_F(RovikRequestTest, TheAnswerOfAnotherRovikComesBack) {
  oracle->on_message = [this](RovikMessage* msg) {
    oracle->messageSnd(answering(*msg, newText("21.5")).get());
  };
  run();
  EXPECT_EQ(asker->command({"ask", "2"}), "21.5");
  EXPECT_EQ(asker->command({"ask", "2"}), "21.5");
}

TEST_F(RovikRequestTest, TheAnswerGoesToTheWaiterAndNotIntoTheQueue) {
  oracle->on_message = [this](RovikMessage* msg) {
    oracle->messageSnd(answering(*msg, newText("21.5")).get());
    oracle->messageSnd(to(1, newNote("behind it")).get());
  };
  run();
  EXPECT_EQ(asker->command({"ask", "2"}), "21.5");
  EXPECT_TRUE(asker->waitForEvent("message behind it"));
  EXPECT_EQ(asker->received().size(), 1U);
}

TEST_F(RovikRequestTest, AnAnswerByNameIsAnAnswer) {
  oracle->on_message = [this](RovikMessage* msg) {
    auto reply = answering(*msg, newText("named"));
    reply->dst = NO_DESTINATION;
    reply->dst_s = "asker";
    oracle->messageSnd(reply.get());
  };
  run();
  EXPECT_EQ(asker->command({"ask", "2"}), "named");
}

TEST_F(RovikRequestTest, ACommandRequestIsAnsweredByTheFramework) {
  oracle->on_command = [](const Words& words) { return "echo " + words.at(0); };
  asker->on_command = [this](const Words&) {
    const auto request = to("oracle", newCommand("hello"));
    const Owned<RovikMessage> reply(asker->messageSndBlock(request.get()));
    return reply && reply->type == MM_CMD_RESPONSE ? textOf(*reply) : "null";
  };
  run();
  EXPECT_EQ(asker->command({"ask"}), "echo hello");
}

TEST_F(RovikRequestTest, WhatIsNoAnswerGoesIntoTheQueue) {
  oracle->on_message = [this](RovikMessage* msg) {
    oracle->messageSnd(answering(*msg, newNote("wrong kind")).get());
    auto wrong_number = answering(*msg, newText("wrong number"));
    wrong_number->seqnr += 1000;
    oracle->messageSnd(wrong_number.get());
    auto broadcast = answering(*msg, newText("broadcast"));
    broadcast->dst = NO_DESTINATION;
    oracle->messageSnd(broadcast.get());
    oracle->messageSnd(answering(*msg, newText("the answer")).get());
    oracle->messageSnd(answering(*msg, newText("one more")).get());
  };
  run();
  EXPECT_EQ(asker->command({"ask", "2"}), "the answer");
  EXPECT_TRUE(asker->waitForMessages(4));
  std::vector<std::string> texts;
  for (const auto& msg : asker->received()) texts.push_back(msg.text);
  EXPECT_THAT(texts, ElementsAre("wrong kind", "wrong number", "broadcast", "one more"));
}

TEST_F(RovikRequestTest, TheRequestCarriesItsNumberAndItsSender) {
  oracle->on_message = [this](RovikMessage* msg) {
    oracle->messageSnd(answering(*msg, newText("x")).get());
  };
  run();
  asker->command({"ask", "2"});
  EXPECT_TRUE(oracle->waitForMessages(1));
  const auto seen = oracle->received().at(0);
  EXPECT_EQ(seen.type, MM_DATA_REQUEST);
  EXPECT_EQ(seen.src, 1U);
  EXPECT_EQ(seen.src_s, "asker");
  EXPECT_NE(seen.seqnr, 0U);
}

TEST_F(RovikRequestTest, TheCallersRecordStaysAsItIs) {
  oracle->on_message = [this](RovikMessage* msg) {
    oracle->messageSnd(answering(*msg, newText("x")).get());
  };
  std::uint32_t seqnr = 1;
  asker->on_command = [&](const Words&) {
    const auto request = to(2, question());
    const Owned<RovikMessage> reply(asker->messageSndBlock(request.get()));
    seqnr = request->seqnr;
    return reply ? "OK" : "null";
  };
  run();
  EXPECT_EQ(asker->command({"ask"}), "OK");
  EXPECT_EQ(seqnr, 0U);
}

TEST_F(RovikRequestTest, WorksBeforeTheStartToo) {
  oracle->on_message = [this](RovikMessage* msg) {
    oracle->messageSnd(answering(*msg, newText("early")).get());
  };
  oracle->run();
  EXPECT_EQ(asker->command({"ask", "2"}), "early");
}

TEST_F(RovikRequestTest, AnUnknownDestinationIsNullAtOnce) {
  run();
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(asker->command({"ask", "9"}), "null");
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(4));
}

TEST_F(RovikRequestTest, NoRequestIsNoAnswer) {
  EXPECT_EQ(asker->messageSndBlock(nullptr), nullptr);
}

// The one test that waits the whole time in earnest.
TEST_F(RovikRequestTest, NoAnswerInFiveSecondsIsNull) {
  asker->on_command = [this](const Words& words) {
    const auto before = std::chrono::steady_clock::now();
    const std::string reply = ask(words);
    const auto waited = std::chrono::steady_clock::now() - before;
    return reply + (waited >= std::chrono::seconds(5) && waited < std::chrono::seconds(10)
                        ? " after 5 s"
                        : " too early or too late");
  };
  EXPECT_EQ(asker->command({"ask", "2"}), "null after 5 s");
}

TEST_F(RovikRequestTest, TheWaitEndsWithTheClock) {
  run();
  auto reply = asking(*asker, "2");
  EXPECT_TRUE(oracle->waitForMessages(1));
  EXPECT_EQ(outwaited(*asker, reply), "null");
}

TEST_F(RovikRequestTest, NothingElseHappensInsideTheAskerMeanwhile) {
  run();
  auto reply = asking(*asker, "2");
  EXPECT_TRUE(oracle->waitForMessages(1));
  oracle->messageSnd(to(1, newNote("waits")).get());
  EXPECT_THAT(asker->events(), ElementsAre("command ask 2"));
  EXPECT_EQ(outwaited(*asker, reply), "null");
  EXPECT_TRUE(asker->waitForEvent("message waits"));
}

TEST_F(RovikRequestTest, ALateAnswerIsAMessageLikeAnyOther) {
  std::uint32_t seqnr = 0;
  oracle->on_message = [&](RovikMessage* msg) { seqnr = msg->seqnr; };
  run();
  auto reply = asking(*asker, "2");
  EXPECT_TRUE(oracle->waitForMessages(1));
  EXPECT_EQ(outwaited(*asker, reply), "null");
  auto late = to(1, newText("late"));
  late->seqnr = seqnr;
  oracle->messageSnd(late.get());
  EXPECT_TRUE(asker->waitForEvent("message late"));
}

TEST_F(RovikRequestTest, TwoThatAskEachOtherAtOnceBothEnd) {
  oracle->on_command = [this](const Words&) {
    const Owned<RovikMessage> reply(oracle->messageSndBlock(to(1, question()).get()));
    return reply ? "answered" : "null";
  };
  run();
  auto first = asking(*asker, "2");
  auto second = asking(*oracle, "1");
  EXPECT_TRUE(eventually([this] {
    return asker->host().status().received == 1 && oracle->host().status().received == 1;
  }));
  EXPECT_EQ(outwaited(*asker, first), "null");
  EXPECT_EQ(outwaited(*oracle, second), "null");
  EXPECT_TRUE(asker->waitForMessages(1));
  EXPECT_TRUE(oracle->waitForMessages(1));
}

TEST_F(RovikRequestTest, ARequestToOneselfEndsAndIsThenReceived) {
  run();
  auto reply = asking(*asker, "1");
  EXPECT_TRUE(eventually([this] { return asker->host().status().received == 1; }));
  EXPECT_EQ(outwaited(*asker, reply), "null");
  EXPECT_TRUE(asker->waitForMessages(1));
  EXPECT_EQ(asker->received().at(0).type, MM_DATA_REQUEST);
}

TEST_F(RovikRequestTest, ARequestToARovikThatStopsEnds) {
  Gate gate;
  oracle->on_message = [&](RovikMessage*) { gate.pass(); };
  run();
  auto reply = asking(*asker, "2");
  EXPECT_TRUE(gate.waitForVisitor());
  oracle->host().askToStop();
  gate.open();
  oracle.reset();
  EXPECT_EQ(outwaited(*asker, reply), "null");
  EXPECT_EQ(asker->command({"ask", "2"}), "null");
}

TEST_F(RovikRequestTest, StopFreesAWaitingRovik) {
  run();
  auto reply = asking(*asker, "2");
  EXPECT_TRUE(oracle->waitForMessages(1));
  const auto before = std::chrono::steady_clock::now();
  asker->stop();
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(4));
  EXPECT_EQ(reply.get(), "null");
}

TEST_F(RovikRequestTest, ARovikThatStopsAsksNobody) {
  asker->run();
  asker->stop();
  EXPECT_EQ(asker->command({"ask", "2"}), "null");
  EXPECT_EQ(oracle->host().status().queued, 0U);
}

TEST_F(RovikRequestTest, WhatWaitsToLeaveGoesBeforeTheRequest) {
  oracle->on_message = [this](RovikMessage* msg) {
    if (msg->type == MM_DATA_REQUEST) oracle->messageSnd(answering(*msg, newText("x")).get());
  };
  asker->on_command = [this](const Words& words) {
    asker->messageSnd(to(2, newNote("before")).get());
    const std::string reply = ask(words);
    asker->messageSnd(to(2, newNote("after")).get());
    return reply;
  };
  run();
  EXPECT_EQ(asker->command({"ask", "2"}), "x");
  EXPECT_TRUE(oracle->waitForMessages(3));
  EXPECT_THAT(oracle->events(), ElementsAre("message before", "message ", "message after"));
}

TEST_F(RovikRequestTest, ManyRequestsLeaveNoRecordBehind) {
  const auto before = drovane::RecordPool::inUse();
  oracle->on_message = [this](RovikMessage* msg) {
    for (int i = 0; i < 2; ++i) oracle->messageSnd(answering(*msg, newText("x")).get());
  };
  run();
  for (int i = 0; i < 500; ++i) ASSERT_EQ(asker->command({"ask", "2"}), "x");
  asker.reset();
  oracle.reset();
  EXPECT_EQ(drovane::RecordPool::inUse(), before);
}

}  // namespace
