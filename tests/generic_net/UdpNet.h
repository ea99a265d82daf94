// What the tests of the UDP link share.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "NetTest.h"
#include "support/PeerUdp.h"
#include "support/TempFolder.h"

// A rovik 5 called "net" in UDP mode.
class UdpNet : public NetTest {
 protected:
  UdpNet();
  ~UdpNet() override;

  // Points the rovik at an address; what that logs is not among newLines.
  void pointAt(const std::string& host, int port);
  // The same, and opens the link.
  void openTo(const std::string& host, int port);
  int localPort() const { return localPortOf(net->fd); }

  // Sends a datagram to the rovik's link and waits until one waits there.
  void deliver(const UdpPeer& from, std::string_view bytes, const std::string& to = "127.0.0.1");
  void awaitDatagram() const;
  // Sends a datagram and has it read.
  void feed(const UdpPeer& from, std::string_view bytes, const std::string& to = "127.0.0.1");

  // Writes and opens a script, which may use m_p; what that logs is not among newLines.
  void script(const std::string& text);

  static CapturedLine messageLine(const std::string& address, int port, std::size_t length);
  static CapturedLine ownMessageLine();

 private:
  TempFolder root;
  std::string root_before;
};
