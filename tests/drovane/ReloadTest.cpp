// A running drovane reads its configuration anew: by signal, and by "drovane reload".
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>

#include "RunningProgram.h"
#include "support/Eventually.h"
#include "support/PeerTcp.h"
#include "support/UnixClient.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class ReloadedHouse : public testing::Test {
 protected:
  void write(const std::string& config) const { program.folder.write("house.conf", config); }
  Finished reload(const std::string& config) const {
    write(config);
    return program.ask({"reload"});
  }
  void hangUp(const std::string& config) {
    write(config);
    program.running().signal(SIGHUP);
  }
  std::string summary(const std::string& counts) const {
    return program.file() + ": " + counts + "\n";
  }
  std::string answer(const Arguments& command) const {
    Arguments line = {"cmd"};
    line.insert(line.end(), command.begin(), command.end());
    return program.ask(line).output;
  }
  const std::string& log() { return program.running().errors(); }

  // A rovik that waits in a command until goOn.
  static std::string slow(const std::string& more = "") { return "rovik 9 slow waits\n" + more; }
  std::unique_ptr<Process> letWait() {
    auto asking =
        std::make_unique<Process>(Arguments{DROVANE_PROGRAM, "cmd", "slow", "wait", file},
                                  Process::Environment{{"DROVANE_CONTROL", program.control}});
    EXPECT_TRUE(program.running().waitForErrors("waits now\n"));
    return asking;
  }
  void goOn() const { program.folder.write("go_on", ""); }

  Program program;
  const std::string file = program.folder / "go_on";
};

std::string link(int id, const std::string& name, const TcpPeer& peer,
                 const std::string& more = "") {
  return "rovik " + std::to_string(id) + ' ' + name +
         " generic_net\n  mode tcp\n  host 127.0.0.1\n  port " + std::to_string(peer.port()) +
         "\n  eolin \\n\n" + more + "  open\n";
}

// --- Links ---

TEST_F(ReloadedHouse, LinksThatAreNotConcernedStayAndTheOthersComeAndGo) {
  TcpPeer kept;
  TcpPeer changed;
  TcpPeer removed;
  TcpPeer added;
  program.startReady("log level 4\n" + link(5, "kept", kept) + link(6, "changed", changed) +
                     link(7, "removed", removed));
  for (TcpPeer* peer : {&kept, &changed, &removed}) peer->accept();
  const Finished done =
      reload("# moved\nlog level 4\n" + link(8, "added", added) + link(5, "kept", kept) +
             link(6, "changed", changed, "  chopeol on\n"));
  EXPECT_EQ(done.status, 0) << done.errors;
  EXPECT_EQ(done.output, summary("3 roviks, 1 kept, 1 changed, 1 added, 1 removed"));
  EXPECT_EQ(done.errors, "");
  EXPECT_TRUE(removed.seesEnd());
  EXPECT_FALSE(removed.linkWaits());
  EXPECT_TRUE(changed.seesEnd());
  changed.accept();
  added.accept();
  EXPECT_FALSE(kept.linkWaits());
  kept.send("still here\n");
  EXPECT_TRUE(program.running().waitForErrors("still here"));
}

const char kCounts[] =
    "local count, gaps = 0, 0\n"
    "function ROVIK_INIT(me) m_p = me end\n"
    "function ROVIK_RCVOPEN() end\n"
    "function ROVIK_RCV() end\n"
    "function ROVIK_RCVIO(data)\n"
    "  local number = tonumber(string.match(data, 'L(%d+)'))\n"
    "  if number ~= count + 1 then gaps = gaps + 1 end\n"
    "  count = number\n"
    "end\n"
    "function books() return count .. ' lines, ' .. gaps .. ' gaps' end\n";

