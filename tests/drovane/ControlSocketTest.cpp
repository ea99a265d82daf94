// The control socket against clients that are no drovane.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <vector>

#include "RunningProgram.h"
#include "support/UnixClient.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

const char* const kVersion = R"({"op":"version"})"
                             "\n";

class ControlSocket : public testing::Test {
 protected:
  ControlSocket() { program.startReady(houseWith("rovik 7 mute hangs\n")); }

  void expectAlive() const {
    EXPECT_EQ(program.ask({"cmd", "boiler", "say", "alive"}).output, "alive\n");
  }

  // Runs a copy of the program, in a folder that lets everybody in: the build itself may lie where
  // only its owner reaches it, and it has to be the socket that keeps others out.
  Finished statusAsNobody() const {
    namespace fs = std::filesystem;
    const fs::path built = DROVANE_PROGRAM;
    const fs::path copy = program.folder.path();
    fs::create_directories(copy / "bin");
    fs::create_directories(copy / "lib");
    fs::copy_file(built, copy / "bin/drovane");
    for (const auto& entry : fs::directory_iterator(fs::path(DROVANE_PLUGINS).parent_path())) {
      const std::string name = entry.path().filename();
      if (name.starts_with("libdrovane.so")) fs::copy_file(entry.path(), copy / "lib" / name);
    }
    for (const fs::path& folder : {copy, copy / "bin", copy / "lib"})
      fs::permissions(folder, fs::perms{0755});
    return runToEnd({"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "--",
                     copy / "bin/drovane", "status", "--control", program.control});
  }

  Program program;
};

TEST_F(ControlSocket, BelongsToItsUserAlone) {
  struct stat facts {};
  ASSERT_EQ(::stat(program.control.c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 07777, 0600U);
}

TEST_F(ControlSocket, AnswersEachRequestInItsOrder) {
  UnixClient client(program.control);
  ASSERT_TRUE(
      client.send("{\"op\":\"cmd\",\"rovik\":\"boiler\",\"words\":[\"say\",\"a\"]}\n"
                  "{\"op\":\"fly\"}\n"
                  "{\"op\":\"cmd\",\"rovik\":\"6\",\"words\":[\"say\",\"b\"]}\n"));
  EXPECT_EQ(client.readLine(), R"({"ok":true,"reply":"a"})");
  EXPECT_EQ(client.readLine(),
            R"({"ok":false,"error":"unknown op 'fly'; expected one of cmd, send, get, status, )"
            R"(watch, log-level, trace, reload, version"})");
  EXPECT_EQ(client.readLine(), R"({"ok":true,"reply":"b"})");
}

TEST_F(ControlSocket, WaitsForTheOtherHalfOfALine) {
  UnixClient client(program.control);
  ASSERT_TRUE(client.send("{\"op\":\"ver"));
  expectAlive();
  ASSERT_TRUE(client.send("sion\"}\n"));
  EXPECT_THAT(client.readLine(), StartsWith(R"({"ok":true,"version":"0.1.0","pid":)"));
}

TEST_F(ControlSocket, AnswersAClientThatSendsNothingMore) {
  UnixClient client(program.control);
  ASSERT_TRUE(client.send(R"({"op":"get","key":"1_2_3","type":"int","to":"boiler"})"
                          "\n"));
  client.endSending();
  EXPECT_THAT(client.readLine(), StartsWith(R"({"ok":true,"message":{"type":"MM_DATA",)"));
  EXPECT_TRUE(client.seesEnd());
}

struct BadRequest {
  const char* what;
  std::string line;
  const char* error;
};

class BadRequests : public ControlSocket, public testing::WithParamInterface<BadRequest> {};

TEST_P(BadRequests, AreExplainedAndTheConnectionStays) {
  UnixClient client(program.control);
  ASSERT_TRUE(client.send(GetParam().line + '\n'));
  EXPECT_EQ(client.readLine(), R"({"ok":false,"error":")" + std::string(GetParam().error) + "\"}");
  ASSERT_TRUE(client.send(kVersion));
  EXPECT_THAT(client.readLine(), StartsWith("{\"ok\":true"));
}

const char* const kNoObject =
    R"(the line is no JSON object; expected one such as {\"op\":\"status\"})";

