// The example energy meter: the simulated one, or a peer that plays it, with the real configuration
// and script.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>

#include "RunningProgram.h"
#include "SimulatedDevice.h"
#include "support/Emulation.h"
#include "support/Eventually.h"
#include "support/PeerSerial.h"

namespace {

using namespace std::string_literals;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const char kExample[] = DROVANE_SOURCE_DIR "/examples/energy_meter";

// Telegrams whose checksums were computed elsewhere.
const std::string kBody =
    "1-0:1.8.0(001234.567*kWh)\r\n1-0:1.7.0(00.480*kW)\r\n1-0:32.7.0(230.1*V)\r\n";
const std::string kHeader = "/DRV5\\EM340\r\n\r\n";
const std::string kTelegram = kHeader + kBody + "!D7EF\r\n";

std::ptrdiff_t numberOf(const std::string& text, const std::string& part) {
  std::ptrdiff_t count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++count;
  return count;
}

class Watched : public testing::Test {
 protected:
  void openLine(const std::string& path, const std::string& tick) {
    std::string config = contentOf(std::string(kExample) + "/energy_meter.conf");
    replace(config, "tty /tmp/drovane-energy-meter\n", "tty " + path + "\n");
    replace(config, "telegram_every 5 ", "telegram_every " + tick + " ");
    program.startReady(config, {"--root", kExample});
    watcher = program.watch();
  }

  bool shows(const std::string& text) { return watcher->waitForOutput(text); }
  bool showsAnew(const std::string& text) {
    const std::size_t seen = watcher->output().size();
    return eventually([&] { return watcher->output().find(text, seen) != std::string::npos; });
  }
  bool reports(const std::string& key, const std::string& value) {
    return shows(reported(key) + value + '\n');
  }
  // Whether the number has grown to this. Not each on the way is seen on a slow machine.
  bool reportsAtLeast(const std::string& key, int value) {
    return eventually([&] {
      const std::string& text = watcher->output();
      const std::size_t at = text.rfind(reported(key));
      return at != std::string::npos &&
             std::atoi(text.c_str() + at + reported(key).size()) >= value;
    });
  }
  bool tells(const std::string& text) {
    return shows(" energy_meter(30) -> everybody text channel 1: " + text + '\n');
  }
  static std::string reported(const std::string& key) {
    return " energy_meter(30) -> everybody data " + key + " = ";
  }
  std::string statistics() const {
    return program.ask({"cmd", "energy_meter", "statistics"}).output;
  }

  Program program;
  std::unique_ptr<Process> watcher;
};

// The simulated meter, which sends ten telegrams a second.
class EnergyMeter : public Watched {
 protected:
  void start(const Arguments& options = {}) {
    plugIn(options);
    openLine(program.folder / "line", "0.2");
  }
  void plugIn(const Arguments& options = {}) {
    Arguments all = {"--link", program.folder / "line", "--interval", "0.1"};
    all.insert(all.end(), options.begin(), options.end());
    device = std::make_unique<SimulatedDevice>("energy_meter", all);
  }

  std::unique_ptr<SimulatedDevice> device;
};

TEST_F(EnergyMeter, ItsConfigurationIsClean) {
  const std::string file = std::string(kExample) + "/energy_meter.conf";
  const Finished done = program.ask({"check", file});
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.output, file + ": ok, 1 rovik\n");
  EXPECT_EQ(done.errors, "");
}

TEST_F(EnergyMeter, AllItsReadingsAreReported) {
  start();
  EXPECT_TRUE(shows(reported("30_1_1") + "12345"));
  EXPECT_TRUE(shows(reported("30_1_2") + "890"));
  for (const char* key : {"30_2_1", "30_2_2"}) EXPECT_TRUE(shows(reported(key))) << key;
  for (const char* key : {"30_3_1", "30_3_2", "30_3_3"})
    EXPECT_TRUE(shows(reported(key) + "2")) << key;
  EXPECT_THAT(statistics(), EndsWith(" telegrams, 0 broken\n"));
}

// A wrong first digit would show as 101 thousand kilowatt hours more.
TEST_F(EnergyMeter, ABrokenTelegramIsCountedAndNothingOfItIsReported) {
  start({"--break-every", "2"});
  EXPECT_TRUE(shows("text channel 1: telegram dropped: its checksum is "));
  EXPECT_TRUE(reportsAtLeast("30_9_0", 3));
  EXPECT_TRUE(showsAnew(reported("30_1_1")));
  EXPECT_THAT(watcher->output(), Not(HasSubstr(reported("30_1_1") + "10123")));
}

TEST_F(EnergyMeter, OfBrokenTelegramsOnlyTheirNumberIsReported) {
  start({"--break-every", "1"});
  EXPECT_TRUE(reportsAtLeast("30_9_0", 3));
  EXPECT_THAT(watcher->output(), Not(HasSubstr(" data 30_1_")));
  EXPECT_THAT(watcher->output(), Not(HasSubstr(" data 30_2_")));
  EXPECT_THAT(watcher->output(), Not(HasSubstr(" data 30_3_")));
}

