// What those who trace a link are shown, and what becomes of the rest.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "framework/Clock.h"
#include "framework/ControlConnection.h"
#include "framework/ControlTrace.h"
#include "framework/LinkTraffic.h"
#include "framework/MessageJson.h"
#include "support/SocketPair.h"

namespace {

using drovane::ControlTrace;
using drovane::LinkTap;
using drovane::LinkTraffic;
using drovane::TraceQueue;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr std::uint64_t kClient = 1;
constexpr std::uint64_t kOther = 2;

// Two links, which open and carry bytes as the test says.
class ControlTraceTest : public testing::Test {
 protected:
  struct Told {
    std::vector<std::string> lines;
    std::uint64_t lost = 0;
    std::uint64_t lost_bytes = 0;
    std::vector<std::string> ended;
  };

  ControlTraceTest() {
    links["boiler"] = std::make_unique<LinkTraffic>();
    links["lamp"] = std::make_unique<LinkTraffic>();
  }

  LinkTraffic& boiler() { return *links.at("boiler"); }

  void setTap(const std::string& rovik, std::shared_ptr<LinkTap> tap) {
    if (const auto found = links.find(rovik); found != links.end())
      found->second->setTap(std::move(tap));
  }

  // What one turn hands out, by client.
  std::map<std::uint64_t, Told> handedOut() {
    std::map<std::uint64_t, Told> told;
    trace.handOut({[&](std::uint64_t client, const std::string& line, std::uint64_t) {
                     told[client].lines.push_back(line);
                   },
                   [&](std::uint64_t client, std::uint64_t events, std::uint64_t bytes) {
                     told[client].lost += events;
                     told[client].lost_bytes += bytes;
                   },
                   [&](std::uint64_t client, const std::string& rovik) {
                     told[client].ended.push_back(rovik);
                   }});
    return told;
  }

  // "received abc", "opened", ... in the order in which the client was told.
  std::vector<std::string> eventsFor(std::uint64_t client) {
    std::vector<std::string> events;
    const std::vector<std::string> lines = handedOut()[client].lines;
    for (const std::string& line : lines) {
      const drovane::Json json(cJSON_Parse(line.c_str()));
      std::string name;
      std::string bytes;
      drovane::readText(json.get(), "event", name);
      drovane::readText(json.get(), "bytes", bytes);
      events.push_back(bytes.empty() ? name : name + ' ' + bytes);
    }
    return events;
  }

