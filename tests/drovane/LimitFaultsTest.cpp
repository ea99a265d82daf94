// The running program at the limits of the system: descriptors, memory, threads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "FaultyHouse.h"
#include "support/Emulation.h"
#include "support/Eventually.h"
#include "support/PeerSerial.h"
#include "support/Sanitizers.h"
#include "support/UnixClient.h"

namespace {

using testing::AnyOf;
using testing::HasSubstr;
using testing::Not;

// Below every descriptor that the program has: it gets no further one.
constexpr rlim_t kNoMoreDescriptors = 3;
constexpr rlim_t kMiB = 1024 * 1024;

std::string request(const std::string& rovik, const std::string& word) {
  return R"({"op":"cmd","rovik":")" + rovik + R"(","words":[")" + word + "\"]}\n";
}

std::string linkBlock(int id, const std::string& name, const std::string& settings) {
  return "rovik " + std::to_string(id) + ' ' + name + " generic_net\n" + settings;
}

TEST(DescriptorLimitFaults, EachTransportReportsWhatItCouldNotOpenAndOpensItLater) {
  const TcpPeer peer;
  const SerialPeer line;
  FaultyHouse house;
  Process& run = house.startReady(
      linkBlock(5, "tcp",
                "  mode tcp\n  host 127.0.0.1\n  port " + std::to_string(peer.port()) + "\n") +
      linkBlock(6, "udp", "  mode udp\n  host 127.0.0.1\n  port 7001\n") +
      linkBlock(7, "tty", "  mode tty\n  tty " + line.path() + "\n"));
  UnixClient client(house.program.control);
  ASSERT_TRUE(client.send("{\"op\":\"version\"}\n"));
  ASSERT_THAT(client.readLine(), HasSubstr("\"ok\":true"));
  house.limit(RLIMIT_NOFILE, kNoMoreDescriptors);
  for (const char* rovik : {"tcp", "udp", "tty"}) {
    ASSERT_TRUE(client.send(request(rovik, "open")));
    EXPECT_EQ(client.readLine(), R"({"ok":true,"reply":"ERROR"})") << rovik;
  }
  for (const std::string& report :
       {std::string(" 2 5 tcp allocate socket (errno: 24 Too many open files)\n"),
        std::string(" 2 6 udp allocate socket (errno: 24 Too many open files)\n"),
        " 2 7 tty open serial port: " + line.path() + " (errno: 24 Too many open files)\n"})
    EXPECT_TRUE(run.waitForErrors(report)) << run.errors();
  house.unlimit(RLIMIT_NOFILE);
  for (const char* rovik : {"tcp", "udp", "tty"}) EXPECT_EQ(house.command(rovik, {"open"}), "OK\n");
  house.expectEndsInTime();
}

TEST(DescriptorLimitFaults, OpenLinksGoOn) {
  TcpPeer peer;
  FaultyHouse house;
  house.startReady(houseOf(peer));
  peer.accept();
  UnixClient client(house.program.control);
  ASSERT_TRUE(client.send("{\"op\":\"version\"}\n"));
  ASSERT_NE(client.readLine(), "");
  house.limit(RLIMIT_NOFILE, kNoMoreDescriptors);
  peer.send("still there\n");
  EXPECT_TRUE(eventually([&] {
    return client.send(request("other", "last")) &&
           client.readLine().find("still there") != std::string::npos;
  }));
}

TEST(DescriptorLimitFaults, AnotherClientWaitsAndIsServedOnceThereIsADescriptor) {
  FaultyHouse house;
  Process& run = house.startReady(houseWith());
  house.limit(RLIMIT_NOFILE, kNoMoreDescriptors);
  Process client({DROVANE_PROGRAM, "cmd", "boiler", "say", "there"},
                 {{"DROVANE_CONTROL", house.program.control}});
  ASSERT_TRUE(run.waitForErrors(" 2 0 drovane control socket: accept: Too many open files\n"));
  EXPECT_EQ(client.output(), "");
  house.unlimit(RLIMIT_NOFILE);
  EXPECT_EQ(client.wait(), 0);
  EXPECT_EQ(client.output(), "there\n");
  const std::string& log = run.errors();
  EXPECT_EQ(log.find("accept: "), log.rfind("accept: ")) << "said more than once: " << log;
}

