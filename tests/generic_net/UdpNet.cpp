#include "UdpNet.h"

#include <poll.h>

#include <array>
#include <chrono>
#include <filesystem>

#include "Drovane.h"
#include "support/Eventually.h"

UdpNet::UdpNet() {
  std::array<char, 512> before{};
  Drovane::global.getInstRoot(before.data(), static_cast<int>(before.size()));
  root_before = before.data();
  std::filesystem::create_directory(root / "lua");
  Drovane::global.setInstRoot(root.path());
  net->command({"mode", "udp"});
  newLines();
}

UdpNet::~UdpNet() { Drovane::global.setInstRoot(root_before); }

void UdpNet::pointAt(const std::string& host, int port) {
  net->command({"host", host});
  net->command({"port", std::to_string(port)});
  newLines();
}

void UdpNet::openTo(const std::string& host, int port) {
  pointAt(host, port);
  ASSERT_EQ("OK", net->command({"open"}));
  newLines();
}

void UdpNet::deliver(const UdpPeer& from, std::string_view bytes, const std::string& to) {
  from.send(bytes, to, localPort());
  awaitDatagram();
}

void UdpNet::awaitDatagram() const {
  pollfd watched{net->fd, POLLIN, 0};
  const auto patience = std::chrono::milliseconds(kPatienceOfTests).count();
  ASSERT_EQ(1, poll(&watched, 1, static_cast<int>(patience)));
}

void UdpNet::feed(const UdpPeer& from, std::string_view bytes, const std::string& to) {
  deliver(from, bytes, to);
  net->readLinkNow();
}

void UdpNet::script(const std::string& text) {
  root.write("lua/test.lua", "function ROVIK_INIT(me) m_p = me end\n" + text);
  ASSERT_EQ("OK", net->command({"luafile", "test.lua"}));
  ASSERT_EQ("OK", net->command({"luaopen"}));
  newLines();
}

CapturedLine UdpNet::messageLine(const std::string& address, int port, std::size_t length) {
  return traceLine("message from " + address + ":" + std::to_string(port) + " length " +
                   std::to_string(length));
}

CapturedLine UdpNet::ownMessageLine() {
  return traceLine("udp message sent by this host, discarding message (loop back)");
}
