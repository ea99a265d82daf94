// The example house: its simulated devices, each with the real configuration on a place of its own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "RunningProgram.h"
#include "support/Eventually.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const char kHouse[] = DROVANE_SOURCE_DIR "/examples/house";
const std::string kDevices = DROVANE_DEVICES "/";

std::string contentOf(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

bool exists(const std::string& path) {
  struct stat facts {};
  return ::lstat(path.c_str(), &facts) == 0;
}

// A simulated device that already listens.
class Device {
 public:
  Device(const std::string& name, const Arguments& options) : process(line(name, options)) {
    EXPECT_TRUE(process.waitForOutput("\n")) << process.errors();
  }
  // The last word of its greeting: a port or a path.
  std::string place() {
    const std::string greeting = process.output();
    const std::size_t begin = greeting.rfind(' ') + 1;
    return greeting.substr(begin, greeting.find('\n') - begin);
  }
  std::optional<int> end(int signal) {
    process.signal(signal);
    return process.wait();
  }

  static Arguments line(const std::string& name, const Arguments& options) {
    Arguments words = {kDevices + name};
    words.insert(words.end(), options.begin(), options.end());
    return words;
  }

  Process process;
};

void replace(std::string& text, const std::string& part, const std::string& by) {
  const std::size_t at = text.find(part);
  ASSERT_NE(at, std::string::npos) << part;
  text.replace(at, part.size(), by);
}

// Devices that report often, or, when they are silent, within half an hour at the earliest.
class House : public testing::Test {
 protected:
  void furnish(const std::string& interval) {
    boiler = std::make_unique<Device>("boiler", Arguments{"--port", "0", "--interval", interval});
    meter = std::make_unique<Device>(
        "meter", Arguments{"--link", program.folder / "meter", "--interval", interval});
    panel = std::make_unique<Device>("panel", Arguments{"--port", "0", "--interval", interval});
    std::string config = contentOf(std::string(kHouse) + "/house.conf");
    replace(config, "port 7001\n", "port " + boiler->place() + "\n");
    replace(config, "tty /tmp/drovane-meter\n", "tty " + meter->place() + "\n");
    replace(config, "port 7002\n", "port " + panel->place() + "\n");
    program.startReady(config, {"--root", kHouse});
    watcher = program.watch();
  }

  void silent() { furnish("3600"); }
  void talkative() { furnish("0.1"); }

  bool shows(const std::string& text) { return watcher->waitForOutput(text); }

  void request(const std::string& key, const std::string& value, const std::string& rovik) {
    const Finished asked = program.ask({"send", key, "string", value, "--to", rovik, "--actuator"});
    EXPECT_EQ(asked.status, 0) << asked.errors;
  }

  Program program;
  std::unique_ptr<Device> boiler;
  std::unique_ptr<Device> meter;
  std::unique_ptr<Device> panel;
  std::unique_ptr<Process> watcher;
};

TEST_F(House, ItsConfigurationIsClean) {
  const std::string file = std::string(kHouse) + "/house.conf";
  const Finished done = program.ask({"check", file});
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.output, file + ": ok, 4 roviks\n");
  EXPECT_EQ(done.errors, "");
}

TEST_F(House, EveryTransportBringsItsMessages) {
  talkative();
  EXPECT_TRUE(shows(" boiler(5) -> everybody data 5_1_0 = \"2"));
  EXPECT_TRUE(shows(" meter(7) -> everybody data 7_1_0 = \"1"));
  EXPECT_TRUE(shows(" meter(7) -> everybody data 7_2_0 = \"5678."));
  EXPECT_TRUE(shows(" panel(8) -> everybody data 8_1_"));
  program.running().signal(SIGTERM);
  EXPECT_EQ(program.running().wait(), 0);
  EXPECT_THAT(program.running().errors(), Not(HasSubstr(" 2 ")));
}

TEST_F(House, TheMeterReportsWhenItIsAsked) {
  silent();
  request("7_1_0", "NOW", "meter");
  EXPECT_TRUE(shows(" meter(7) -> everybody data 7_1_0 = \"1234\""));
  EXPECT_TRUE(shows(" meter(7) -> everybody data 7_2_0 = \"5678.90\""));
}

TEST_F(House, ThePanelIsArmedAndDisarmed) {
  silent();
  request("8_2_0", "ARM", "panel");
  EXPECT_TRUE(shows(" panel(8) -> everybody data 8_2_0 = \"ARMED\""));
  request("8_2_0", "DISARM", "panel");
  EXPECT_TRUE(shows(" panel(8) -> everybody data 8_2_0 = \"DISARMED\""));
}

TEST_F(House, AnArmedPanelRaisesTheAlarmForAnOpenedDoor) {
  talkative();
  request("8_2_0", "ARM", "panel");
  EXPECT_TRUE(shows(" panel(8) -> everybody data 8_3_0 = \"DOOR"));
}

// The boiler starts at 21.3 degrees and cools.
TEST_F(House, TheThermostatHeatsTheBoilerAndStops) {
  talkative();
  Process& errors = program.running();
  ASSERT_TRUE(errors.waitForErrors("degrees: heat ON\n"));
  EXPECT_TRUE(shows(" thermostat(6) -> boiler actuator 5_2_0 = \"ON\""));
  EXPECT_TRUE(shows(" boiler(5) -> everybody data 5_2_0 = \"ON\""));
  ASSERT_TRUE(errors.waitForErrors("degrees: heat OFF\n"));
  EXPECT_TRUE(shows(" boiler(5) -> everybody data 5_2_0 = \"OFF\""));
  errors.signal(SIGTERM);
  EXPECT_EQ(errors.wait(), 0);
  EXPECT_THAT(errors.errors(), Not(HasSubstr("lua function error")));
}