TEST_F(ReloadedHouse, AKeptLinkLosesNoLine) {
  TcpPeer peer;
  std::filesystem::create_directories(program.folder / "lua");
  program.folder.write("lua/counts.lua", kCounts);
  const std::string kept =
      "log level 2\n" + link(5, "kept", peer, "  luafile counts.lua\n  luaopen\n");
  program.start(kept + "rovik 6 lamp echo\n");
  peer.accept();
  std::atomic<bool> over{false};
  auto traffic = std::async(std::launch::async, [&] {
    int number = 0;
    while (!over || number < 1000) {
      peer.send("L" + std::to_string(++number) + "\n");
      if (number % 100 == 0) ::poll(nullptr, 0, 1);
    }
    return number;
  });
  for (int i = 0; i < 10; ++i) {
    const Finished done = reload(kept + "rovik 6 lamp echo\n  say " + std::to_string(i) + "\n");
    EXPECT_EQ(done.output, summary("2 roviks, 1 kept, 1 changed, 0 added, 0 removed"));
  }
  over = true;
  const std::string books = std::to_string(traffic.get()) + " lines, 0 gaps\n";
  EXPECT_TRUE(eventually([&] {
    return answer({"kept", "books"}) == books;
  })) << answer({"kept", "books"})
      << books;
}

// --- The signal ---

TEST_F(ReloadedHouse, AHangUpReloadsAndLogsWhatHasChanged) {
  program.startReady(houseWith());
  hangUp("rovik 5 boiler echo\nrovik 7 fan echo\n  fail\n");
  ASSERT_TRUE(program.running().waitForErrors(
      " 3 0 drovane " + summary("2 roviks, 1 kept, 0 changed, 1 added, 1 removed")));
  EXPECT_THAT(log(), HasSubstr(" 2 0 drovane " + program.file() +
                               ":3: rovik 7 fan: 'fail' was answered with ERROR (FAILED)\n"));
  program.expectEndsInTime();
}

TEST_F(ReloadedHouse, AHangUpDuringTheStartIsDoneBehindIt) {
  const std::string begun = slow("  wait " + file + "\n");
  program.start(begun);
  ASSERT_TRUE(program.running().waitForErrors("waits now\n"));
  hangUp(begun + "rovik 7 fan echo\n");
  goOn();
  ASSERT_TRUE(
      program.running().waitForErrors(summary("2 roviks, 1 kept, 0 changed, 1 added, 0 removed")));
  EXPECT_LT(log().find(summary("1 rovik")), log().find(" 7 fan: started"));
}

TEST_F(ReloadedHouse, AHangUpDuringAReloadIsAnotherReload) {
  program.startReady(houseWith(slow()));
  const auto asking = letWait();
  hangUp(houseWith("rovik 7 fan echo\n"));
  ASSERT_TRUE(program.running().waitForErrors("rovik 7 fan: started\n"));
  hangUp(houseWith("rovik 8 door echo\nrovik 10 gate echo\n"));
  goOn();
  EXPECT_TRUE(
      program.running().waitForErrors(summary("4 roviks, 2 kept, 0 changed, 2 added, 1 removed")));
  EXPECT_LT(log().find("rovik 9 slow: stopped"),
            log().find(summary("3 roviks, 2 kept, 0 changed, 1 added, 1 removed")));
}

TEST_F(ReloadedHouse, AHangUpWhileStoppingChangesNothing) {
  program.startReady(houseWith(slow()));
  const auto asking = letWait();
  program.running().signal(SIGTERM);
  ASSERT_TRUE(program.running().waitForErrors("stopping\n"));
  hangUp("rovik 7 fan echo\n");
  EXPECT_EQ(program.running().wait(), 0);
  EXPECT_THAT(log(), Not(HasSubstr("7 fan")));
}

// --- What cannot be used ---

TEST_F(ReloadedHouse, AFileThatCannotBeReadChangesNothingAndIsExplained) {
  program.startReady(houseWith("  open\n"));
  const Finished done = reload("rovik 5 boiler echo\nrovik 5 lamp echo\n");
  EXPECT_EQ(done.status, 1);
  EXPECT_EQ(done.output, "");
  EXPECT_THAT(done.errors, StartsWith("drovane: " + program.file() + ":2: "));
  program.running().waitForErrors("nothing was changed\n");
  EXPECT_THAT(log(), HasSubstr(" 2 0 drovane " + done.errors.substr(9)));
  EXPECT_THAT(log(), HasSubstr(" 2 0 drovane " + program.file() +
                               " is not read anew: nothing was changed\n"));
  EXPECT_THAT(log(), Not(HasSubstr("stopped")));
  EXPECT_EQ(answer({"other", "say", "alive"}), "alive\n");
}

