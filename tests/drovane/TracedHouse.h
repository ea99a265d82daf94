// A house with one link, and those who trace it.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <numeric>
#include <string>

#include "RunningProgram.h"
#include "support/PeerTcp.h"

// Every value that a byte can have.
inline std::string allBytes() {
  std::string bytes(256, '\0');
  std::iota(bytes.begin(), bytes.end(), '\0');
  return bytes;
}

// The numbers that differ from run to run are replaced: times of day by "TIME", seconds since the
// start by "S".
std::string withoutTimes(const std::string& text);

class TracedHouse : public testing::Test {
 protected:
  // A link that stays open, to this place.
  static std::string tcpLink(const std::string& port, const std::string& name = "boiler",
                             const std::string& id = "5") {
    return "rovik " + id + ' ' + name + " generic_net\n  mode tcp\n  host 127.0.0.1\n  port " +
           port + "\n  eolin \\r\\n\n  chopeol on\n  persist on\n";
  }

  // Starts the house with a link to the peer; it is open when this returns.
  void startOpen() {
    program.startReady(tcpLink(std::to_string(peer.port())) + "  open\n");
    peer.accept();
  }

  // "trace", which is told of everything from now on.
  std::unique_ptr<Process> trace(const Arguments& options = {},
                                 const std::string& rovik = "boiler");

  // The house sends these bytes to its device.
  void tellDevice(const std::string& bytes, const std::string& rovik = "boiler") {
    const Finished sent =
        program.ask({"send", "5_0_0", "string", bytes, "--to", rovik, "--actuator"});
    EXPECT_EQ(sent.status, 0) << sent.errors;
  }

  static void end(Process& process) {
    process.signal(SIGINT);
    EXPECT_EQ(process.wait(), 0) << process.errors();
  }

  Program program;
  TcpPeer peer;
};
