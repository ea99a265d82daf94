// The program as a service: what it tells the service manager, and when.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "FaultyHouse.h"
#include "framework/MessageJson.h"
#include "support/Emulation.h"
#include "support/Eventually.h"
#include "support/Sanitizers.h"
#include "support/UnixDatagrams.h"

namespace {

using std::chrono::milliseconds;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

const char kAlive[] = "WATCHDOG=1";

class AsAService : public testing::Test {
 protected:
  // With a sign of life wanted every `watchdog` milliseconds; 0: none.
  Process::Environment environment(int watchdog = 0) const {
    Process::Environment variables = {{"NOTIFY_SOCKET", socket}};
    if (watchdog != 0) variables["WATCHDOG_USEC"] = std::to_string(watchdog * 1000 * slowness());
    return variables;
  }
  // A house with a rovik whose script goes round for ever when it is told a value.
  std::string houseWithLoop() const {
    house.script("loop",
                 "function ROVIK_INIT(me) m_p = me end\n"
                 "function ROVIK_RCV() print('for ever') while true do end end\n");
    return "rovik 5 loop generic_net\n  luafile loop.lua\n  luaopen\nrovik 6 other echo\n";
  }
  void enterLoop() {
    ASSERT_EQ(house.program.ask({"send", "1_1_1", "int", "1", "--to", "loop"}).status, 0);
  }
  bool says(const std::string& line) { return house.running().waitForErrors(line); }
  // Whether signs of life come: some more in the time, or none for several times the pause.
  bool signsGoOn() {
    const std::size_t before = manager.count(kAlive);
    return eventually([&] { return manager.count(kAlive) >= before + 3; });
  }
  bool signsHaveEnded(milliseconds pause) {
    const std::size_t before = manager.count(kAlive);
    return !eventually([&] { return manager.count(kAlive) > before; }, 8 * pause * slowness());
  }