TEST(DescriptorLimitFaults, TheProgramEndsInGoodOrder) {
  SKIP_WHEN_SANITIZED("needs descriptors at the end of the program");
  TcpPeer peer;
  FaultyHouse house;
  house.startReady(houseOf(peer));
  peer.accept();
  house.limit(RLIMIT_NOFILE, kNoMoreDescriptors);
  house.expectEndsInTime();
  EXPECT_THAT(house.running().errors(), HasSubstr(" 3 0 drovane rovik 5 boiler: stopped\n"));
  EXPECT_TRUE(peer.seesEnd());
}

TEST(DescriptorLimitFaults, AStartWithoutEnoughOfThemSaysWhichRovikHasNone) {
  SKIP_WHEN_EMULATED("is started by a shell, which needs more of them");
  FaultyHouse house;
  Process& run = house.start(houseWith(), {}, {}, {"prlimit", "--nofile=7:7"});
  EXPECT_EQ(run.wait(), 2);
  EXPECT_THAT(run.errors(), HasSubstr("Too many open files\n"));
  EXPECT_THAT(run.errors(), Not(HasSubstr("started\n")));
}

// --- Memory ---

constexpr const char* kGreedyScript =
    "function ROVIK_INIT(me) m_p = me end "
    "function alive() return 'yes' end "
    "function grow() local all = {} "
    "while true do all[#all + 1] = string.rep('x', 1048576) .. #all end end";

std::string greedyRovik() {
  return "rovik 7 greedy generic_net\n  luafile greedy.lua\n  luaopen\n";
}

TEST(MemoryLimitFaults, AScriptThatTakesAllOfItIsStoppedAndNothingElse) {
  SKIP_WHEN_SANITIZED("takes more memory than the limit leaves");
  SKIP_WHEN_EMULATED("does not limit the memory of what it runs");
  TcpPeer peer;
  FaultyHouse house;
  house.script("greedy", kGreedyScript);
  Process& run = house.startReady(houseOf(peer, greedyRovik()));
  peer.accept();
  house.limit(RLIMIT_AS, house.addressSpace() + 8 * kMiB);
  EXPECT_EQ(house.command("greedy", {"grow"}), "ERROR (LUA FUNCTION ERROR)\n");
  EXPECT_TRUE(run.waitForErrors(" 2 7 greedy lua function error: not enough memory\n"));
  EXPECT_EQ(house.command("greedy", {"alive"}), "yes\n");
  peer.send("still there\n");
  EXPECT_TRUE(house.arrives("still there"));
  house.expectEndsInTime();
}

TEST(MemoryLimitFaults, TheProgramEndsInGoodOrderWithoutAnyMore) {
  SKIP_WHEN_SANITIZED("takes more memory than the limit leaves");
  SKIP_WHEN_EMULATED("does not limit the memory of what it runs");
  TcpPeer peer;
  FaultyHouse house;
  house.startReady(houseOf(peer));
  peer.accept();
  house.limit(RLIMIT_AS, 1);
  house.expectEndsInTime();
  EXPECT_TRUE(peer.seesEnd());
}

// Wherever the memory ends while the program starts: in its own libraries, a thread, the plug-in.
TEST(MemoryLimitFaults, AStartWithoutEnoughOfItEndsWithAnErrorAndNotWithASignal) {
  SKIP_WHEN_SANITIZED("takes more memory than the limit leaves");
  SKIP_WHEN_EMULATED("does not limit the memory of what it runs");
  int refused = 0;
  bool whole = false;
  for (rlim_t mib = 24; !whole && mib < 4096; mib += std::max<rlim_t>(2, mib / 16)) {
    FaultyHouse house;
    const std::string size = std::to_string(mib * kMiB);
    // Ends by itself, with the same status, when there is enough.
    Process& run = house.start(linkBlock(5, "boiler", "  mode tcp\n") + "  nonsense\n",
                               {"--strict"}, {}, {"prlimit", "--as=" + size + ':' + size});
    const auto status = run.wait();
    // 127: the system's loader could not even map the libraries.
    EXPECT_THAT(status, AnyOf(2, 127)) << mib << " MiB: " << run.errors();
    EXPECT_NE(run.errors(), "") << mib << " MiB";
    whole = run.errors().find("nothing handled 'nonsense'") != std::string::npos;
    refused += whole ? 0 : 1;
  }
  EXPECT_TRUE(whole);
  EXPECT_GE(refused, 2);
}