TEST_F(House, AMeterThatIsUnpluggedIsNoticed) {
  silent();
  meter->process.signal(SIGKILL);
  EXPECT_TRUE(program.running().waitForErrors(" 2 7 meter connection closed by peer :-1\n"));
}

class EveryDevice : public testing::TestWithParam<const char*> {
 protected:
  Finished run(const Arguments& options) const {
    return runToEnd(Device::line(GetParam(), options));
  }
};
INSTANTIATE_TEST_SUITE_P(House, EveryDevice, testing::Values("boiler", "meter", "panel"),
                         [](const auto& each) { return std::string(each.param); });

TEST_P(EveryDevice, ExplainsItself) {
  const Finished done = run({"--help"});
  EXPECT_EQ(done.status, 0);
  EXPECT_THAT(done.output, StartsWith("Usage: " + std::string(GetParam()) + " "));
  EXPECT_THAT(done.output, HasSubstr("\nExample: " + std::string(GetParam()) + " --"));
}

TEST_P(EveryDevice, RefusesWhatItDoesNotKnow) {
  EXPECT_EQ(run({"--colour", "red"}).status, 2);
  const Finished word = run({"now"});
  EXPECT_EQ(word.status, 2);
  EXPECT_THAT(word.errors, StartsWith("Usage: "));
}

TEST_P(EveryDevice, RefusesAnIntervalThatIsNone) {
  const Finished done = run({"--interval", "soon"});
  EXPECT_EQ(done.status, 2);
  EXPECT_EQ(done.errors,
            std::string(GetParam()) + ": --interval soon: expected a number from 0.001 to 3600\n");
}

TEST(HouseDevice, SaysWhenItsPortIsTaken) {
  Device first("boiler", {"--port", "0"});
  for (const char* name : {"boiler", "panel"}) {
    const Finished second = runToEnd(Device::line(name, {"--port", first.place()}));
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.errors, std::string(name) + ": 127.0.0.1 port " + first.place() +
                                 ": Address already in use\n");
  }
}

TEST(HouseDevice, EndsInGoodOrder) {
  for (const int signal : {SIGINT, SIGTERM})
    for (const char* name : {"boiler", "panel"})
      EXPECT_EQ(Device(name, {"--port", "0"}).end(signal), 0) << name;
}

TEST(HouseDevice, TheMeterTakesItsLinkAwayAtTheEnd) {
  const TempFolder folder;
  for (const int signal : {SIGINT, SIGTERM}) {
    Device meter("meter", {"--link", folder / "meter"});
    EXPECT_TRUE(exists(folder / "meter"));
    EXPECT_EQ(meter.end(signal), 0);
    EXPECT_FALSE(exists(folder / "meter"));
  }
}

TEST(HouseDevice, TheMeterReplacesALinkThatLeadsNowhere) {
  const TempFolder folder;
  ASSERT_EQ(::symlink((folder / "gone").c_str(), (folder / "meter").c_str()), 0);
  Device meter("meter", {"--link", folder / "meter"});
  EXPECT_EQ(meter.end(SIGTERM), 0);
}

TEST(HouseDevice, TheMeterLeavesAnythingElseAlone) {
  const TempFolder folder;
  folder.write("meter", "mine");
  const Finished done = runToEnd(Device::line("meter", {"--link", folder / "meter"}));
  EXPECT_EQ(done.status, 1);
  EXPECT_EQ(done.errors, "meter: " + (folder / "meter") + ": File exists\n");
  EXPECT_EQ(folder.read("meter"), "mine");
}

Finished handshake(const std::string& version, const std::string& port) {
  return runToEnd({"openssl", "s_client", version, "-cipher", "DEFAULT:@SECLEVEL=0", "-connect",
                   "127.0.0.1:" + port});
}

TEST(HouseDevice, ThePanelSpeaksTls10AndNothingNewer) {
  Device panel("panel", {"--port", "0"});
  const Finished old = handshake("-tls1", panel.place());
  EXPECT_THAT(old.output, HasSubstr("Protocol  : TLSv1\n"));
  EXPECT_THAT(old.output, HasSubstr("subject=CN = alarm panel\n"));
  EXPECT_THAT(old.output, HasSubstr("issuer=CN = alarm panel\n"));
  const Finished newer = handshake("-tls1_2", panel.place());
  EXPECT_EQ(newer.status, 1);
  EXPECT_THAT(newer.output, HasSubstr("no peer certificate available\n"));
}

// What is no TLS ends that client's connection, and no other's.
TEST(HouseDevice, ThePanelSurvivesAClientThatDoesNotSpeakTls) {
  Device panel("panel", {"--port", "0"});
  const Finished plain = runToEnd(
      {"bash", "-c", "exec 3<>/dev/tcp/127.0.0.1/$1; echo ARM THE PANEL >&3; cat <&3 >/dev/null",
       "-", panel.place()});
  EXPECT_NE(plain.status, -1);  // it has ended, in good order or by a reset
  EXPECT_THAT(handshake("-tls1", panel.place()).output, HasSubstr("Protocol  : TLSv1\n"));
}

}  // namespace
