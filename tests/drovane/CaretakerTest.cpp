// What is told to the service manager about a house of this process. The clock is moved on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include "drovane/Caretaker.h"
#include "framework/Clock.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/TempFolder.h"
#include "support/UnixDatagrams.h"

namespace {

using drovane::Caretaker;
using drovane::ControlServer;
using drovane::House;

constexpr std::int64_t kSecond = drovane::Clock::kNanosecondsPerSecond;

// A service manager that wants a sign of life every ten seconds.
class CaretakerTest : public testing::Test {
 protected:
  CaretakerTest() {
    ::setenv("NOTIFY_SOCKET", (folder / "notify").c_str(), 1);
    ::setenv("WATCHDOG_USEC", "10000000", 1);
    drovane::PluginLoader loader({DROVANE_TEST_PLUGINS});
    if (!house.make(loader)) throw std::runtime_error("the house cannot be made");
  }
  ~CaretakerTest() override {
    ::unsetenv("NOTIFY_SOCKET");
    ::unsetenv("WATCHDOG_USEC");
  }

  drovane::ConfigFile config() const {
    folder.write("house.conf", "rovik 5 boiler echo\n");
    return drovane::ConfigFile::read(folder / "house.conf");
  }
  // One turn after five seconds.
  void turnLater(Caretaker& caretaker) {
    drovane::Clock::skip(5 * kSecond);
    caretaker.turn();
  }

  const TempFolder folder;
  UnixDatagrams manager{folder / "notify"};
  LogCapture log;
  House house{config(), [](const std::string&) {}};
  ControlServer control{{folder / "control", "1.2.3"}, house};
};

TEST_F(CaretakerTest, SignsOfLifeComeTwiceInTheTimeThatTheManagerWaits) {
  ASSERT_EQ(control.start(), 0);
  Caretaker caretaker(house, control, 0);
  caretaker.turn();
  EXPECT_EQ(manager.count("WATCHDOG=1"), 1U);
  drovane::Clock::skip(4 * kSecond);
  caretaker.turn();
  EXPECT_EQ(manager.count("WATCHDOG=1"), 1U);
  ASSERT_TRUE(eventually([&] { return control.hasTurned(); }));
  drovane::Clock::skip(1 * kSecond);
  caretaker.turn();
  EXPECT_EQ(manager.count("WATCHDOG=1"), 2U);
}

TEST_F(CaretakerTest, ItComesAgainWithinASecond) {
  Caretaker caretaker(house, control, 0);
  const std::int64_t before = drovane::Clock::now();
  EXPECT_GE(caretaker.turn(), before + kSecond);
  EXPECT_LE(caretaker.turn(), drovane::Clock::now() + kSecond);
}

TEST_F(CaretakerTest, AControlSocketWhoseThreadDoesNotTurnKeepsSignsOfLifeAwayUntilItDoes) {
  Caretaker caretaker(house, control, 0);
  caretaker.turn();
  turnLater(caretaker);
  turnLater(caretaker);
  EXPECT_EQ(manager.count("WATCHDOG=1"), 1U);
  EXPECT_EQ(log.lines().back(),
            (CapturedLine{2, 0, "drovane",
                          "the thread of the control socket does not turn: no more signs of life, "
                          "so that the service manager restarts drovane"}));
  EXPECT_EQ(log.count("does not turn"), 1U);
  ASSERT_EQ(control.start(), 0);
  ASSERT_TRUE(eventually([&] { return control.hasTurned(); }));
  turnLater(caretaker);
  EXPECT_EQ(manager.count("WATCHDOG=1"), 2U);
  EXPECT_EQ(log.count("signs of life are given again"), 1U);
}

TEST_F(CaretakerTest, TheStartIsProlongedUntilItIsOver) {
  Caretaker caretaker(house, control, 0);
  caretaker.turn();
  turnLater(caretaker);
  EXPECT_EQ(manager.count("EXTEND_TIMEOUT_USEC=60000000"), 1U);
  turnLater(caretaker);
  EXPECT_EQ(manager.count("EXTEND_TIMEOUT_USEC=60000000"), 2U);
  caretaker.ready();
  caretaker.turn();
  EXPECT_EQ(manager.count("READY=1\nSTATUS=1 rovik"), 1U);
  turnLater(caretaker);
  turnLater(caretaker);
  EXPECT_EQ(manager.count("EXTEND_TIMEOUT_USEC=60000000"), 2U);
  EXPECT_EQ(manager.count("READY=1"), 1U);
}

TEST_F(CaretakerTest, AReloadIsToldWithTheTimeAtWhichItBegins) {
  Caretaker caretaker(house, control, 0);
  const std::int64_t before = drovane::Clock::now() / 1000;
  caretaker.reloading();
  const std::string told = manager.all().back();
  const std::string expected = "RELOADING=1\nSTATUS=reloading\nMONOTONIC_USEC=";
  ASSERT_TRUE(told.starts_with(expected)) << told;
  EXPECT_GE(std::stoll(told.substr(expected.size())), before);
  EXPECT_LE(std::stoll(told.substr(expected.size())), drovane::Clock::now() / 1000);
  caretaker.ready();
  caretaker.turn();
  EXPECT_EQ(manager.count("READY=1\nSTATUS=1 rovik"), 1U);
}

}  // namespace
