// Ends of a program whose roviks wait for one thing after another.
#include <gtest/gtest.h>

#include <filesystem>

#include "RunningProgram.h"
#include "support/PeerTcp.h"

namespace {

class WaitAfterWait : public testing::Test {
 protected:
  WaitAfterWait() { std::filesystem::create_directories(program.folder / "lua"); }

  std::string link(const std::string& mode, int port, const std::string& script,
                   const std::string& more = "") const {
    program.folder.write("lua/net.lua", "function ROVIK_INIT(me) m_p = me end\n" + script);
    return "log level 4\nrovik 5 net generic_net\n  mode " + mode + "\n  host 127.0.0.1\n  port " +
           std::to_string(port) + "\n  persist on\n  luafile net.lua\n  luaopen\n" + more;
  }

  void tick() const {
    EXPECT_EQ(program.ask({"send", "1_1_1", "int", "1", "--to", "net"}).status, 0);
  }

  Program program;
};

const char kTickAtOnce[] = "function ROVIK_RCV() return 1000 end\n";

// The tick opens the link, and so does the write of the script that follows it.
TEST_F(WaitAfterWait, HandshakeOfAReconnectAndThenOfAWrite) {
  TcpPeer peer;
  program.startReady(link("ssl", peer.port(),
                          std::string(kTickAtOnce) + "function ROVIK_PERIODIC() sndIO('x') end\n",
                          "  reconnect on\n"));
  tick();
  peer.accept();
  ASSERT_EQ("\x16", peer.receive(1));
  program.expectEndsInTime();
}

TEST_F(WaitAfterWait, ConnectionsToAPortThatDoesNotAnswer) {
  const UnansweringPort nobody;
  program.startReady(link("tcp", nobody.port(),
                          std::string(kTickAtOnce) +
                              "function ROVIK_PERIODIC() for i = 1, 20 do sndIO('x') end end\n"));
  tick();
  ASSERT_TRUE(program.running().waitForErrors("opening TCP socket\n"));
  program.expectEndsInTime();
}

TEST_F(WaitAfterWait, RequestsOfAScriptThatIsBeingOpened) {
  program.start(link("tcp", 1,
                     "local init = ROVIK_INIT\n"
                     "function ROVIK_INIT(me)\n"
                     "  init(me)\n"
                     "  for i = 1, 10 do print('asks') getDATA('1_1_1', 'int', 6) end\n"
                     "end\n") +
                "rovik 6 mute hangs\n");
  ASSERT_TRUE(program.running().waitForErrors("asks"));
  program.expectEndsInTime();
}

TEST_F(WaitAfterWait, RequestsOfAScriptThatTicks) {
  program.startReady(link("tcp", 1,
                          std::string(kTickAtOnce) +
                              "function ROVIK_PERIODIC()\n"
                              "  for i = 1, 10 do print('asks') getDATA('1_1_1', 'int', 6) end\n"
                              "end\n") +
                     "rovik 6 mute hangs\n");
  tick();
  ASSERT_TRUE(program.running().waitForErrors("asks"));
  program.expectEndsInTime();
}

TEST_F(WaitAfterWait, StrictStartIsRefusedWhileAnotherRovikIsStuck) {
  TcpPeer peer;
  const UnansweringPort nobody;
  program.start(link("ssl", peer.port(), "", "  open\n") +
                    "rovik 6 late generic_net\n  mode tcp\n  host 127.0.0.1\n  port " +
                    std::to_string(nobody.port()) + "\n  open\n",
                {"--strict"});
  ASSERT_TRUE(program.running().waitForErrors("was answered with ERROR\n"));
  EXPECT_EQ(program.running().wait(), 2);
}

// A finalizer writes on a link of its own while the last commands run.
TEST_F(WaitAfterWait, HandshakeOfAFinalizer) {
  TcpPeer peer;
  program.startReady(
      link("ssl", peer.port(), "keep = setmetatable({}, {__gc = function() sndIO('bye') end})\n"));
  program.expectEndsInTime();
}

}  // namespace