class ScarceMemory : public testing::TestWithParam<std::uint32_t> {};

// One in so many requests for memory fails, whoever makes it, while lines, messages, scripts and
// clients go on.
TEST_P(ScarceMemory, CostsAnswersAndMessagesButNotTheProgram) {
  SKIP_WHEN_SANITIZED("ends a program that gets no memory");
  SKIP_WHEN_EMULATED("has memory requests of its own");
  TcpPeer peer;
  FaultyHouse house;
  const ShortSupply supply;
  house.script("greedy",
               "function ROVIK_INIT(me) m_p = me end "
               "function alive() return 'yes' end "
               "function ROVIK_RCV(msg) sndDATA(6, '7_1_0', 'string', 'seen') "
               "return 1000 end "
               "function ROVIK_PERIODIC() return 1000 end");
  Process& run = house.startReady(houseOf(peer, greedyRovik()), {}, supply.environment());
  peer.accept();
  supply.set(GetParam());
  for (int round = 0; round < 20; ++round) {
    for (std::size_t line = 0; line < 50; ++line)
      ASSERT_NO_THROW(peer.send(std::string(1 + 20 * line, 'x') + '\n')) << run.errors();
    for (const Arguments& asked : {Arguments{"cmd", "greedy", "alive"}, Arguments{"status"},
                                   Arguments{"send", "1_2_3", "int", "4"}}) {
      const Finished done = house.program.ask(asked);
      EXPECT_THAT(done.status, AnyOf(0, 1, 2, 3)) << "no end: " << asked[0];
    }
  }
  supply.set(0);
  EXPECT_EQ(house.command("greedy", {"alive"}), "yes\n") << run.errors();
  peer.send("whole again\n");
  EXPECT_TRUE(house.arrives("whole again"));
  house.expectEndsInTime();
}

TEST_P(ScarceMemory, DoesNotKeepTheProgramFromEnding) {
  SKIP_WHEN_SANITIZED("ends a program that gets no memory");
  SKIP_WHEN_EMULATED("has memory requests of its own");
  SKIP_WHEN_COUNTED("needs memory to write them at its end");
  TcpPeer peer;
  FaultyHouse house;
  const ShortSupply supply;
  house.script("greedy", kGreedyScript);
  house.startReady(houseOf(peer, greedyRovik()), {}, supply.environment());
  peer.accept();
  supply.set(GetParam());
  house.expectEndsInTime();
}

INSTANTIATE_TEST_SUITE_P(OneRequestIn, ScarceMemory, testing::Values(5, 17, 100));

// --- Threads ---

class MissingThread : public testing::TestWithParam<std::uint32_t> {};

// The threads are those of the log, of the end, of the control socket, of the start, and of two
// roviks.
TEST_P(MissingThread, IsNamedAndThoseThatRunGoOnOrTheStartIsRefused) {
  SKIP_WHEN_SANITIZED("makes threads of its own");
  SKIP_WHEN_EMULATED("has threads of its own");
  FaultyHouse house;
  const ShortSupply supply;
  supply.set(0, GetParam());
  Process& run = house.start(houseWith("rovik 7 last echo\n"), {}, supply.environment());
  const bool refused = eventually([&] {
    return run.errors().find(" roviks\n") != std::string::npos ||
           run.errors().find("\ndrovane: ") != std::string::npos ||
           run.errors().starts_with("drovane: ");
  });
  ASSERT_TRUE(refused) << run.errors();
  if (run.errors().find(" roviks\n") == std::string::npos) {
    EXPECT_EQ(run.wait(), 2);
    EXPECT_THAT(run.errors(), HasSubstr("Resource temporarily unavailable\n"));
    EXPECT_THAT(run.errors(), Not(HasSubstr("started\n")));
    return;
  }
  EXPECT_THAT(run.errors(), HasSubstr(" could not be started: Resource temporarily unavailable\n"));
  int alive = 0;
  for (const char* rovik : {"boiler", "other", "last"})
    alive += house.command(rovik, {"say", "alive"}) == "alive\n" ? 1 : 0;
  EXPECT_EQ(alive, 2);
  house.expectEndsInTime();
}

INSTANTIATE_TEST_SUITE_P(Number, MissingThread, testing::Range(1U, 9U));

}  // namespace