  FaultyHouse house;
  const std::string socket = house.program.folder / "notify";
  UnixDatagrams manager{socket};
};

TEST_F(AsAService, IsReadyOnlyWhenEveryCommandHasRun) {
  TcpPeer device;
  house.start("rovik 5 panel generic_net\n  mode ssl\n  host 127.0.0.1\n  port " +
                  std::to_string(device.port()) + "\n  open\nrovik 6 other echo\n",
              {}, environment());
  device.accept();
  ASSERT_EQ("\x16", device.receive(1));  // the handshake that is not answered
  ASSERT_TRUE(says("rovik 6 other: started\n"));
  ASSERT_TRUE(manager.waitFor("EXTEND_TIMEOUT_USEC=60000000"));
  EXPECT_EQ(manager.count("READY=1"), 0U);
  device.reset();
  EXPECT_TRUE(manager.waitFor("READY=1\nSTATUS=2 roviks"));
  house.expectEndsInTime();
}

TEST_F(AsAService, IsNotReadyWhenItsStartIsRefused) {
  house.start(houseWith("  fail\n"), {"--strict"}, environment());
  EXPECT_EQ(house.running().wait(), 2);
  EXPECT_EQ(manager.count("READY=1"), 0U);
  EXPECT_EQ(manager.all().back(), "STOPPING=1\nSTATUS=stopping");
}

TEST_F(AsAService, SaysThatItStops) {
  house.startReady(houseWith(), {}, environment());
  ASSERT_TRUE(manager.waitFor("READY=1"));
  house.expectEndsInTime();
  EXPECT_THAT(manager.all(), ElementsAre("EXTEND_TIMEOUT_USEC=60000000", "READY=1\nSTATUS=2 roviks",
                                         "STOPPING=1\nSTATUS=stopping"));
}

TEST_F(AsAService, FindsAManagerInTheAbstractSpace) {
  const std::string name = "@drovane-test-" + std::to_string(::getpid());
  UnixDatagrams abstract(name);
  house.start(houseWith(), {}, {{"NOTIFY_SOCKET", name}});
  EXPECT_TRUE(abstract.waitFor("READY=1"));
  house.expectEndsInTime();
}

TEST_F(AsAService, GoesOnWithoutAManagerThatCanBeTold) {
  const std::string gone = house.program.folder / "gone";
  house.startReady(houseWith(), {}, {{"NOTIFY_SOCKET", gone}});
  EXPECT_EQ(house.command("other", {"say", "alive"}), "alive\n");
  house.expectEndsInTime();
  const std::string& log = house.running().errors();
  const std::string line =
      " 2 0 drovane the service manager cannot be told anything: No such file or directory\n";
  EXPECT_THAT(log, HasSubstr(line));
  EXPECT_EQ(log.find(line), log.rfind(line));
}

TEST_F(AsAService, SaysThatTheManagersAddressIsNone) {
  house.startReady(houseWith(), {}, {{"NOTIFY_SOCKET", "nowhere"}});
  EXPECT_TRUE(
      says(" 2 0 drovane NOTIFY_SOCKET cannot be used; expected the path of a socket: nowhere\n"));
  house.expectEndsInTime();
}

TEST_F(AsAService, GivesSignsOfLife) {
  house.start(houseWith(), {}, environment(200));
  EXPECT_TRUE(signsGoOn());
  EXPECT_TRUE(manager.waitFor("READY=1"));
  EXPECT_TRUE(signsGoOn());
  house.expectEndsInTime();
}

// The first one comes before the house is ready.
TEST_F(AsAService, GivesNoSignOfLifeWhenNobodyWantsOne) {
  house.start(houseWith(), {}, environment());
  ASSERT_TRUE(manager.waitFor("READY=1"));
  house.expectEndsInTime();
  EXPECT_EQ(manager.count(kAlive), 0U);
}

TEST_F(AsAService, GivesNoSignOfLifeThatIsWantedOfAnother) {
  Process::Environment variables = environment(200);
  variables["WATCHDOG_PID"] = "1";
  house.start(houseWith(), {}, variables);
  ASSERT_TRUE(manager.waitFor("READY=1"));
  house.expectEndsInTime();
  EXPECT_EQ(manager.count(kAlive), 0U);
}

TEST_F(AsAService, SaysThatTheTimeForSignsOfLifeIsNone) {
  Process::Environment variables = environment();
  variables["WATCHDOG_USEC"] = "soon";
  house.startReady(houseWith(), {}, variables);
  EXPECT_TRUE(
      says(" 2 0 drovane WATCHDOG_USEC or WATCHDOG_PID cannot be used: Invalid argument\n"));
  house.expectEndsInTime();
}

TEST_F(AsAService, SaysThatThereAreNoSignsOfLifeWithoutTheLibrary) {
  Process::Environment variables = environment(200);
  variables["LD_LIBRARY_PATH"] = house.folderWithBroken("libsystemd.so.0");
  house.startReady(houseWith(), {}, variables);
  EXPECT_TRUE(says(
      " 2 0 drovane no signs of life for the service manager: the library of systemd cannot be "
      "loaded: "));
  EXPECT_TRUE(manager.waitFor("READY=1"));
  house.expectEndsInTime();
  EXPECT_EQ(manager.count(kAlive), 0U);
}

// It takes a third of the time of a short command.
TEST_F(AsAService, TheLibraryIsLoadedOnlyWhenSignsOfLifeAreWanted) {
  house.startReady(houseWith(), {}, environment());
  EXPECT_FALSE(house.hasLoaded("libsystemd.so.0"));
  house.expectEndsInTime();
  house.startReady(houseWith(), {}, environment(200));
  EXPECT_TRUE(house.hasLoaded("libsystemd.so.0"));
  house.expectEndsInTime();
}

TEST_F(AsAService, SignsOfLifeNeedNoDescriptor) {
  SKIP_WHEN_EMULATED("needs descriptors of its own");
  house.startReady(houseWith(), {}, environment(200));
  house.limit(RLIMIT_NOFILE, 3);
  EXPECT_TRUE(signsGoOn());
  house.unlimit(RLIMIT_NOFILE);
  house.expectEndsInTime();
}

TEST_F(AsAService, SignsOfLifeNeedNoMemory) {
  SKIP_WHEN_EMULATED("needs memory of its own");
  SKIP_WHEN_SANITIZED("ends a program that gets no memory");
  SKIP_WHEN_COUNTED("needs memory at its end");
  const ShortSupply memory;
  Process::Environment variables = environment(1000);
  variables.merge(memory.environment());
  house.startReady(houseWith(), {}, variables);
  memory.set(1);
  EXPECT_TRUE(signsGoOn());
  memory.set(0);
  house.expectEndsInTime();
}

TEST_F(AsAService, WhatHangsDoesNotKeepSignsOfLifeAwayUnlessItIsToldTo) {
  house.startReady(houseWithLoop(), {}, environment(200));
  enterLoop();
  ASSERT_TRUE(eventually([&] {
    const drovane::Json row = house.program.statusOf(5);
    return cJSON_HasObjectItem(row.get(), "slot");
  }));
  EXPECT_TRUE(signsGoOn());
  house.running().signal(SIGKILL);
}

TEST_F(AsAService, AHangKeepsSignsOfLifeAwayWhenItIsToldTo) {
  house.startReady(houseWithLoop(), {"--restart-hung", "1"}, environment(200));
  ASSERT_TRUE(signsGoOn());
  enterLoop();
  ASSERT_TRUE(says(" 2 0 drovane rovik 5 loop: selectMM has not returned for "));
  ASSERT_TRUE(says(" s: no more signs of life, so that the service manager restarts drovane\n"));
  EXPECT_TRUE(signsHaveEnded(milliseconds(100)));
  // The manager's signal.
  const auto begun = std::chrono::steady_clock::now();
  house.running().signal(SIGTERM);
  EXPECT_EQ(house.running().wait(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(6) * slowness());
  EXPECT_THAT(house.running().errors(), HasSubstr("rovik 5 loop did not end in time\n"));
}

TEST_F(AsAService, SignsOfLifeComeAgainWhenTheHangIsOver) {
  const std::string pipe = house.program.folder / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  house.startReady("rovik 5 waits stalls\n", {"--restart-hung", "1"}, environment(200));
  const Process client({DROVANE_PROGRAM, "cmd", "waits", "read", pipe},
                       {{"DROVANE_CONTROL", house.program.control}});
  ASSERT_TRUE(says("rovik 5 waits: interpretCmd has not returned for "));
  EXPECT_TRUE(signsHaveEnded(milliseconds(100)));
  house.program.folder.write("pipe", "x");
  EXPECT_TRUE(says(" 3 0 drovane signs of life are given again\n"));
  EXPECT_TRUE(signsGoOn());
  house.expectEndsInTime();
}

TEST_F(AsAService, AnEndlessLoopIsWarnedOfAndShown) {
  house.startReady(houseWithLoop(), {}, environment());
  enterLoop();
  // 10 s, or 11: the watchdog looks once a second.
  ASSERT_TRUE(says(" 2 5 loop selectMM has not returned for 1"));
  EXPECT_TRUE(manager.waitFor("STATUS=2 roviks, 1 of them hanging"));
  const drovane::Json row = house.program.statusOf(5);
  const std::string warning = cJSON_GetStringValue(cJSON_GetObjectItem(row.get(), "warning"));
  EXPECT_THAT(warning, testing::AnyOf("selectMM has not returned for 10 s",
                                      "selectMM has not returned for 11 s"));
  EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItem(row.get(), "slot")), "selectMM");
  EXPECT_GE(cJSON_GetNumberValue(cJSON_GetObjectItem(row.get(), "slot_seconds")), 10);
  const drovane::Json other = house.program.statusOf(6);
  EXPECT_FALSE(cJSON_HasObjectItem(other.get(), "slot"));
  house.running().signal(SIGKILL);
}

TEST_F(AsAService, TheLimitForHangsSaysWhenItHasNoEffect) {
  house.startReady(houseWith(), {"--restart-hung", "30"}, environment());
  EXPECT_TRUE(
      says(" 2 0 drovane --restart-hung has no effect: no service manager waits for signs of life; "
           "expected WATCHDOG_USEC and NOTIFY_SOCKET in the environment\n"));
  house.expectEndsInTime();
}

TEST_F(AsAService, TheLimitForHangsIsANumberOfSeconds) {
  for (const char* wrong : {"0", "-1", "soon", "86401"})
    EXPECT_EQ(house.program.runToItsEnd(houseWith(), {"--restart-hung", wrong}).status, 2) << wrong;
}

}  // namespace