TEST_F(EnergyMeter, ItIsFoundAgainWhenItIsPluggedInAgain) {
  start();
  EXPECT_TRUE(shows(reported("30_1_1")));
  device->end(SIGKILL);
  EXPECT_TRUE(
      program.running().waitForErrors(" 2 30 energy_meter connection closed by peer :-1\n"));
  plugIn();
  EXPECT_TRUE(showsAnew(reported("30_1_1") + "12345"));
}

// A meter that says what the test wants.
class PlayedMeter : public Watched {
 protected:
  void start(const std::string& tick = "30") { openLine(meter.path(), tick); }

  // The end of the one before, with which a script that comes into the middle finds its way.
  void startBetweenTelegrams() {
    start();
    meter.send("!0000\r\n");
  }

  SerialPeer meter;
};

TEST_F(PlayedMeter, ATelegramBecomesMessages) {
  startBetweenTelegrams();
  meter.send(kTelegram);
  EXPECT_TRUE(reports("30_1_1", "1234567"));
  EXPECT_TRUE(reports("30_2_1", "480"));
  EXPECT_TRUE(reports("30_3_1", "230.1"));
  EXPECT_EQ(statistics(), "1 telegrams, 0 broken\n");
}

TEST_F(PlayedMeter, TheTelegramInItsManualIsAGoodOne) {
  const std::string manual = contentOf(std::string(kExample) + "/README.md");
  const std::size_t begin = manual.find("/DRV5");
  startBetweenTelegrams();
  std::string telegram = manual.substr(begin, manual.find("```", begin) - begin);
  for (std::size_t at = 0; (at = telegram.find('\n', at)) != std::string::npos; at += 2)
    telegram.replace(at, 1, "\r\n");
  meter.send(telegram);
  EXPECT_TRUE(reports("30_3_3", "229.7"));
  EXPECT_EQ(statistics(), "1 telegrams, 0 broken\n");
}

TEST_F(PlayedMeter, NothingIsReportedBeforeTheChecksumHasCome) {
  startBetweenTelegrams();
  meter.send(kHeader + kBody);
  EXPECT_EQ(statistics(), "0 telegrams, 0 broken\n");
  meter.send("!D7EF\r");
  EXPECT_EQ(statistics(), "0 telegrams, 0 broken\n");
  EXPECT_THAT(watcher->output(), Not(HasSubstr("energy_meter(30) ->")));
  meter.send("\n");
  EXPECT_TRUE(reports("30_3_1", "230.1"));
}

// Bytes that are not text count as they came; units and numbers that do not fit are passed over.
TEST_F(PlayedMeter, LinesThatItDoesNotKnowArePassedOver) {
  startBetweenTelegrams();
  meter.send(kHeader + "0-0:96.13.0(\0\xff\\x41\t)\r\n"s +
             "1-0:1.8.0(001234.567*MJ)\r\n1-0:1.7.0(0.4.8*kW)\r\n1-0:31.7.0(012*A)\r\n"
             "1-0:2.8.0(000089.012*kWh)\r\n!30DE\r\n");
  EXPECT_TRUE(reports("30_1_2", "89012"));
  EXPECT_EQ(statistics(), "1 telegrams, 0 broken\n");
  EXPECT_EQ(numberOf(watcher->output(), "energy_meter(30) ->"), 1);
}

TEST_F(PlayedMeter, WhatIsLeftOfATelegramAtTheStartIsNoBrokenOne) {
  start();
  meter.send(kBody + "!D7EF\r\n" + kTelegram);
  EXPECT_TRUE(reports("30_1_1", "1234567"));
  EXPECT_EQ(statistics(), "1 telegrams, 0 broken\n");
}

TEST_F(PlayedMeter, AWrongChecksumIsShownBesideTheRightOne) {
  startBetweenTelegrams();
  meter.send(kHeader + kBody + "!D7EE\r\n");
  EXPECT_TRUE(tells("telegram dropped: its checksum is D7EF, not D7EE"));
  EXPECT_TRUE(reports("30_9_0", "1"));
  meter.send(kHeader + kBody + "!\x01 what is this\r\n");
  EXPECT_TRUE(tells("telegram dropped: its checksum is D7EF, not \\x01 what i"));
  EXPECT_EQ(statistics(), "2 telegrams, 2 broken\n");
  EXPECT_THAT(watcher->output(), Not(HasSubstr(reported("30_1_1"))));
}

