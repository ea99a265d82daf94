// What a link has carried, as it is counted and shown to a tap.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <string>
#include <vector>

#include "framework/Clock.h"
#include "framework/LinkTraffic.h"

namespace {

using drovane::LinkTap;
using drovane::LinkTraffic;
using testing::ElementsAre;

class Notes final : public LinkTap {
 public:
  void see(Event event, std::string_view bytes) override {
    constexpr const char* kNames[] = {"received", "sent", "opened", "closed"};
    if (short_of_memory) throw std::bad_alloc();
    events.push_back(std::string(kNames[static_cast<int>(event)]) + ' ' + std::string(bytes));
  }

  bool short_of_memory = false;
  std::vector<std::string> events;
};

TEST(LinkTrafficTest, BytesAndUnitsOfBothDirectionsAreCounted) {
  LinkTraffic traffic;
  traffic.received("T=21");
  traffic.received(".3\nT=22\n");
  traffic.unitsReceived(2, "T=22");
  traffic.sent("ON\n");
  traffic.sent("OFF\n");
  const LinkTraffic::Figures figures = traffic.figures();
  EXPECT_EQ(figures.in.bytes, 12U);
  EXPECT_EQ(figures.in.units, 2U);
  EXPECT_EQ(figures.out.bytes, 7U);
  EXPECT_EQ(figures.out.units, 2U);
  EXPECT_EQ(figures.dropped, 0U);
}

TEST(LinkTrafficTest, TheLastUnitOfEachDirectionIsKeptWithItsMoment) {
  LinkTraffic traffic;
  EXPECT_EQ(traffic.figures().in.last_time, 0);
  EXPECT_EQ(traffic.figures().out.last_time, 0);
  const std::int64_t before = drovane::Clock::coarse();
  traffic.unitsReceived(1, "T=21.3");
  traffic.sent("HEAT=ON\r\n");
  const LinkTraffic::Figures figures = traffic.figures();
  EXPECT_EQ(figures.in.last, "T=21.3");
  EXPECT_EQ(figures.out.last, "HEAT=ON\\r\\n");
  EXPECT_GE(figures.in.last_time, before);
  EXPECT_LE(figures.in.last_time, drovane::Clock::now());
  EXPECT_GE(figures.out.last_time, before);
}

TEST(LinkTrafficTest, OfALongUnitTheBeginningIsKept) {
  LinkTraffic traffic;
  traffic.unitsReceived(1, std::string(4096, 'a'));
  traffic.sent(std::string(4096, '\x01'));
  EXPECT_EQ(traffic.figures().in.last, std::string(80, 'a'));
  EXPECT_EQ(traffic.figures().out.last.size(), 80U);
}

TEST(LinkTrafficTest, DroppedUnitsAreCounted) {
  LinkTraffic traffic;
  traffic.unitDropped();
  traffic.unitDropped();
  EXPECT_EQ(traffic.figures().dropped, 2U);
}

TEST(LinkTrafficTest, TheMomentAtWhichTheLinkChangedIsKept) {
  LinkTraffic traffic;
  EXPECT_EQ(traffic.figures().link_changed, 0);
  traffic.linkChanged(true);
  const std::int64_t opened = traffic.figures().link_changed;
  EXPECT_GT(opened, 0);
  traffic.linkChanged(false);
  EXPECT_GE(traffic.figures().link_changed, opened);
}

TEST(LinkTrafficTest, TheTapSeesEveryEventInItsOrderWhileItIsThere) {
  LinkTraffic traffic;
  const auto tap = std::make_shared<Notes>();
  traffic.received("before");
  traffic.setTap(tap);
  traffic.linkChanged(true);
  traffic.received(std::string_view("a\0b", 3));
  traffic.sent("c\n");
  traffic.linkChanged(false);
  traffic.setTap(nullptr);
  traffic.received("after");
  EXPECT_THAT(tap->events,
              ElementsAre("opened ", std::string("received a\0b", 12), "sent c\n", "closed "));
  EXPECT_EQ(tap.use_count(), 1);
}

TEST(LinkTrafficTest, ATapWithoutMemoryMissesAnEventAndTheLinkGoesOn) {
  LinkTraffic traffic;
  const auto tap = std::make_shared<Notes>();
  traffic.setTap(tap);
  tap->short_of_memory = true;
  traffic.received("lost");
  tap->short_of_memory = false;
  traffic.received("seen");
  EXPECT_THAT(tap->events, ElementsAre("received seen"));
  EXPECT_EQ(traffic.figures().in.bytes, 8U);
}

}  // namespace
