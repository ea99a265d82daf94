// The example projector: the simulated one, or a peer that plays it, with the real configuration
// and script.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "RunningProgram.h"
#include "SimulatedDevice.h"
#include "support/Eventually.h"
#include "support/PeerTcp.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const char kExample[] = DROVANE_SOURCE_DIR "/examples/projector";

int numberOf(const std::string& text, const std::string& part) {
  int count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++count;
  return count;
}

class Projector : public testing::Test {
 protected:
  // A rovik that looks every `tick` seconds.
  void connectTo(const std::string& port, const std::string& tick) {
    std::string config = contentOf(std::string(kExample) + "/projector.conf");
    replace(config, "port 7003\n", "port " + port + "\n");
    replace(config, "poll_every 5\n", "poll_every " + tick + "\n");
    program.startReady(config, {"--root", kExample, "--log-level", "4"});
    watcher = program.watch();
  }

  void startSimulated(const std::string& warm_up, const std::string& cool_down = "0",
                      const std::string& tick = "0.1") {
    device = simulated("0", warm_up, cool_down);
    connectTo(device->place(), tick);
  }

  static std::unique_ptr<SimulatedDevice> simulated(const std::string& port,
                                                    const std::string& warm_up,
                                                    const std::string& cool_down) {
    return std::make_unique<SimulatedDevice>(
        "projector", Arguments{"--port", port, "--warm-up", warm_up, "--cool-down", cool_down});
  }

  bool shows(const std::string& text) { return watcher->waitForOutput(text); }
  bool showsAnew(const std::string& text) {
    const std::size_t seen = watcher->output().size();
    return eventually([&] { return watcher->output().find(text, seen) != std::string::npos; });
  }
  bool reports(const std::string& key, const std::string& value) {
    return shows(" projector(20) -> everybody data " + key + " = \"" + value + '"');
  }
  bool tells(const std::string& text) {
    return shows(" projector(20) -> everybody text channel 1: " + text + '\n');
  }

  void request(const std::string& key, const std::string& value) {
    const Finished asked =
        program.ask({"send", key, "string", value, "--to", "projector", "--actuator"});
    EXPECT_EQ(asked.status, 0) << asked.errors;
  }

  Program program;
  std::unique_ptr<SimulatedDevice> device;
  std::unique_ptr<Process> watcher;
};

TEST_F(Projector, ItsConfigurationIsClean) {
  const std::string file = std::string(kExample) + "/projector.conf";
  const Finished done = program.ask({"check", file});
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.output, file + ": ok, 1 rovik\n");
  EXPECT_EQ(done.errors, "");
}

TEST_F(Projector, ItsStateIsAskedForWhenTheLinkOpens) {
  startSimulated("0", "0", "30");
  Process& errors = program.running();
  EXPECT_TRUE(errors.waitForErrors("Rovik Message: MM_DATA 20_1_0 = {OFF}\n"));
  EXPECT_TRUE(errors.waitForErrors("Rovik Message: MM_DATA 20_2_0 = {1}\n"));
  EXPECT_TRUE(errors.waitForErrors("Rovik Message: MM_DATA 20_3_0 = {1234}\n"));
}

TEST_F(Projector, ItsStateIsAskedForAgainWithEachTick) {
  startSimulated("0");
  for (int tick = 0; tick < 3; ++tick) EXPECT_TRUE(showsAnew(" data 20_1_0 = \"OFF\""));
}

TEST_F(Projector, ItWarmsUpWhenItIsSwitchedOnAndCoolsDownAfterwards) {
  startSimulated("1", "1");
  request("20_1_0", "ON");
  EXPECT_TRUE(reports("20_1_0", "WARMING-UP"));
  EXPECT_TRUE(reports("20_1_0", "ON"));
  request("20_1_0", "OFF");
  EXPECT_TRUE(reports("20_1_0", "COOLING-DOWN"));
  EXPECT_TRUE(showsAnew(" data 20_1_0 = \"OFF\""));
}

// Not with the next tick, which is far away.
TEST_F(Projector, WhatACommandHasDoneIsReportedAtOnce) {
  startSimulated("3600", "0", "30");
  request("20_1_0", "ON");
  EXPECT_TRUE(reports("20_1_0", "WARMING-UP"));
}

TEST_F(Projector, ACommandThatIsRefusedDuringTheWarmUpIsTriedAgain) {
  startSimulated("2");
  request("20_1_0", "ON");
  request("20_2_0", "3");
  EXPECT_TRUE(tells("INP 3: not now, it is tried again"));
  EXPECT_TRUE(reports("20_2_0", "3"));
  EXPECT_TRUE(reports("20_1_0", "ON"));
  EXPECT_EQ(numberOf(watcher->output(), "INP 3: not now"), 1);
}

TEST_F(Projector, ItIsSwitchedOffAsSoonAsItIsWarm) {
  startSimulated("2");
  request("20_1_0", "ON");
  request("20_1_0", "OFF");
  EXPECT_TRUE(tells("PWR 0: not now, it is tried again"));
  EXPECT_TRUE(showsAnew(" data 20_1_0 = \"OFF\""));
}

TEST_F(Projector, OfRefusedCommandsTheNewestIsTriedAgain) {
  startSimulated("2");
  request("20_1_0", "ON");
  request("20_2_0", "2");
  request("20_2_0", "4");
  EXPECT_TRUE(tells("INP 4: not now, it is tried again"));
  EXPECT_TRUE(reports("20_2_0", "4"));
  EXPECT_TRUE(showsAnew(" data 20_3_0 = \"1234\""));
  EXPECT_THAT(watcher->output(), Not(HasSubstr("everybody data 20_2_0 = \"2\"")));
}