  const std::shared_ptr<drovane::Waker> waker = std::make_shared<drovane::Waker>();
  std::map<std::string, std::unique_ptr<LinkTraffic>> links;
  ControlTrace trace{waker, [this](const std::string& rovik, std::shared_ptr<LinkTap> tap) {
                       setTap(rovik, std::move(tap));
                     }};
};

TEST_F(ControlTraceTest, EachEventIsALineWithItsTimes) {
  trace.add(kClient, "boiler", false);
  boiler().linkChanged(true);
  boiler().sent("STATUS?\r\n");
  boiler().received(std::string_view("\xff\0", 2));
  boiler().linkChanged(false);
  const std::string behind =
      R"(,"seconds":[0-9.e-]+,"time":"[0-9]+-..-..T..:..:..\....[+-]..:.."\})";
  EXPECT_THAT(
      handedOut()[kClient].lines,
      ElementsAre(
          MatchesRegex(R"(\{"event":"opened","rovik":"boiler")" + behind),
          MatchesRegex(R"(\{"event":"sent","rovik":"boiler","bytes":"STATUS\?\\r\\n")" + behind),
          MatchesRegex(R"(\{"event":"received","rovik":"boiler","bytes_hex":"ff00")" + behind),
          MatchesRegex(R"(\{"event":"closed","rovik":"boiler")" + behind)));
}

TEST_F(ControlTraceTest, SecondsCountFromTheBeginningOfTheTrace) {
  trace.add(kClient, "boiler", true);
  drovane::Clock::skip(12'345'000'000);
  boiler().received("x");
  const auto told = handedOut();
  const drovane::Json json(cJSON_Parse(told.at(kClient).lines.at(0).c_str()));
  const cJSON* const seconds = cJSON_GetObjectItemCaseSensitive(json.get(), "seconds");
  ASSERT_TRUE(cJSON_IsNumber(seconds));
  EXPECT_GE(seconds->valuedouble, 12.345);
  EXPECT_LT(seconds->valuedouble, 1000);
}

TEST_F(ControlTraceTest, NobodyIsToldWhatWentBeforeOrAfterwards) {
  boiler().received("before");
  trace.add(kClient, "boiler", true);
  EXPECT_TRUE(trace.contains(kClient));
  boiler().received("meanwhile");
  EXPECT_THAT(eventsFor(kClient), ElementsAre("received meanwhile"));
  trace.remove(kClient);
  EXPECT_FALSE(trace.contains(kClient));
  boiler().received("afterwards");
  EXPECT_FALSE(trace.waiting());
  EXPECT_THAT(handedOut(), IsEmpty());
}

TEST_F(ControlTraceTest, SeveralTraceTheSameLinkEachFromItsBeginning) {
  trace.add(kClient, "boiler", true);
  boiler().received("first");
  trace.add(kOther, "boiler", true);
  boiler().received("second");
  auto told = handedOut();
  EXPECT_EQ(told[kClient].lines.size(), 2U);
  EXPECT_EQ(told[kOther].lines.size(), 1U);
  trace.remove(kClient);
  boiler().received("third");
  EXPECT_THAT(eventsFor(kOther), ElementsAre("received third"));
}

TEST_F(ControlTraceTest, OneMayTraceSeveralLinks) {
  trace.add(kClient, "boiler", true);
  trace.add(kOther, "lamp", true);
  boiler().received("warm");
  links.at("lamp")->sent("on");
  auto told = handedOut();
  EXPECT_THAT(told[kClient].lines, ElementsAre(testing::HasSubstr("\"warm\"")));
  EXPECT_THAT(told[kOther].lines, ElementsAre(testing::HasSubstr("\"on\"")));
  trace.add(kClient, "lamp", true);
  links.at("lamp")->sent("off");
  EXPECT_THAT(eventsFor(kClient), ElementsAre("sent off"));
}

TEST_F(ControlTraceTest, ALinkIsOpenBeforeBytesGoOverItAndToldOnce) {
  trace.add(kClient, "boiler", false);
  // Opened, written to and closed between two looks at it.
  boiler().sent("wake up");
  boiler().linkIs(false);
  boiler().linkIs(false);
  boiler().received("now");
  boiler().linkChanged(true);
  boiler().linkIs(true);
  EXPECT_THAT(eventsFor(kClient),
              ElementsAre("opened", "sent wake up", "closed", "opened", "received now"));
}

TEST_F(ControlTraceTest, MoreThanAPieceBecomesSeveralEvents) {
  trace.add(kClient, "boiler", true);
  boiler().received(std::string(2 * TraceQueue::kPiece + 1, 'x'));
  EXPECT_THAT(eventsFor(kClient),
              ElementsAre("received " + std::string(TraceQueue::kPiece, 'x'),
                          "received " + std::string(TraceQueue::kPiece, 'x'), "received x"));
}

TEST_F(ControlTraceTest, AFloodIsHandedOutInPartsAndWhatDidNotFitIsCounted) {
  constexpr std::size_t kTooMany = 10;
  trace.add(kClient, "boiler", true);
  for (std::size_t i = 0; i < TraceQueue::kMostEvents + kTooMany; ++i) boiler().received("abc");
  auto told = handedOut()[kClient];
  EXPECT_EQ(told.lines.size(), 512U);
  EXPECT_EQ(told.lost, 0U);
  std::size_t shown = told.lines.size();
  while (trace.waiting()) {
    told = handedOut()[kClient];
    shown += told.lines.size();
  }
  EXPECT_EQ(shown, TraceQueue::kMostEvents);
  EXPECT_EQ(told.lost, kTooMany);
  EXPECT_EQ(told.lost_bytes, 3 * kTooMany);
  boiler().received("again");
  EXPECT_THAT(eventsFor(kClient), ElementsAre("received again"));
}

// What is missing is missing in one place, so a small event does not slip in behind a large one.
TEST_F(ControlTraceTest, BytesAreBoundedTooAndNothingSlipsInBehindWhatIsMissing) {
  const std::string large(TraceQueue::kMostBytes - 1, 'x');
  trace.add(kClient, "boiler", true);
  boiler().received(large);
  boiler().received("yy");
  boiler().received("z");
  std::size_t bytes = 0;
  Told last;
  while (trace.waiting()) {
    last = handedOut()[kClient];
    for (const std::string& line : last.lines)
      bytes += static_cast<std::size_t>(std::count(line.begin(), line.end(), 'x'));
  }
  EXPECT_EQ(bytes, large.size());
  EXPECT_EQ(last.lost, 2U);
  EXPECT_EQ(last.lost_bytes, 3U);
}

TEST_F(ControlTraceTest, ARovikThatGoesEndsItsTraceBehindItsLastEvent) {
  trace.add(kClient, "boiler", true);
  trace.add(kOther, "lamp", true);
  boiler().received("last");
  links.erase("boiler");
  EXPECT_TRUE(trace.waiting());
  auto told = handedOut();
  EXPECT_EQ(told[kClient].lines.size(), 1U);
  EXPECT_THAT(told[kClient].ended, ElementsAre("boiler"));
  EXPECT_FALSE(trace.contains(kClient));
  EXPECT_TRUE(trace.contains(kOther));
  EXPECT_FALSE(trace.waiting());
  EXPECT_EQ(ControlTrace::endLine("boiler"), R"({"event":"ended","rovik":"boiler"})");
}

TEST_F(ControlTraceTest, ARovikThatTakesTheNameIsTracedAnew) {
  trace.add(kClient, "boiler", true);
  links["boiler"] = std::make_unique<LinkTraffic>();
  trace.add(kOther, "boiler", true);
  boiler().received("new");
  auto told = handedOut();
  EXPECT_THAT(told[kClient].ended, ElementsAre("boiler"));
  EXPECT_THAT(told[kClient].lines, IsEmpty());
  EXPECT_EQ(told[kOther].lines.size(), 1U);
  // Whoever leaves the old one does not take the new one's tap off.
  trace.remove(kClient);
  boiler().received("newer");
  EXPECT_THAT(eventsFor(kOther), ElementsAre("received newer"));
}

TEST_F(ControlTraceTest, ATraceOfARovikThatHasJustGoneEndsAtOnce) {
  links.erase("boiler");
  trace.add(kClient, "boiler", true);
  EXPECT_THAT(handedOut()[kClient].ended, ElementsAre("boiler"));
}

TEST_F(ControlTraceTest, TheTapGoesWithTheLastWhoTraces) {
  std::weak_ptr<LinkTap> tap;
  {
    ControlTrace watched(waker, [&](const std::string&, const std::shared_ptr<LinkTap>& given) {
      if (given) tap = given;
      boiler().setTap(given);
    });
    watched.add(kClient, "boiler", true);
    watched.add(kOther, "boiler", true);
    watched.remove(kClient);
    EXPECT_FALSE(tap.expired());
    watched.remove(kOther);
    EXPECT_TRUE(tap.expired());
    watched.add(kClient, "boiler", true);
    EXPECT_FALSE(tap.expired());
  }
  EXPECT_TRUE(tap.expired());
}

// --- The connection, which tells how much was lost ---

TEST(ControlConnectionTest, TellsHowManyLinesAndBytesOfALinkWereLost) {
  SocketPair sockets;
  drovane::ControlConnection connection(std::move(sockets.near));
  connection.countDropped(2, 30);
  connection.tell("a line", 6);
  connection.countDropped(1);
  connection.tellLast("the end");
  ASSERT_TRUE(connection.flush());
  std::array<char, 200> sent{};
  const ssize_t count = ::read(sockets.far.get(), sent.data(), sent.size());
  ASSERT_GT(count, 0);
  EXPECT_EQ(std::string(sent.data(), static_cast<std::size_t>(count)),
            "{\"dropped\":2,\"dropped_bytes\":30}\na line\n{\"dropped\":1}\nthe end\n");
}

}  // namespace
