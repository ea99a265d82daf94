// The example house: its simulated devices, each with the real configuration on a place of its own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <fstream>

#include "RunningProgram.h"
#include "SimulatedDevice.h"
#include "support/Emulation.h"
#include "support/Eventually.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const char kHouse[] = DROVANE_SOURCE_DIR "/examples/house";

bool exists(const std::string& path) {
  struct stat facts {};
  return ::lstat(path.c_str(), &facts) == 0;
}

// Devices that report often, or, when they are silent, within half an hour at the earliest.
class House : public testing::Test {
 protected:
  void furnish(const std::string& interval) {
    boiler = std::make_unique<SimulatedDevice>("boiler",
                                               Arguments{"--port", "0", "--interval", interval});
    meter = std::make_unique<SimulatedDevice>(
        "meter", Arguments{"--link", program.folder / "meter", "--interval", interval});
    panel = std::make_unique<SimulatedDevice>("panel",
                                              Arguments{"--port", "0", "--interval", interval});
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
  std::unique_ptr<SimulatedDevice> boiler;
  std::unique_ptr<SimulatedDevice> meter;
  std::unique_ptr<SimulatedDevice> panel;
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

Finished plug(const std::string& command, const Arguments& arguments) {
  Arguments line = {std::string(kHouse) + "/" + command};
  line.insert(line.end(), arguments.begin(), arguments.end());
  return runToEnd(line);
}

void tellByCommand(const SimulatedDevice& device, const std::string& name,
                   const std::string& command, const std::string& done) {
  const std::string pid = std::to_string(device.process.pid());
  const Finished told = plug(command, {name, "--pid", pid});
  EXPECT_EQ(told.status, 0) << told.errors;
  EXPECT_EQ(told.output, name + " (process " + pid + "): " + done + "\n");
}

// Draws the plug of a device or puts it in, and waits until that is done. An emulator does not tell
// the kernel which signals its program blocks, by which the commands know a device.
void tell(SimulatedDevice& device, const std::string& name, const std::string& command) {
  const std::string done = command == "plug" ? "plugged in" : "unplugged";
  if (emulated() == nullptr)
    tellByCommand(device, name, command, done);
  else
    device.process.signal(command == "plug" ? SIGUSR2 : SIGUSR1);
  EXPECT_TRUE(device.process.waitForOutput(name + ": " + done));
}

class HouseRecovers : public House {
 protected:
  bool linkIs(bool open) {
    return eventually([&] {
      const drovane::Json row = program.statusOf(5);
      const cJSON* link = cJSON_GetObjectItemCaseSensitive(row.get(), "link_open");
      return cJSON_IsBool(link) && (cJSON_IsTrue(link) != 0) == open;
    });
  }
  // From here on only what comes next counts.
  void forgetTheMessages() { seen = watcher->output().size(); }
  bool showsAnew(const std::string& text) {
    return eventually([&] { return watcher->output().find(text, seen) != std::string::npos; });
  }
  // The temperature reported last, NaN for none.
  double temperature() {
    const std::string report = " boiler(5) -> everybody data 5_1_0 = \"";
    const std::string& all = watcher->output();
    const std::size_t at = all.rfind(report);
    return at == std::string::npos || at < seen ? std::nan("")
                                                : std::stod(all.substr(at + report.size()));
  }

  std::size_t seen = 0;
};

TEST_F(HouseRecovers, WhenTheBoilerIsPluggedInAgain) {
  talkative();
  const std::string port = boiler->place();
  tell(*boiler, "boiler", "unplug");
  EXPECT_TRUE(program.running().waitForErrors(
      " 2 5 boiler connection closed by peer 127.0.0.1:" + port + "\n"));
  EXPECT_TRUE(shows(" boiler(5) -> everybody data 5_9_0 = \"DOWN\""));
  EXPECT_TRUE(linkIs(false));
  EXPECT_TRUE(
      program.running().waitForErrors(" 2 5 boiler getsockopt (errno: 111 Connection refused)\n"));

  forgetTheMessages();
  tell(*boiler, "boiler", "plug");
  EXPECT_TRUE(showsAnew(" boiler(5) -> everybody data 5_9_0 = \"UP\""));
  EXPECT_TRUE(linkIs(true));
  EXPECT_TRUE(showsAnew(" boiler(5) -> everybody data 5_1_0 = \"2"));
}

// Without power its burner goes out, and nobody tells the thermostat.
TEST_F(HouseRecovers, ABoilerThatWasHeatingIsAskedToHeatAgain) {
  talkative();
  ASSERT_TRUE(shows(" boiler(5) -> everybody data 5_2_0 = \"ON\""));
  tell(*boiler, "boiler", "unplug");
  ASSERT_TRUE(shows(" boiler(5) -> everybody data 5_9_0 = \"DOWN\""));

  forgetTheMessages();
  tell(*boiler, "boiler", "plug");
  EXPECT_TRUE(showsAnew(" thermostat(6) -> boiler actuator 5_2_0 = \"ON\""));
  EXPECT_TRUE(showsAnew(" boiler(5) -> everybody data 5_2_0 = \"ON\""));
  const double cold = temperature();
  EXPECT_TRUE(eventually([&] { return temperature() > cold + 0.5; }));
}

TEST_F(HouseRecovers, WhenTheSerialLineIsPluggedInAgain) {
  silent();
  tell(*meter, "meter", "unplug");
  EXPECT_TRUE(shows(" meter(7) -> everybody data 7_9_0 = \"DOWN\""));
  tell(*meter, "meter", "plug");
  EXPECT_TRUE(shows(" meter(7) -> everybody data 7_9_0 = \"UP\""));
  request("7_1_0", "NOW", "meter");
  EXPECT_TRUE(shows(" meter(7) -> everybody data 7_1_0 = \"1234\""));
}

TEST_F(HouseRecovers, WhenThePanelIsPluggedInAgain) {
  silent();
  tell(*panel, "panel", "unplug");
  EXPECT_TRUE(shows(" panel(8) -> everybody data 8_9_0 = \"DOWN\""));
  tell(*panel, "panel", "plug");
  EXPECT_TRUE(shows(" panel(8) -> everybody data 8_9_0 = \"UP\""));
  request("8_2_0", "ARM", "panel");
  EXPECT_TRUE(shows(" panel(8) -> everybody data 8_2_0 = \"ARMED\""));
}

class EveryDevice : public testing::TestWithParam<const char*> {
 protected:
  Finished run(const Arguments& options) const {
    return runToEnd(SimulatedDevice::line(GetParam(), options));
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

bool connectsTo(const std::string& port) {
  return runToEnd({"bash", "-c", ": 3<>/dev/tcp/127.0.0.1/$1", "-", port}).status == 0;
}

TEST(HouseDevice, ThatIsUnpluggedIsNotThereUntilItIsPluggedIn) {
  for (const char* name : {"boiler", "panel"}) {
    SimulatedDevice device(name, {"--port", "0"});
    const std::string port = device.place();
    EXPECT_TRUE(connectsTo(port));
    tell(device, name, "unplug");
    EXPECT_FALSE(connectsTo(port));
    tell(device, name, "plug");
    EXPECT_TRUE(connectsTo(port));
    EXPECT_EQ(device.process.output(), std::string(name) + ": listening on 127.0.0.1 port " + port +
                                           "\n" + name + ": unplugged\n" + name +
                                           ": plugged in, listening on 127.0.0.1 port " + port +
                                           "\n");
  }
}

TEST(HouseDevice, TheLineOfAMeterThatIsUnpluggedIsGone) {
  const TempFolder folder;
  SimulatedDevice meter("meter", {"--link", folder / "meter"});
  tell(meter, "meter", "unplug");
  EXPECT_FALSE(exists(folder / "meter"));
  tell(meter, "meter", "plug");
  EXPECT_TRUE(exists(folder / "meter"));
  EXPECT_EQ(meter.end(SIGTERM), 0);
  EXPECT_FALSE(exists(folder / "meter"));
}

// Whether the process has taken every signal that it was sent.
bool hasNoSignalWaiting(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("ShdPnd:")) return line.find_first_not_of("\t0", 7) == std::string::npos;
  return false;
}

// The second signal has the lower number: if both waited, it would be the first to be taken.
TEST(HouseDevice, APlugThatIsInStaysIn) {
  SimulatedDevice boiler("boiler", {"--port", "0"});
  boiler.process.signal(SIGUSR2);
  ASSERT_TRUE(eventually([&] { return hasNoSignalWaiting(boiler.process.pid()); }));
  boiler.process.signal(SIGUSR1);
  EXPECT_TRUE(boiler.process.waitForOutput("boiler: unplugged\n"));
  EXPECT_THAT(boiler.process.output(), Not(HasSubstr("plugged in")));
}

// Boilers under a name that no other process has.
class Plug : public testing::Test {
 protected:
  Plug() { EXPECT_EQ(::symlink(DROVANE_DEVICES "/boiler", (folder / name).c_str()), 0); }
  std::unique_ptr<Process> boiler() const {
    auto process =
        std::make_unique<Process>(Arguments{folder / name, "--port", "0", "--interval", "3600"});
    EXPECT_TRUE(process->waitForOutput("listening"));
    return process;
  }

  const TempFolder folder;
  const std::string name = "b" + std::to_string(::getpid());
};

TEST_F(Plug, FindsTheDeviceByItsName) {
  SKIP_WHEN_EMULATED("does not tell the kernel which signals its program blocks");
  const auto only = boiler();
  const std::string which = name + " (process " + std::to_string(only->pid()) + ")";
  EXPECT_EQ(plug("unplug", {name}).output, which + ": unplugged\n");
  EXPECT_TRUE(only->waitForOutput("boiler: unplugged\n"));
  EXPECT_EQ(plug("plug", {name}).output, which + ": plugged in\n");
  EXPECT_TRUE(only->waitForOutput("boiler: plugged in, "));
}

TEST_F(Plug, SaysWhenNoSuchDeviceRuns) {
  const Finished done = plug("unplug", {name});
  EXPECT_EQ(done.status, 1);
  EXPECT_EQ(done.errors, "unplug: no simulated " + name + " runs; expected a process named " +
                             name + ", as script/run starts it\n");
}

TEST_F(Plug, AsksWhichOneWhenThereAreSeveral) {
  SKIP_WHEN_EMULATED("does not tell the kernel which signals its program blocks");
  const auto one = boiler();
  const auto other = boiler();
  const Finished done = plug("unplug", {name});
  EXPECT_EQ(done.status, 1);
  EXPECT_THAT(done.errors,
              StartsWith("unplug: several of the name " + name + " run; expected --pid N, "));
  EXPECT_THAT(done.errors, HasSubstr(std::to_string(one->pid())));
  EXPECT_THAT(done.errors, HasSubstr(std::to_string(other->pid())));
  EXPECT_EQ(plug("unplug", {name, "--pid", std::to_string(other->pid())}).status, 0);
  EXPECT_TRUE(other->waitForOutput("boiler: unplugged\n"));
  EXPECT_THAT(one->output(), Not(HasSubstr("unplugged")));
}

// It would die of the signal.
TEST_F(Plug, LeavesOtherProgramsAlone) {
  ASSERT_EQ(::symlink("/bin/sleep", (folder / "x" + name).c_str()), 0);
  const Process other({folder / "x" + name, "60"});
  const std::string pid = std::to_string(other.pid());
  const Finished by_name = plug("unplug", {"x" + name});
  EXPECT_EQ(by_name.status, 1);
  const Finished by_number = plug("unplug", {"x" + name, "--pid", pid});
  EXPECT_EQ(by_number.status, 1);
  EXPECT_EQ(by_number.errors, "unplug: process " + pid + " is no simulated x" + name + "\n");
}

TEST_F(Plug, ExplainsItself) {
  for (const char* command : {"plug", "unplug"}) {
    const Finished done = plug(command, {"--help"});
    EXPECT_EQ(done.status, 0);
    EXPECT_THAT(done.output, StartsWith("Usage: examples/house/unplug DEVICE [--pid N]\n"));
    EXPECT_THAT(done.output, HasSubstr(std::string("\nExample: examples/house/") + command + " "));
  }
}

TEST_F(Plug, RefusesWhatItDoesNotKnow) {
  for (const Arguments& line :
       {Arguments{}, {"boiler", "meter"}, {"boiler", "--now"}, {"boiler", "--pid", "x"}})
    EXPECT_EQ(plug("unplug", line).status, 2);
}

TEST(HouseDevice, SaysWhenItsPortIsTaken) {
  SimulatedDevice first("boiler", {"--port", "0"});
  for (const char* name : {"boiler", "panel"}) {
    const Finished second = runToEnd(SimulatedDevice::line(name, {"--port", first.place()}));
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.errors, std::string(name) + ": 127.0.0.1 port " + first.place() +
                                 ": Address already in use\n");
  }
}

TEST(HouseDevice, EndsInGoodOrder) {
  for (const int signal : {SIGINT, SIGTERM})
    for (const char* name : {"boiler", "panel"})
      EXPECT_EQ(SimulatedDevice(name, {"--port", "0"}).end(signal), 0) << name;
}

TEST(HouseDevice, TheMeterTakesItsLinkAwayAtTheEnd) {
  const TempFolder folder;
  for (const int signal : {SIGINT, SIGTERM}) {
    SimulatedDevice meter("meter", {"--link", folder / "meter"});
    EXPECT_TRUE(exists(folder / "meter"));
    EXPECT_EQ(meter.end(signal), 0);
    EXPECT_FALSE(exists(folder / "meter"));
  }
}

TEST(HouseDevice, TheMeterReplacesALinkThatLeadsNowhere) {
  const TempFolder folder;
  ASSERT_EQ(::symlink((folder / "gone").c_str(), (folder / "meter").c_str()), 0);
  SimulatedDevice meter("meter", {"--link", folder / "meter"});
  EXPECT_EQ(meter.end(SIGTERM), 0);
}

TEST(HouseDevice, TheMeterLeavesAnythingElseAlone) {
  const TempFolder folder;
  folder.write("meter", "mine");
  const Finished done = runToEnd(SimulatedDevice::line("meter", {"--link", folder / "meter"}));
  EXPECT_EQ(done.status, 1);
  EXPECT_EQ(done.errors, "meter: " + (folder / "meter") + ": File exists\n");
  EXPECT_EQ(folder.read("meter"), "mine");
}

Finished handshake(const std::string& version, const std::string& port) {
  return runToEnd({"openssl", "s_client", version, "-cipher", "DEFAULT:@SECLEVEL=0", "-connect",
                   "127.0.0.1:" + port});
}

TEST(HouseDevice, ThePanelSpeaksTls10AndNothingNewer) {
  SimulatedDevice panel("panel", {"--port", "0"});
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
  SimulatedDevice panel("panel", {"--port", "0"});
  const Finished plain = runToEnd(
      {"bash", "-c", "exec 3<>/dev/tcp/127.0.0.1/$1; echo ARM THE PANEL >&3; cat <&3 >/dev/null",
       "-", panel.place()});
  EXPECT_NE(plain.status, -1);  // it has ended, in good order or by a reset
  EXPECT_THAT(handshake("-tls1", panel.place()).output, HasSubstr("Protocol  : TLSv1\n"));
}

}  // namespace