TEST_F(PlayedMeter, ATelegramWithoutItsBeginningIsBroken) {
  startBetweenTelegrams();
  meter.send(kTelegram + kBody + "!D7EF\r\n");
  EXPECT_TRUE(reports("30_9_0", "1"));
  EXPECT_EQ(statistics(), "2 telegrams, 1 broken\n");
  EXPECT_EQ(numberOf(watcher->output(), reported("30_1_1")), 1);
}

TEST_F(PlayedMeter, ATelegramWithoutItsEndIsBroken) {
  startBetweenTelegrams();
  meter.send(kHeader + kBody + kTelegram);
  EXPECT_TRUE(tells("telegram dropped: it was cut off by the next one"));
  EXPECT_TRUE(reports("30_1_1", "1234567"));
  EXPECT_EQ(statistics(), "2 telegrams, 1 broken\n");
}

TEST_F(PlayedMeter, ATelegramThatIsCutOffByUnpluggingIsDropped) {
  startBetweenTelegrams();
  meter.send(kHeader + kBody);
  EXPECT_EQ(statistics(), "0 telegrams, 0 broken\n");
  meter.unplug();
  EXPECT_TRUE(tells("telegram dropped: it was cut off with the link"));
  EXPECT_TRUE(reports("30_9_0", "1"));
  EXPECT_THAT(watcher->output(), Not(HasSubstr(reported("30_1_1"))));
}

TEST_F(PlayedMeter, ATelegramThatDoesNotEndIsDropped) {
  startBetweenTelegrams();
  meter.send(kHeader);
  for (int line = 0; line < 400; ++line) meter.send(kBody);
  EXPECT_TRUE(tells("telegram dropped: it is too long"));
  meter.send("!D7EF\r\n" + kTelegram);
  EXPECT_TRUE(reports("30_1_1", "1234567"));
  EXPECT_EQ(statistics(), "2 telegrams, 1 broken\n");
}

// Of such a line the link itself drops 4096 bytes.
TEST_F(PlayedMeter, ATelegramWithAnEndlessLineIsBroken) {
  startBetweenTelegrams();
  meter.send(kHeader + std::string(5000, 'x') + "\r\n" + kBody + "!D7EF\r\n" + kTelegram);
  EXPECT_TRUE(reports("30_9_0", "1"));
  EXPECT_TRUE(reports("30_1_1", "1234567"));
  EXPECT_EQ(statistics(), "2 telegrams, 1 broken\n");
}

TEST_F(PlayedMeter, ItsSilenceIsToldOnce) {
  start("0.2");
  // An emulated watcher may come too late for it.
  EXPECT_TRUE(emulated() != nullptr || tells("no telegram for 0.6 seconds"));
  meter.send(kTelegram);
  EXPECT_TRUE(reports("30_1_1", "1234567"));
  EXPECT_TRUE(showsAnew("text channel 1: no telegram for 0.6 seconds\n"));
  const auto told = numberOf(watcher->output(), "no telegram for");
  EXPECT_LE(told, 2);
  // Without its line each tick leaves a report.
  meter.unplug();
  EXPECT_TRUE(eventually([&] { return numberOf(program.running().errors(), "open failed") > 2; }));
  program.ask({"send", "9_9_8", "int", "1"});
  EXPECT_TRUE(shows("9_9_8"));
  EXPECT_EQ(numberOf(watcher->output(), "no telegram for"), told);
}

TEST_F(PlayedMeter, TheTickIsAWordOfItsConfiguration) {
  start();
  EXPECT_EQ(program.ask({"cmd", "energy_meter", "telegram_every", "2.5"}).output, "2.5\n");
  const Finished bad = program.ask({"cmd", "energy_meter", "telegram_every", "often"});
  EXPECT_EQ(bad.output, "ERROR (LUA FUNCTION ERROR)\n");
  EXPECT_TRUE(program.running().waitForErrors("telegram_every takes a number of seconds\n"));
}

Finished runMeter(const Arguments& options) {
  return runToEnd(SimulatedDevice::line("energy_meter", options));
}

TEST(SimulatedEnergyMeter, ExplainsItself) {
  const Finished done = runMeter({"--help"});
  EXPECT_EQ(done.status, 0);
  EXPECT_THAT(done.output, StartsWith("Usage: energy_meter "));
  EXPECT_THAT(done.output, HasSubstr("\nExample: energy_meter --"));
}

TEST(SimulatedEnergyMeter, RefusesWhatItDoesNotKnow) {
  EXPECT_EQ(runMeter({"--colour", "red"}).status, 2);
  const Finished done = runMeter({"--break-every", "time"});
  EXPECT_EQ(done.status, 2);
  EXPECT_EQ(done.errors, "energy_meter: --break-every time: expected a number from 0 to 1e+06\n");
}

TEST(SimulatedEnergyMeter, EndsInGoodOrder) {
  for (const int signal : {SIGINT, SIGTERM})
    EXPECT_EQ(SimulatedDevice("energy_meter", {}).end(signal), 0);
}

}  // namespace
