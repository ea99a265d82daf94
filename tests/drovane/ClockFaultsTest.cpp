// The program in a time that does not go on as usual: the wall clock is set, the process is stopped
// for a while.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>

#include "FaultyHouse.h"
#include "support/Emulation.h"
#include "support/Eventually.h"
#include "support/ShiftedClock.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::HasSubstr;

constexpr std::int64_t kDay = 24 * 60 * 60;
constexpr milliseconds kTick{20};

// Ticks every 20 ms from the first value on that it is told, and answers a data request when it is
// told to.
constexpr const char* kTicker =
    "ticks = 0 "
    "function ROVIK_INIT(me) m_p = me end "
    "function ROVIK_RCV(msg) if msg.type == 'MM_DATA_REQUEST' then asked = msg end return 20000 "
    "end "
    "function ROVIK_PERIODIC() ticks = ticks + 1 return 20000 end "
    "function tell() return string.format('%d', ticks) end "
    "function holds() return asked and 'yes' or 'no' end "
    "function answer() sndMM({ type = 'MM_DATA', key = asked.key, value_type = 'int', value = 7, "
    "seqnr = asked.seqnr }, asked.src) return 'OK' end "
    "function stamp() sndDATA('8_1_0', 'string', 'stamped', 'other') return 'OK' end ";

class Ticking : public testing::Test {
 protected:
  void startTicking(const Process::Environment& extra = {}, const std::string& more = "") {
    house.script("ticker", kTicker);
    house.startReady("rovik 5 ticker generic_net\n  luafile ticker.lua\n  luaopen\n" + more, {},
                     extra);
    ASSERT_EQ(house.program.ask({"send", "1_1_1", "int", "1", "--to", "ticker"}).status, 0);
  }
  int ticks() const { return std::atoi(house.command("ticker", {"tell"}).c_str()); }
  bool holdsRequest() const {
    return eventually([&] { return house.command("ticker", {"holds"}) == "yes\n"; });
  }
  // "get", which has reached the script.
  std::unique_ptr<Process> asking() const {
    auto client = std::make_unique<Process>(
        Arguments{DROVANE_PROGRAM, "get", "8_1_0", "int", "--to", "ticker"},
        Process::Environment{{"DROVANE_CONTROL", house.program.control}});
    EXPECT_TRUE(holdsRequest());
    return client;
  }
  // It has ticked on since it had ticked so often at that time, and has not ticked more often than
  // its period allows.
  void expectTicks(int before, steady_clock::time_point begun) const {
    int now = before;
    EXPECT_TRUE(eventually([&] {
      now = ticks();
      return now >= before + 10;
    }));
    EXPECT_LE(now - before, (steady_clock::now() - begun) / kTick + 2);
  }
  void expectSteadyTicks() const {
    const auto begun = steady_clock::now();
    expectTicks(ticks(), begun);
  }

  FaultyHouse house;
};

class ClockFaults : public Ticking, public testing::WithParamInterface<std::int64_t> {
 protected:
  // The date of the log's last line, and that which the shifted clock shows.
  std::string dayOfLastLine() {
    const std::string log = house.running().errors();
    const std::size_t line = log.rfind('\n', log.size() - 2) + 1;
    return log.substr(line, 10);
  }
  std::string shiftedDay() const {
    const std::time_t now = std::time(nullptr) + static_cast<std::time_t>(GetParam());
    std::tm parts{};
    ::localtime_r(&now, &parts);
    std::array<char, 16> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d", &parts)};
  }

  const ShiftedClock clock{0};
};

TEST_P(ClockFaults, TicksGoOnAsBefore) {
  startTicking(clock.environment());
  expectSteadyTicks();
  clock.set(GetParam());
  expectSteadyTicks();
  clock.set(0);
  expectSteadyTicks();
  house.expectEndsInTime();
}

TEST_P(ClockFaults, ARequestIsNeitherGivenUpEarlyNorWaitedForTooLong) {
  startTicking(clock.environment());
  const auto answered = asking();
  clock.set(GetParam());
  EXPECT_EQ(house.command("ticker", {"answer"}), "OK\n");
  EXPECT_EQ(answered->wait(), 0);
  EXPECT_EQ(answered->output(), "7\n");
  const auto begun = steady_clock::now();
  const auto unanswered = asking();
  clock.set(0);
  EXPECT_EQ(unanswered->wait(), 1);
  EXPECT_LT(steady_clock::now() - begun, std::chrono::seconds(8) * slowness());
  EXPECT_THAT(unanswered->errors(), HasSubstr("no answer to the request within 5 s\n"));
}

