// Peers that leave a rovik waiting in the middle of something: the program ends in spite of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <future>

#include "RunningProgram.h"
#include "support/Eventually.h"
#include "support/PeerTcp.h"
#include "support/PeerTls.h"

namespace {

using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::Not;

class StuckLink : public testing::Test {
 protected:
  // A rovik with this script and a link to this port of this host. A message makes it tick at once.
  std::string house(const std::string& mode, int port, const std::string& script,
                    const std::string& more = "") const {
    std::filesystem::create_directories(program.folder / "lua");
    program.folder.write("lua/net.lua",
                         "function ROVIK_INIT(me) m_p = me end\n"
                         "function ROVIK_RCV() return 1000 end\n"
                         "ROVIK_RCVOPEN, ROVIK_RCVCLOSE = ROVIK_RCV, ROVIK_RCV\n" +
                             script);
    return "log level 4\nrovik 5 net generic_net\n  mode " + mode + "\n  host 127.0.0.1\n  port " +
           std::to_string(port) +
           "\n  accept_self_cert on\n  persist on\n  luafile net.lua\n  luaopen\n" + more;
  }

  void tick() const {
    EXPECT_EQ(program.ask({"send", "1_1_1", "int", "1", "--to", "net"}).status, 0);
  }

  // Waits until the program has had nothing to log for a while: its only rovik is stuck.
  bool fallsSilent() {
    std::size_t size = 0;
    auto since = steady_clock::now();
    return eventually([&] {
      const std::size_t now = program.running().errors().size();
      if (now != size) since = steady_clock::now();
      size = now;
      return steady_clock::now() - since > std::chrono::milliseconds(300);
    });
  }

  Program program;
};

TEST_F(StuckLink, HandshakeOfAConfiguredOpenThatIsNeverAnswered) {
  TcpPeer peer;
  program.start(house("ssl", peer.port(), "", "  open\n"));
  peer.accept();
  ASSERT_EQ("\x16", peer.receive(1));
  program.expectEndsInTime();
}

TEST_F(StuckLink, HandshakeOfAReconnectThatIsNeverAnswered) {
  TcpPeer peer;
  program.startReady(house("ssl", peer.port(), "", "  reconnect on\n"));
  tick();
  peer.accept();
  ASSERT_EQ("\x16", peer.receive(1));
  program.expectEndsInTime();
}

TEST_F(StuckLink, HandshakeOfACommandThatIsNeverAnswered) {
  TcpPeer peer;
  program.startReady(house("ssl", peer.port(), ""));
  Process asking({DROVANE_PROGRAM, "cmd", "net", "open"}, {{"DROVANE_CONTROL", program.control}});
  peer.accept();
  ASSERT_EQ("\x16", peer.receive(1));
  program.expectEndsInTime();
  EXPECT_NE(asking.wait(), 0);
}

TEST_F(StuckLink, HalfARecord) {
  TlsPeer peer(selfSigned());
  auto taken = std::async(std::launch::async, [&] { return peer.accept(); });
  program.startReady(house("ssl", peer.port(), "", "  open\n"));
  ASSERT_TRUE(taken.get());
  const std::string records = peer.seal("a line\n");
  peer.link().send(records + peer.seal("another\n").substr(0, 40));
  ASSERT_TRUE(program.running().waitForErrors("MM_DATA 5_0_0 = {a line\\n}\n"));
  EXPECT_EQ(program.ask({"cmd", "net", "raw", "off"}).output, "OK\n");
  program.expectEndsInTime();
  EXPECT_THAT(program.running().errors(), Not(HasSubstr("closed by peer")));
}

// Many times what the buffers of both sides can hold.
const char kWritesForEver[] =
    "function ROVIK_PERIODIC()\n"
    "  local block = string.rep('x', 4000)\n"
    "  for i = 1, 5000 do sndIO(block) end\n"
    "  print('all is written')\n"
    "end\n";

TEST_F(StuckLink, TcpPeerThatDoesNotRead) {
  TcpPeer peer;
  program.startReady(house("tcp", peer.port(), kWritesForEver, "  open\n"));
  peer.accept();
  tick();
  ASSERT_TRUE(program.running().waitForErrors("IO data from lua script\n"));
  ASSERT_TRUE(fallsSilent());
  EXPECT_THAT(program.running().errors(), Not(HasSubstr("all is written")));
  program.expectEndsInTime();
}

TEST_F(StuckLink, TlsPeerThatDoesNotRead) {
  TlsPeer peer(selfSigned());
  auto taken = std::async(std::launch::async, [&] { return peer.accept(); });
  program.startReady(house("ssl", peer.port(), kWritesForEver, "  open\n"));
  ASSERT_TRUE(taken.get());
  tick();
  ASSERT_TRUE(program.running().waitForErrors("SSL_write\n"));
  ASSERT_TRUE(fallsSilent());
  EXPECT_THAT(program.running().errors(), Not(HasSubstr("all is written")));
  program.expectEndsInTime();
}

}  // namespace
