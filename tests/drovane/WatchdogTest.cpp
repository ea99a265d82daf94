// Roviks of this process that do not come back, as the watchdog sees them. The clock is moved on.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>

#include "drovane/Watchdog.h"
#include "framework/Clock.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/TempFolder.h"

namespace {

using drovane::House;
using drovane::Watchdog;
using testing::IsEmpty;

void pass(int seconds) { drovane::Clock::skip(seconds * drovane::Clock::kNanosecondsPerSecond); }

// A house of two, of which "waits" waits for its pipe when it is told to.
class WatchdogTest : public testing::Test {
 protected:
  WatchdogTest() {
    if (::mkfifo(pipe.c_str(), 0600) != 0) throw std::runtime_error("no pipe");
  }

  void start(const std::string& commands = "") {
    folder.write("house.conf", "rovik 5 waits stalls\n" + commands + "rovik 6 other echo\n");
    house.emplace(drovane::ConfigFile::read(folder / "house.conf"), [](const std::string&) {});
    drovane::PluginLoader loader({DROVANE_TEST_PLUGINS});
    ASSERT_TRUE(house->make(loader));
    starting = std::async(std::launch::async, [this] { house->start(false); });
  }
  // The same, and waits until they run, and both wait for events.
  void startReady() {
    start();
    starting.wait();
    for (const char* const name : {"waits", "other"}) {
      drovane::RovikHost& host = house->find(name)->host();
      ASSERT_TRUE(eventually([&] { return !host.busy(); }));
    }
  }
  void TearDown() override {
    release();
    starting.wait();
    house->stop();
  }

  // It waits in this slot now.
  void enter(const std::string& word, const std::string& slot) {
    ASSERT_TRUE(waits().post(
        std::make_shared<drovane::Command>(std::vector<std::string>{word, pipe}, [](auto&&) {})));
    ASSERT_TRUE(isIn(slot));
  }
  bool isIn(const std::string& slot) const {
    return eventually([&] {
      const auto busy = waits().busy();
      return busy && busy->slot == slot;
    });
  }
  // It is let go, and has come back.
  void release() {
    const drovane::Descriptor end(::open(pipe.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(::write(end.get(), "x", 1), 1);
    EXPECT_TRUE(eventually([&] { return !waits().busy(); }));
  }
  drovane::RovikHost& waits() const { return house->find("waits")->host(); }
  void look() { watchdog.look(*house); }

  const TempFolder folder;
  const std::string pipe = folder / "pipe";
  std::optional<House> house;
  std::future<void> starting;
  Watchdog watchdog;
  LogCapture log;
};

TEST_F(WatchdogTest, AHangIsLoggedAndWarnedOfOnce) {
  startReady();
  enter("tick", "selectTI");
  pass(5);
  look();
  EXPECT_EQ(log.count("has not returned"), 0U);
  EXPECT_EQ(watchdog.hanging(), 0U);
  pass(5);
  look();
  pass(1);
  look();
  const auto lines = log.lines();
  const CapturedLine expected{2, 5, "waits", "selectTI has not returned for 10 s"};
  EXPECT_EQ(std::count(lines.begin(), lines.end(), expected), 1);
  EXPECT_EQ(log.count("has not returned"), 1U);
  EXPECT_EQ(waits().status().warning, "selectTI has not returned for 10 s");
  EXPECT_EQ(waits().status().warning_count, 1U);
  EXPECT_EQ(watchdog.hanging(), 1U);
}

TEST_F(WatchdogTest, ItsEndIsLogged) {
  startReady();
  enter("read", "interpretCmd");
  pass(42);
  look();
  release();
  look();
  look();
  const auto lines = log.lines();
  const CapturedLine expected{3, 5, "waits", "interpretCmd has returned after 42 s"};
  EXPECT_EQ(std::count(lines.begin(), lines.end(), expected), 1);
  EXPECT_EQ(watchdog.hanging(), 0U);
}

TEST_F(WatchdogTest, AHangAfterAHangIsAnother) {
  startReady();
  enter("tick", "selectTI");
  pass(10);
  look();
  release();
  enter("tick", "selectTI");
  look();
  EXPECT_EQ(log.count("selectTI has returned after"), 1U);
  pass(10);
  look();
  EXPECT_EQ(log.count("selectTI has not returned for 10 s"), 2U);
  EXPECT_EQ(waits().status().warning_count, 2U);
}

TEST_F(WatchdogTest, AHangOfTheConfigurationIsSeen) {
  start("  read " + pipe + "\n");
  ASSERT_TRUE(isIn("interpretCmd"));
  pass(10);
  look();
  EXPECT_EQ(log.count("interpretCmd has not returned for 10 s"), 1U);
}

TEST_F(WatchdogTest, WaitingForEventsIsNoHang) {
  startReady();
  pass(1000);
  look();
  EXPECT_EQ(log.count("has not returned"), 0U);
  EXPECT_FALSE(watchdog.longest().has_value());
}

TEST_F(WatchdogTest, WhoIsInASlotLongestIsKnownBeforeItIsAHang) {
  startReady();
  enter("tick", "selectTI");
  pass(3);
  look();
  ASSERT_TRUE(watchdog.longest().has_value());
  EXPECT_EQ(watchdog.longest()->rovik, "5 waits");
  EXPECT_STREQ(watchdog.longest()->busy.slot, "selectTI");
  EXPECT_EQ(watchdog.longest()->seconds(), 3);
  EXPECT_EQ(watchdog.hanging(), 0U);
}

}  // namespace