TEST_P(ClockFaults, LogLinesAndMessagesHaveTheTimeThatTheClockShows) {
  startTicking(clock.environment(), "rovik 6 other echo\n");
  const auto watcher = house.program.watch({"--json"});
  clock.set(GetParam());
  const std::time_t before = std::time(nullptr);
  EXPECT_EQ(house.command("ticker", {"stamp"}), "OK\n");
  ASSERT_TRUE(watcher->waitForOutput("\"stamped\""));
  const std::string& seen = watcher->output();
  const std::size_t at = seen.find("\"tv_sec\":", seen.rfind('{', seen.find("\"stamped\"")));
  const std::int64_t stamp = std::atoll(seen.c_str() + at + 9);
  EXPECT_GE(stamp, before + GetParam());
  EXPECT_LE(stamp, std::time(nullptr) + GetParam());
  const std::string day = shiftedDay();
  EXPECT_EQ(house.command("other", {"log", "on its new day"}), "OK\n");
  ASSERT_TRUE(house.running().waitForErrors("on its new day\n"));
  EXPECT_THAT(dayOfLastLine(), testing::AnyOf(day, shiftedDay()));
}

// The complaint about a log that cannot be written comes by another clock.
TEST_P(ClockFaults, LinksAreReadAndWrittenAsBefore) {
  TcpPeer peer;
  house.startReady(houseOf(peer), {}, clock.environment());
  peer.accept();
  clock.set(GetParam());
  peer.send("today\n");
  EXPECT_TRUE(house.arrives("today"));
  house.expectEndsInTime();
}

INSTANTIATE_TEST_SUITE_P(Seconds, ClockFaults, testing::Values(kDay, -kDay));

class StoppedProcess : public Ticking {
 protected:
  void stopFor(milliseconds pause) {
    house.running().signal(SIGSTOP);
    const auto until = steady_clock::now() + pause;
    eventually([&] { return steady_clock::now() >= until; }, pause * 2);
    house.running().signal(SIGCONT);
  }
};

// Twenty-five periods long. What is overdue then is one tick.
TEST_F(StoppedProcess, TicksOnceForAllThatItHasMissed) {
  startTicking();
  expectSteadyTicks();
  const auto begun = steady_clock::now();
  const int before = ticks();
  stopFor(25 * kTick);
  expectTicks(before, begun + 25 * kTick);
}

TEST_F(StoppedProcess, FindsWhatItsPeersHaveSentMeanwhile) {
  TcpPeer peer;
  house.startReady(houseOf(peer));
  peer.accept();
  house.running().signal(SIGSTOP);
  peer.send("while it slept\n");
  house.running().signal(SIGCONT);
  EXPECT_TRUE(house.arrives("while it slept"));
  house.expectEndsInTime();
}

TEST_F(StoppedProcess, AnswersTheRequestsThatHaveWaited) {
  house.startReady(houseWith());
  house.running().signal(SIGSTOP);
  Process client({DROVANE_PROGRAM, "cmd", "boiler", "say", "there"},
                 {{"DROVANE_CONTROL", house.program.control}});
  house.running().signal(SIGCONT);
  EXPECT_EQ(client.wait(), 0);
  EXPECT_EQ(client.output(), "there\n");
}

// Longer than a request waits for its answer.
TEST_F(StoppedProcess, GivesUpARequestThatIsOverdueWhenItGoesOn) {
  startTicking();
  const auto client = asking();
  stopFor(milliseconds(5100));
  EXPECT_EQ(client->wait(), 1);
  EXPECT_THAT(client->errors(), HasSubstr("no answer to the request within 5 s\n"));
  expectSteadyTicks();
}

TEST_F(StoppedProcess, EndsInTimeWhenItWasToldToMeanwhile) {
  house.startReady(houseWith());
  house.running().signal(SIGSTOP);
  house.running().signal(SIGTERM);
  house.running().signal(SIGCONT);
  EXPECT_EQ(house.running().wait(), 0);
}

}  // namespace
