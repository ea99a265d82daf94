// The control socket's thread, with clients and failures that a decent client never sees.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "faults/LibraryFaults.h"
#include "framework/ControlServer.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/NiceValue.h"
#include "support/TempFolder.h"
#include "support/UnixClient.h"

namespace {

using drovane::ConfigFile;
using drovane::ControlServer;
using drovane::House;
using testing::HasSubstr;
using testing::StartsWith;

const char* const kVersion = R"({"op":"version"})"
                             "\n";

class ControlServerTest : public testing::Test {
 protected:
  ControlServerTest() {
    drovane::PluginLoader loader({DROVANE_TEST_PLUGINS});
    if (!house.make(loader)) throw std::runtime_error("the house cannot be made");
    server.emplace(ControlServer::Settings{path, "1.2.3"}, house);
  }

  ConfigFile config() const {
    folder.write("house.conf", "rovik 5 boiler echo\n");
    return ConfigFile::read(folder / "house.conf");
  }

  void expectAlive() const {
    UnixClient client(path);
    ASSERT_TRUE(client.send(kVersion));
    EXPECT_THAT(client.readLine(), StartsWith(R"({"ok":true,"version":"1.2.3","pid":)"));
  }

  static id_t threadNamed(const std::string& name) {
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
      std::ifstream comm(thread.path() / "comm");
      std::string its_name;
      if (std::getline(comm, its_name) && its_name == name)
        return static_cast<id_t>(std::stoul(thread.path().filename()));
    }
    throw std::runtime_error("there is no thread " + name);
  }

  const TempFolder folder;
  const std::string path = folder / "control";
  LogCapture log{2};
  House house{config(), [](const std::string&) {}};
  std::optional<ControlServer> server;
};

TEST_F(ControlServerTest, SaysWhenItsThreadCannotBeStarted) {
  const LibraryFault fault("pthread_create", EAGAIN);
  EXPECT_EQ(server->start(), EAGAIN);
}

// Again so after it has handed messages to a watcher.
TEST_F(ControlServerTest, ItsThreadGoesBeforeOthers) {
  SKIP_UNLESS_THREADS_MAY_GO_FIRST();
  ASSERT_EQ(server->start(), 0);
  expectAlive();
  const int first = niceOf(threadNamed("drovane-ctl"));
  EXPECT_EQ(first, tenStepsBefore(niceOf(0)));
  UnixClient watcher(path);
  ASSERT_TRUE(watcher.send("{\"op\":\"watch\"}\n"));
  ASSERT_THAT(watcher.readLine(), StartsWith(R"({"ok":true)"));
  UnixClient sender(path);
  ASSERT_TRUE(
      sender.send("{\"op\":\"send\",\"key\":\"5_1_0\",\"type\":\"int\",\"value\":\"1\"}\n"));
  ASSERT_THAT(watcher.readLine(), HasSubstr("5_1_0"));
  expectAlive();
  EXPECT_EQ(niceOf(threadNamed("drovane-ctl")), first);
}

TEST_F(ControlServerTest, AWaitThatFailsIsLoggedAndTriedAgain) {
  ASSERT_EQ(server->start(), 0);
  const LibraryFault fault("poll", EIO, LibraryFault::On::OtherThreads);
  expectAlive();  // wakes the thread, which then waits again
  EXPECT_TRUE(log.waitFor("control socket: poll: Input/output error"));
  expectAlive();
  EXPECT_EQ(log.count("control socket"), 1U);
}

TEST_F(ControlServerTest, AWaitThatIsInterruptedIsNoFailure) {
  ASSERT_EQ(server->start(), 0);
  const LibraryFault fault("poll", EINTR, LibraryFault::On::OtherThreads);
  expectAlive();
  expectAlive();
  EXPECT_TRUE(fault.happened());
  EXPECT_EQ(log.lines(), std::vector<CapturedLine>{});
}

TEST_F(ControlServerTest, AConnectionThatCannotBeTakenIsLoggedAndTakenLater) {
  ASSERT_EQ(server->start(), 0);
  const LibraryFault fault("accept4", EMFILE, LibraryFault::On::OtherThreads);
  expectAlive();
  EXPECT_EQ(log.lines(), (std::vector<CapturedLine>{
                             {2, 0, "drovane", "control socket: accept: Too many open files"}}));
}

TEST_F(ControlServerTest, AClientThatHasLeftBeforeItWasTakenIsNoFailure) {
  ASSERT_EQ(server->start(), 0);
  for (const int error : {ECONNABORTED, EINTR}) {
    const LibraryFault fault("accept4", error, LibraryFault::On::OtherThreads);
    expectAlive();
    EXPECT_TRUE(fault.happened());
  }
  EXPECT_EQ(log.lines(), std::vector<CapturedLine>{});
}

TEST_F(ControlServerTest, AReadThatIsInterruptedIsTriedAgain) {
  ASSERT_EQ(server->start(), 0);
  const LibraryFault fault("recv", EINTR, LibraryFault::On::OtherThreads);
  expectAlive();
  EXPECT_TRUE(fault.happened());
}

TEST_F(ControlServerTest, AClientWhoseConnectionBreaksIsLetGo) {
  ASSERT_EQ(server->start(), 0);
  for (const char* call : {"recv", "send"}) {
    const LibraryFault fault(call, ECONNRESET, LibraryFault::On::OtherThreads);
    UnixClient client(path);
    ASSERT_TRUE(client.send(kVersion));
    EXPECT_TRUE(client.seesEnd()) << call;
    EXPECT_TRUE(fault.happened()) << call;
  }
  expectAlive();
}

TEST_F(ControlServerTest, AClientThatCannotBeIdentifiedIsRefused) {
  ASSERT_EQ(server->start(), 0);
  const LibraryFault fault("getsockopt", EIO, LibraryFault::On::OtherThreads);
  UnixClient client(path);
  EXPECT_EQ(client.readLine(), R"({"ok":false,"error":"this drovane belongs to another user"})");
  EXPECT_TRUE(client.seesEnd());
  expectAlive();
}

TEST_F(ControlServerTest, NobodyIsAdmittedWhileEveryPlaceIsTakenByAWatcher) {
  ASSERT_EQ(server->start(), 0);
  std::vector<UnixClient> watchers;
  for (std::size_t i = 0; i < ControlServer::kConnections; ++i) {
    watchers.emplace_back(path);
    ASSERT_TRUE(watchers.back().send("{\"op\":\"watch\"}\n"));
    ASSERT_EQ(watchers.back().readLine(), R"({"ok":true})");
  }
  UnixClient late(path);
  EXPECT_EQ(
      late.readLine(),
      R"({"ok":false,"error":"too many clients are connected; expected fewer, or try again"})");
  EXPECT_TRUE(late.seesEnd());
  watchers.pop_back();
  EXPECT_TRUE(eventually([&] {
    UnixClient next(path);
    return next.send(kVersion) && next.readLine().starts_with(R"({"ok":true,"version":"1.2.3")");
  }));
}

TEST_F(ControlServerTest, TheCommandLinesAddressIsTakenOnce) {
  try {
    const ControlServer second({folder / "other", "1.2.3"}, house);
    FAIL() << "a second server was made";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "the command line's address is already in use in this process");
  }
}

}  // namespace