TEST_F(ReloadedHouse, AFileThatIsGoneChangesNothing) {
  program.startReady(houseWith());
  std::filesystem::remove(program.file());
  const Finished done = program.ask({"reload"});
  EXPECT_EQ(done.status, 1);
  EXPECT_THAT(done.errors, HasSubstr(":1: the file cannot be opened: No such file or directory"));
  EXPECT_EQ(answer({"other", "say", "alive"}), "alive\n");
}

TEST_F(ReloadedHouse, APlugInThatIsMissingChangesNothing) {
  program.startReady(houseWith());
  const Finished done = reload("rovik 5 boiler echo\n  say new\nrovik 7 fan missing\n");
  EXPECT_EQ(done.status, 1);
  EXPECT_THAT(done.errors, StartsWith("drovane: " + program.file() +
                                      ":3: plug-in 'missing' was not found; expected missing.so"));
  EXPECT_EQ(answer({"other", "say", "alive"}), "alive\n");
  program.running().waitForErrors("nothing was changed\n");
  EXPECT_THAT(log(), Not(HasSubstr("stopped")));
}

TEST_F(ReloadedHouse, FindingsArePrintedAndAreNoFailure) {
  program.startReady(houseWith());
  const Finished done = reload(houseWith("  fail\n"));
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.output, summary("2 roviks, 1 kept, 1 changed, 0 added, 0 removed"));
  EXPECT_EQ(done.errors,
            program.file() + ":3: rovik 6 other: 'fail' was answered with ERROR (FAILED)\n");
}

TEST_F(ReloadedHouse, WithStrictARovikWhoseCommandFailsDoesNotRun) {
  program.startReady(houseWith(), {"--strict"});
  EXPECT_EQ(reload(houseWith("  fail\n")).status, 0);
  EXPECT_EQ(answer({"boiler", "say", "alive"}), "alive\n");
  EXPECT_EQ(program.ask({"cmd", "other", "say", "alive"}).errors,
            "drovane: rovik 6 other does not run; expected it to be started\n");
  EXPECT_EQ(reload(houseWith()).status, 0);
  EXPECT_EQ(answer({"other", "say", "alive"}), "alive\n");
}

// --- Directives ---

TEST_F(ReloadedHouse, AnotherRootRestartsAll) {
  for (const char* root : {"one", "two"}) {
    std::filesystem::create_directories(program.folder / (std::string(root) + "/lua"));
    program.folder.write(std::string(root) + "/lua/net.lua",
                         "function ROVIK_INIT(me) m_p = me end\n"
                         "function where() return '" +
                             std::string(root) + "' end\n");
  }
  const std::string roviks = houseWith("rovik 7 net generic_net\n  luafile net.lua\n  luaopen\n");
  program.startReady("root one\n" + roviks);
  EXPECT_EQ(answer({"net", "where"}), "one\n");
  EXPECT_EQ(reload("root two\n" + roviks).output,
            summary("3 roviks, 0 kept, 3 changed, 0 added, 0 removed"));
  EXPECT_EQ(answer({"net", "where"}), "two\n");
  EXPECT_EQ(reload("root two\n" + roviks).output,
            summary("3 roviks, 3 kept, 0 changed, 0 added, 0 removed"));
}

TEST_F(ReloadedHouse, AScriptThatHasChangedWaitsForLuarestart) {
  std::filesystem::create_directories(program.folder / "lua");
  const std::string script = "function ROVIK_INIT(me) m_p = me end\nfunction which() return ";
  program.folder.write("lua/net.lua", script + "'old' end\n");
  const std::string config = "rovik 7 net generic_net\n  luafile net.lua\n  luaopen\n";
  program.startReady(config);
  program.folder.write("lua/net.lua", script + "'new' end\n");
  EXPECT_EQ(reload(config).output, summary("1 rovik, 1 kept, 0 changed, 0 added, 0 removed"));
  EXPECT_EQ(answer({"net", "which"}), "old\n");
  EXPECT_EQ(answer({"net", "luarestart"}), "OK\n");
  EXPECT_EQ(answer({"net", "which"}), "new\n");
}