TEST_F(Projector, ACommandThatIsRefusedForTooLongIsGivenUp) {
  startSimulated("3600", "0", "0.02");
  request("20_2_0", "3");
  EXPECT_TRUE(tells("INP 3: refused for too long, given up"));
}

TEST_F(Projector, ItsErrorsAreExplained) {
  startSimulated("0");
  request("20_2_0", "7");
  EXPECT_TRUE(tells("INP 7: the projector does not have this value"));
  request("20_0_0", "FOO 1");
  EXPECT_TRUE(tells("FOO 1: the projector does not know this command"));
}

TEST_F(Projector, ItIsFoundAgainAfterAPowerCut) {
  startSimulated("0");
  const std::string port = device->place();
  request("20_1_0", "ON");
  EXPECT_TRUE(reports("20_1_0", "ON"));
  device->end(SIGKILL);
  EXPECT_TRUE(program.running().waitForErrors(
      " 2 20 projector connection closed by peer 127.0.0.1:" + port + "\n"));
  device = simulated(port, "0", "0");
  EXPECT_TRUE(showsAnew(" data 20_1_0 = \"OFF\""));
}

TEST_F(Projector, OneThatStandsStillIsNoticedAndFoundAgain) {
  startSimulated("0");
  device->process.signal(SIGSTOP);
  EXPECT_TRUE(tells("the projector does not answer, the connection is renewed"));
  device->process.signal(SIGCONT);
  EXPECT_TRUE(showsAnew(" data 20_1_0 = \"OFF\""));
}

TEST_F(Projector, OneThatDoesNotAnswerIsAskedOnceForEachConnection) {
  TcpPeer peer;
  connectTo(std::to_string(peer.port()), "0.05");
  for (int connection = 0; connection < 2; ++connection) {
    peer.accept();
    EXPECT_EQ(peer.receive(100), "PWR ?\r");  // until the other side ends the connection
  }
}

TEST_F(Projector, QueriesLeaveOneByOne) {
  TcpPeer peer;
  connectTo(std::to_string(peer.port()), "30");
  peer.accept();
  EXPECT_EQ(peer.receive(6), "PWR ?\r");
  peer.send("PWR=1\r");
  EXPECT_EQ(peer.receive(6), "INP ?\r");
  peer.send("INP=2\r");
  EXPECT_EQ(peer.receive(7), "LAMP ?\r");
}

TEST_F(Projector, QueriesWaitForTheAnswersToRequests) {
  TcpPeer peer;
  connectTo(std::to_string(peer.port()), "30");
  peer.accept();
  EXPECT_EQ(peer.receive(6), "PWR ?\r");
  request("20_2_0", "2");
  EXPECT_EQ(peer.receive(6), "INP 2\r");
  peer.send("PWR=1\r");
  EXPECT_TRUE(reports("20_1_0", "ON"));
  request("20_2_0", "3");
  EXPECT_EQ(peer.receive(6), "INP 3\r");
  peer.send("OK\rOK\r");
  EXPECT_EQ(peer.receive(6), "INP ?\r");
}

// A request may be on its way while a query is not answered yet.
TEST_F(Projector, AnErrorBelongsToTheOldestCommandThatIsNotAnswered) {
  TcpPeer peer;
  connectTo(std::to_string(peer.port()), "30");
  peer.accept();
  EXPECT_EQ(peer.receive(6), "PWR ?\r");
  request("20_2_0", "5");
  EXPECT_EQ(peer.receive(6), "INP 5\r");
  request("20_1_0", "ON");
  EXPECT_EQ(peer.receive(6), "PWR 1\r");
  peer.send("PWR=0\rERR2\rERR3\r");
  EXPECT_TRUE(tells("INP 5: the projector does not have this value"));
  EXPECT_TRUE(tells("PWR 1: not now, it is tried again"));
}

TEST_F(Projector, AnAnswerThatNobodyKnowsIsShown) {
  TcpPeer peer;
  connectTo(std::to_string(peer.port()), "30");
  peer.accept();
  EXPECT_EQ(peer.receive(6), "PWR ?\r");
  request("20_1_0", "ON");
  peer.send("PWR=0\rERR9\r");
  EXPECT_TRUE(tells("PWR 1: answered with ERR9"));
}

TEST_F(Projector, TheTickIsAWordOfItsConfiguration) {
  startSimulated("0", "0", "30");
  const Finished good = program.ask({"cmd", "projector", "poll_every", "2.5"});
  EXPECT_EQ(good.output, "2.5\n");
  const Finished bad = program.ask({"cmd", "projector", "poll_every", "soon"});
  EXPECT_EQ(bad.output, "ERROR (LUA FUNCTION ERROR)\n");
  EXPECT_TRUE(program.running().waitForErrors("poll_every takes a number of seconds\n"));
}

Finished runProjector(const Arguments& options) {
  return runToEnd(SimulatedDevice::line("projector", options));
}

TEST(SimulatedProjector, ExplainsItself) {
  const Finished done = runProjector({"--help"});
  EXPECT_EQ(done.status, 0);
  EXPECT_THAT(done.output, StartsWith("Usage: projector "));
  EXPECT_THAT(done.output, HasSubstr("\nExample: projector --"));
}

TEST(SimulatedProjector, RefusesWhatItDoesNotKnow) {
  EXPECT_EQ(runProjector({"--colour", "red"}).status, 2);
  const Finished done = runProjector({"--warm-up", "long"});
  EXPECT_EQ(done.status, 2);
  EXPECT_EQ(done.errors, "projector: --warm-up long: expected a number from 0 to 3600\n");
}

TEST(SimulatedProjector, EndsInGoodOrder) {
  for (const int signal : {SIGINT, SIGTERM})
    EXPECT_EQ(SimulatedDevice("projector", {"--port", "0"}).end(signal), 0);
}

}  // namespace