INSTANTIATE_TEST_SUITE_P(
    ControlSocket, BadRequests,
    testing::Values(
        BadRequest{"Garbage", "\xff\xfe garbage", kNoObject}, BadRequest{"Empty", "", kNoObject},
        BadRequest{"List", "[1]", kNoObject},
        BadRequest{"MoreThanAnObject", "{\"op\":\"version\"} x", kNoObject},
        BadRequest{"ZeroByte", std::string("{\"op\":\"version\"}\0", 17), kNoObject},
        BadRequest{"DeepNesting", std::string(60'000, '['), kNoObject},
        BadRequest{"NoOp", "{}", "'op' is missing; expected the name of an operation"},
        BadRequest{"OpIsANumber", "{\"op\":5}",
                   "'op' is no text; expected the name of an operation"},
        BadRequest{"NoRovik", "{\"op\":\"cmd\",\"words\":[\"a\"]}",
                   "'rovik' is missing; expected a rovik's name or id"},
        BadRequest{"NoWords", "{\"op\":\"cmd\",\"rovik\":\"5\"}",
                   R"('words' is missing or no list; expected the words of a command, such as )"
                   R"([\"mode\",\"tcp\"])"},
        BadRequest{"EmptyWords", "{\"op\":\"cmd\",\"rovik\":\"5\",\"words\":[]}",
                   R"(there is no word; expected the words of a command, such as )"
                   R"([\"mode\",\"tcp\"])"},
        BadRequest{"ActuatorIsAText",
                   "{\"op\":\"send\",\"key\":\"1_2_3\",\"type\":\"int\",\"value\":\"1\","
                   "\"actuator\":\"yes\"}",
                   "'actuator' is neither true nor false; expected one of them"},
        BadRequest{"GetFromNobody", "{\"op\":\"get\",\"key\":\"1_2_3\",\"type\":\"int\"}",
                   "'to' is missing; expected a rovik's name or id"}),
    [](const auto& each) { return each.param.what; });

TEST_F(ControlSocket, EndsTheConnectionOfALineOfTenMegabytes) {
  UnixClient client(program.control);
  client.send(std::string(10'000'000, 'x'));
  EXPECT_EQ(client.readLine(),
            R"({"ok":false,"error":"the line is too long; expected at most 65536 bytes"})");
  EXPECT_TRUE(client.seesEnd());
  expectAlive();
}

TEST_F(ControlSocket, TakesALineOf64KiB) {
  UnixClient client(program.control);
  const std::string line = R"({"op":"version","padding":")";
  ASSERT_TRUE(client.send(line + std::string(65'536 - line.size() - 2, 'x') + "\"}\n"));
  EXPECT_THAT(client.readLine(), StartsWith("{\"ok\":true"));
}

TEST_F(ControlSocket, AThousandSilentClientsLockNobodyOut) {
  std::vector<std::unique_ptr<UnixClient>> silent;
  for (int i = 0; i < 1000; ++i) silent.push_back(std::make_unique<UnixClient>(program.control));
  expectAlive();
  EXPECT_EQ(silent.front()->readLine(),
            R"({"ok":false,"error":"silent for the longest time of all clients; closed to make )"
            R"(room"})");
  EXPECT_TRUE(silent.front()->seesEnd());
}

TEST_F(ControlSocket, AWatchingClientKeepsItsPlaceAmongAThousandSilentOnes) {
  UnixClient watcher(program.control);
  ASSERT_TRUE(watcher.send("{\"op\":\"watch\"}\n"));
  ASSERT_EQ(watcher.readLine(), "{\"ok\":true}");
  std::vector<std::unique_ptr<UnixClient>> silent;
  for (int i = 0; i < 1000; ++i) silent.push_back(std::make_unique<UnixClient>(program.control));
  program.ask({"send", "1_2_3", "string", "still here"});
  EXPECT_THAT(watcher.readLine(), HasSubstr("\"value\":\"still here\""));
}

TEST_F(ControlSocket, LivesWithClientsThatLeaveBeforeTheReply) {
  for (int i = 0; i < 100; ++i) {
    UnixClient client(program.control);
    client.send(R"({"op":"get","key":"1_2_3","type":"int","to":"mute"})"
                "\n");
    UnixClient(program.control).send("{\"op\":\"status\"}\n");
  }
  expectAlive();
}

// A house whose status is so long that the replies to one block of requests overfill a client's
// room.
std::string largeHouse() {
  std::string more = "rovik 7 mute hangs\n";
  for (int id = 100; id < 120; ++id)
    more += "rovik " + std::to_string(id) + " more" + std::to_string(id) + " echo\n";
  return houseWith(more);
}

std::string repeated(const std::string& text, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) all += text;
  return all;
}

TEST(ControlSocketReplies, AllComeWhenTheClientReadsAtLast) {
  Program program;
  program.startReady(largeHouse());
  UnixClient client(program.control);
  ASSERT_TRUE(client.send(repeated("{\"op\":\"status\"}\n", 1000)));
  EXPECT_EQ(program.ask({"cmd", "boiler", "say", "alive"}).output, "alive\n");
  for (int i = 0; i < 1000; ++i) ASSERT_THAT(client.readLine(), StartsWith("{\"ok\":true")) << i;
}

TEST(ControlSocketReplies, ComeAlsoBehindAnOverdueOne) {
  Program program;
  program.startReady(largeHouse());
  UnixClient client(program.control);
  ASSERT_TRUE(client.send("{\"op\":\"get\",\"key\":\"1_0_0\",\"type\":\"int\",\"to\":\"mute\"}\n" +
                          repeated("{\"op\":\"status\"}\n", 1000)));
  EXPECT_EQ(client.readLine(),
            R"({"ok":false,"error":"rovik 7 mute: no answer to the request within 5 s"})");
  for (int i = 0; i < 1000; ++i) ASSERT_THAT(client.readLine(), StartsWith("{\"ok\":true")) << i;
  EXPECT_EQ(program.ask({"cmd", "boiler", "say", "alive"}).output, "alive\n");
}

TEST_F(ControlSocket, AWatcherThatDoesNotReadIsToldHowManyMessagesItLost) {
  UnixClient watcher(program.control);
  ASSERT_TRUE(watcher.send("{\"op\":\"watch\"}\n"));
  ASSERT_EQ(watcher.readLine(), "{\"ok\":true}");
  const std::string send = "{\"op\":\"send\",\"key\":\"1_2_3\",\"type\":\"string\",\"value\":\"" +
                           std::string(10'000, 'x') + "\"}\n";
  UnixClient sender(program.control);
  constexpr int kSent = 400;
  for (int i = 0; i < kSent; ++i) {
    ASSERT_TRUE(sender.send(send));
    ASSERT_THAT(sender.readLine(), StartsWith("{\"ok\":true"));
  }
  int shown = 0;
  int lost = 0;
  while (shown + lost < kSent) {
    const std::string line = watcher.readLine();
    ASSERT_NE(line, "");
    const bool dropped = line.starts_with("{\"dropped\":");
    lost += dropped ? std::stoi(line.substr(11)) : 0;
    shown += dropped ? 0 : 1;
  }
  EXPECT_GT(lost, 0);
  EXPECT_EQ(shown + lost, kSent);
}

TEST_F(ControlSocket, CarriesBytesThatAreNoText) {
  UnixClient client(program.control);
  ASSERT_TRUE(client.send(R"({"op":"cmd","rovik":"boiler","words":["say",{"word_hex":"ff41"}]})"
                          "\n"));
  EXPECT_EQ(client.readLine(), R"({"ok":true,"reply_hex":"ff41"})");
}

TEST_F(ControlSocket, AnotherUsersProcessCannotConnect) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can run a process of another user";
  const Finished done = statusAsNobody();
  EXPECT_EQ(done.status, 3) << done.errors;
  EXPECT_EQ(done.errors,
            "drovane: no running drovane at " + program.control + ": Permission denied\n");
}

TEST_F(ControlSocket, AnotherUsersProcessIsRefusedEvenIfTheFileLetsItIn) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can run a process of another user";
  ASSERT_EQ(::chmod(program.control.c_str(), 0666), 0);
  const Finished done = statusAsNobody();
  EXPECT_EQ(done.status, 1) << done.errors;
  EXPECT_EQ(done.errors, "drovane: this drovane belongs to another user\n");
}

TEST_F(ControlSocket, IsNotTakenFromADrovaneThatRuns) {
  const Finished second = program.runToItsEnd(houseWith());
  EXPECT_EQ(second.status, 2);
  EXPECT_THAT(second.errors, HasSubstr("drovane: control socket '" + program.control +
                                       "' is in use by a running drovane; expected a free path, "
                                       "or another one with --control\n"));
  expectAlive();
}

TEST_F(ControlSocket, IsTakenOverFromADeadProcess) {
  program.running().signal(SIGKILL);
  ASSERT_EQ(program.running().wait(), 128 + SIGKILL);
  struct stat facts {};
  ASSERT_EQ(::stat(program.control.c_str(), &facts), 0);
  program.startReady(houseWith());
  expectAlive();
}

TEST_F(ControlSocket, IsLeftAloneAtTheEndWhenItIsSomebodyElses) {
  ASSERT_EQ(::unlink(program.control.c_str()), 0);
  program.folder.write("control", "mine");
  program.running().signal(SIGTERM);
  ASSERT_EQ(program.running().wait(), 0);
  EXPECT_EQ(program.folder.read("control"), "mine");
}

TEST(ControlSocketPath, OfAFileThatIsNoSocketIsRefused) {
  const Program program;
  program.folder.write("control", "precious");
  const Finished done = program.runToItsEnd(houseWith());
  EXPECT_EQ(done.status, 2);
  EXPECT_THAT(done.errors, HasSubstr("' is a file that is no socket; expected a free path, or "
                                     "another one with --control\n"));
  EXPECT_EQ(program.folder.read("control"), "precious");
}

TEST(ControlSocketPath, ThatIsTooLongIsRefused) {
  const Program program;
  const Finished done =
      program.runToItsEnd(houseWith(), {"--control", "/tmp/" + std::string(200, 'x')});
  EXPECT_EQ(done.status, 2);
  EXPECT_THAT(done.errors, HasSubstr("its path has 205 bytes; expected 1 to 107\n"));
}

TEST(ControlSocketPath, InAFolderThatIsNotThereIsRefused) {
  const Program program;
  const Finished done =
      program.runToItsEnd(houseWith(), {"--control", program.folder / "none/socket"});
  EXPECT_EQ(done.status, 2);
  EXPECT_THAT(done.errors, HasSubstr("cannot be made: bind: No such file or directory\n"));
}

}  // namespace