TEST_F(ReloadedHouse, AnotherLogLevelHoldsFromThenOn) {
  program.startReady(houseWith());
  EXPECT_EQ(reload("log level 2\n" + houseWith()).status, 0);
  answer({"boiler", "log", "unseen"});
  EXPECT_EQ(reload(houseWith()).status, 0);
  answer({"boiler", "log", "seen"});
  EXPECT_TRUE(program.running().waitForErrors(" seen\n"));
  EXPECT_THAT(log(), Not(HasSubstr("unseen")));
}

TEST_F(ReloadedHouse, TheOptionForTheLogLevelStillWins) {
  program.startReady(houseWith(), {"--log-level", "3"});
  EXPECT_EQ(reload("log level 2\n" + houseWith()).status, 0);
  answer({"boiler", "log", "seen"});
  EXPECT_TRUE(program.running().waitForErrors(" seen\n"));
}

// --- Roviks that take their time ---

TEST_F(ReloadedHouse, AnswersStatusAndCommandsWhileARovikTakesItsTimeToEnd) {
  program.startReady(houseWith(slow()));
  const auto asking = letWait();
  UnixClient reloading(program.control);
  write(houseWith("rovik 7 fan echo\n"));
  ASSERT_TRUE(reloading.send("{\"op\":\"reload\"}\n"));
  ASSERT_TRUE(program.running().waitForErrors("rovik 7 fan: started\n"));
  EXPECT_EQ(program.ask({"status"}).status, 0);
  EXPECT_NE(program.statusOf(9), nullptr);
  EXPECT_EQ(answer({"fan", "say", "alive"}), "alive\n");
  goOn();
  EXPECT_EQ(reloading.readLine(),
            R"({"ok":true,"summary":")" + program.file() +
                R"(: 3 roviks, 2 kept, 0 changed, 1 added, 1 removed","findings":[]})");
  EXPECT_EQ(program.statusOf(9), nullptr);
}

// What a client may be told of a rovik that comes or goes; the number of such answers, or -1 when
// there was another one.
int countAnswers(const std::string& control, const std::string& request, const std::string& good,
                 const std::atomic<bool>& over) {
  UnixClient client(control);
  int count = 0;
  while (!over) {
    if (!client.send(request + "\n")) return -1;
    const std::string line = client.readLine();
    const bool is_good = line.find(good) != std::string::npos;
    count += is_good ? 1 : 0;
    bool known = is_good;
    for (const char* other :
         {"is being stopped", "does not run", "is starting", "there is no rovik"})
      known = known || line.find(other) != std::string::npos;
    if (!known) return -1;
  }
  return count;
}

TEST_F(ReloadedHouse, EveryClientIsAnsweredWhileRoviksComeAndGo) {
  program.startReady(houseWith());
  std::atomic<bool> over{false};
  const auto ask = [&](const std::string& request, const std::string& good) {
    return std::async(std::launch::async, [&, request, good] {
      return countAnswers(program.control, request, good, over);
    });
  };
  auto status = ask(R"({"op":"status"})", R"("roviks":[)");
  auto command = ask(R"({"op":"cmd","rovik":"other","words":["say","x"]})", R"("reply":"x")");
  auto send = ask(R"({"op":"send","key":"1_1_1","type":"int","value":"1","to":"boiler"})",
                  R"("receivers":1)");
  for (int i = 0; i < 20; ++i)
    EXPECT_EQ(reload(houseWith("  say " + std::to_string(i) + "\n")).status, 0);
  over = true;
  EXPECT_GT(status.get(), 0);
  EXPECT_GT(command.get(), 0);
  EXPECT_GT(send.get(), 0);
  program.expectEndsInTime();
}

