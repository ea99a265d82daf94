// What is left of one run, and what the next one finds.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "FaultyHouse.h"
#include "support/Eventually.h"
#include "support/PeerSerial.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

TEST(RestartFaults, AfterAKillTheSocketThatWasLeftIsTakenOverAndThePeerGetsItsLinkAgain) {
  TcpPeer peer;
  FaultyHouse house;
  house.startReady(houseOf(peer));
  peer.accept();
  house.running().signal(SIGKILL);
  EXPECT_EQ(house.running().wait(), 128 + SIGKILL);
  EXPECT_TRUE(peer.seesEnd());
  ASSERT_TRUE(fs::is_socket(house.program.control));
  const Finished nobody = house.program.ask({"status"});
  EXPECT_EQ(nobody.status, 3);
  EXPECT_EQ(nobody.errors,
            "drovane: no running drovane at " + house.program.control + ": Connection refused\n");
  ASSERT_TRUE(house.restart().waitForErrors(" roviks\n"));
  peer.accept();
  peer.send("again\n");
  EXPECT_TRUE(house.arrives("again"));
  house.expectEndsInTime();
  EXPECT_FALSE(fs::exists(house.program.control));
}

TEST(RestartFaults, AfterAKillASerialLineIsFreeAgain) {
  SerialPeer line;
  FaultyHouse house;
  house.startReady("rovik 5 meter generic_net\n  mode tty\n  tty " + line.path() +
                   "\n  ttymode 8N1\n  baudrate 9600\n  eolin \\n\n  unparsedout on\n  open\n"
                   "rovik 6 other echo\n");
  house.running().signal(SIGKILL);
  EXPECT_EQ(house.running().wait(), 128 + SIGKILL);
  ASSERT_TRUE(house.restart().waitForErrors(" roviks\n"));
  line.send("again\n");
  EXPECT_TRUE(house.arrives("again"));
}

TEST(RestartFaults, ASecondOneIsRefusedAndTheFirstGoesOn) {
  FaultyHouse house;
  house.startReady(houseWith());
  const Finished second = house.program.runToItsEnd(houseWith("rovik 7 third echo\n"));
  EXPECT_EQ(second.status, 2);
  EXPECT_THAT(second.errors,
              HasSubstr("drovane: control socket '" + house.program.control +
                        "' is in use by a running drovane; expected a free path, or another one "
                        "with --control\n"));
  EXPECT_THAT(second.errors, Not(HasSubstr(": started\n")));
  EXPECT_EQ(house.command("boiler", {"say", "alive"}), "alive\n");
  house.expectEndsInTime();
}

TEST(RestartFaults, AControlSocketThatWasRemovedIsMissedUntilARestart) {
  FaultyHouse house;
  house.startReady(houseWith());
  fs::remove(house.program.control);
  const Finished nobody = house.program.ask({"status"});
  EXPECT_EQ(nobody.status, 3);
  EXPECT_EQ(nobody.errors, "drovane: no running drovane at " + house.program.control +
                               ": No such file or directory\n");
  house.expectEndsInTime();
  ASSERT_TRUE(house.restart().waitForErrors(" roviks\n"));
  EXPECT_EQ(house.command("boiler", {"say", "alive"}), "alive\n");
}

// Two that the removed file kept from knowing each other: the older one must not take the younger
// one's away.
TEST(RestartFaults, ASocketOfAnotherOneUnderTheSamePathIsLeftAlone) {
  FaultyHouse older;
  older.startReady(houseWith());
  fs::remove(older.program.control);
  FaultyHouse younger;
  Process& second = younger.start(houseWith(), {"--control", older.program.control});
  ASSERT_TRUE(second.waitForErrors(" roviks\n"));
  older.expectEndsInTime();
  EXPECT_EQ(older.command("boiler", {"say", "alive"}), "alive\n");
}

class MovablePlugIn : public testing::Test {
 protected:
  MovablePlugIn() {
    fs::create_directory(folder);
    fs::copy_file(DROVANE_PLUGINS "/generic_net.so", file);
    house.plug_ins = folder;
  }

  TcpPeer peer;
  FaultyHouse house;
  const std::string folder = house.program.folder / "plug-ins";
  const std::string file = folder + "/movable.so";
  const std::string config = "rovik 5 boiler movable\n  mode tcp\n  host 127.0.0.1\n  port " +
                             std::to_string(peer.port()) + "\n  open\n";
};

TEST_F(MovablePlugIn, WhenItsFileGoesTheRunningProgramGoesOn) {
  house.startReady(config);
  fs::remove(file);
  EXPECT_EQ(house.command("boiler", {"close"}), "OK\n");
  EXPECT_EQ(house.command("boiler", {"open"}), "OK\n");
  house.expectEndsInTime();
}

TEST_F(MovablePlugIn, WhenItIsMissingAtARestartTheErrorSaysWhereItWasLookedFor) {
  house.startReady(config);
  fs::remove(file);
  house.expectEndsInTime();
  Process& run = house.restart();
  EXPECT_EQ(run.wait(), 2);
  EXPECT_THAT(run.errors(),
              HasSubstr(house.program.file() +
                        ":1: plug-in 'movable' was not found; expected movable.so in "));
  EXPECT_THAT(run.errors(), HasSubstr(", " + folder + "\n"));
  EXPECT_FALSE(fs::exists(house.program.control));
}

TEST_F(MovablePlugIn, WhenItIsEmptyAtARestartTheErrorSaysSo) {
  house.startReady(config);
  house.expectEndsInTime();
  fs::resize_file(file, 0);
  Process& run = house.restart();
  EXPECT_EQ(run.wait(), 2);
  EXPECT_THAT(run.errors(),
              HasSubstr(house.program.file() + ":1: plug-in 'movable' (" + file +
                        ") is not a library that can be loaded: " + file + ": file too short\n"));
}

TEST(RestartFaults, AConfigurationThatIsGoneIsNamed) {
  FaultyHouse house;
  house.startReady(houseWith());
  fs::remove(house.program.file());
  EXPECT_EQ(house.command("boiler", {"say", "alive"}), "alive\n");
  house.expectEndsInTime();
  const Finished done = house.program.ask({"run", house.program.file()});
  EXPECT_EQ(done.status, 2);
  EXPECT_EQ(done.errors, house.program.file() +
                             ":1: the file cannot be opened: No such file or directory; expected "
                             "a configuration file that can be read\n");
}

}  // namespace