TEST_F(ReloadedHouse, ARovikThatNeverEndsIsGivenUpAndTheHouseGoesOn) {
  program.startReady(houseWith("rovik 9 stuck hangs\n"));
  Process asking({DROVANE_PROGRAM, "cmd", "stuck", "hang"}, {{"DROVANE_CONTROL", program.control}});
  ASSERT_TRUE(program.running().waitForErrors("hangs now\n"));
  const Finished done = reload(houseWith("rovik 9 stuck echo\nrovik 7 fan echo\n"));
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.output, summary("4 roviks, 2 kept, 0 changed, 1 added, 0 removed, 1 did not end"));
  EXPECT_EQ(done.errors,
            "rovik 9 stuck did not end in time; it is left as it is until it does\n" +
                program.file() +
                ":3: rovik 9 stuck is not started: the one that has its id or name did not end in "
                "time\n");
  EXPECT_EQ(answer({"fan", "say", "alive"}), "alive\n");
  EXPECT_NE(program.statusOf(9), nullptr);
}

TEST_F(ReloadedHouse, ARovikThatWasGivenUpEndsWhenItComesBack) {
  program.startReady(houseWith("rovik 9 late waits\n"));
  const std::string sign = program.folder / "sign";
  Process asking({DROVANE_PROGRAM, "cmd", "late", "wait", sign},
                 {{"DROVANE_CONTROL", program.control}});
  ASSERT_TRUE(program.running().waitForErrors("waits now\n"));
  EXPECT_EQ(reload(houseWith()).output,
            summary("3 roviks, 2 kept, 0 changed, 0 added, 0 removed, 1 did not end"));
  program.folder.write("sign", "");
  EXPECT_TRUE(program.running().waitForErrors("rovik 9 late: stopped\n"));
  EXPECT_EQ(program.statusOf(9), nullptr);
}

// More lines than wait for a receiver before whoever sends them no longer reads its link.
TEST_F(ReloadedHouse, ARovikThatNeverEndsHoldsNoLinkBack) {
  constexpr int kLines = 3000;
  const auto sent = [this] {
    const drovane::Json row = program.statusOf(7);
    return cJSON_GetObjectItemCaseSensitive(row.get(), "out")->valueint;
  };
  const auto held_back = [this] {
    const drovane::Json row = program.statusOf(7);
    return cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(row.get(), "held_back")) != 0;
  };
  TcpPeer peer;
  program.startReady(houseWith(link(7, "line", peer) + "rovik 9 stuck hangs\n"));
  peer.accept();
  Process asking({DROVANE_PROGRAM, "cmd", "stuck", "hang"}, {{"DROVANE_CONTROL", program.control}});
  ASSERT_TRUE(program.running().waitForErrors("hangs now\n"));
  for (int i = 0; i < kLines; ++i) peer.send("T=1\n");
  ASSERT_TRUE(eventually(held_back));
  EXPECT_EQ(reload(houseWith(link(7, "line", peer))).output,
            summary("4 roviks, 3 kept, 0 changed, 0 added, 0 removed, 1 did not end"));
  EXPECT_TRUE(eventually([&] { return sent() == kLines; })) << sent();
}

TEST_F(ReloadedHouse, IsGoneInTimeAlthoughAReloadWaitsForARovik) {
  program.startReady(houseWith("rovik 9 stuck hangs\n"));
  Process asking({DROVANE_PROGRAM, "cmd", "stuck", "hang"}, {{"DROVANE_CONTROL", program.control}});
  ASSERT_TRUE(program.running().waitForErrors("hangs now\n"));
  write(houseWith("rovik 7 fan echo\n"));
  Process reloading({DROVANE_PROGRAM, "reload"}, {{"DROVANE_CONTROL", program.control}});
  ASSERT_TRUE(program.running().waitForErrors("rovik 7 fan: started\n"));
  const auto before = std::chrono::steady_clock::now();
  program.running().signal(SIGTERM);
  EXPECT_EQ(program.running().wait(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(6));
  EXPECT_THAT(log(), HasSubstr("rovik 9 stuck did not end in time\n"));
  EXPECT_THAT(log(), HasSubstr("rovik 7 fan: stopped\n"));
  EXPECT_EQ(reloading.wait(), 3);
}

}  // namespace
