// What the tests of GenericNet share.
#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "generic_net/GenericNet.h"
#include "support/LogCapture.h"
#include "support/PeerTcp.h"

// A GenericNet whose members a test reads, and whose slots it calls itself.
class ExposedNet final : public GenericNet {
 public:
  static std::unique_ptr<ExposedNet> make(int id, const std::string& name);

  // One command, called directly.
  std::string command(std::vector<std::string> words);
  // What the loop does when the link is readable.
  void readLinkNow();
  // Bytes that wait on the link to be read.
  int bytesWaiting() const;
  // Whether every byte behind the valid ones is zero, and the valid ones leave room for more.
  bool bufferIsClean() const;

  using GenericNet::accept_self_cert;
  using GenericNet::addeolout;
  using GenericNet::baudrate;
  using GenericNet::cert;
  using GenericNet::certname;
  using GenericNet::chopeolin;
  using GenericNet::closeGeneric;
  using GenericNet::closeSSL;
  using GenericNet::closeTCP;
  using GenericNet::closeTTY;
  using GenericNet::closeUDP;
  using GenericNet::commode;
  using GenericNet::echo;
  using GenericNet::eolclose;
  using GenericNet::eolin;
  using GenericNet::eolin_size;
  using GenericNet::eolout;
  using GenericNet::eolout_size;
  using GenericNet::fclmode;
  using GenericNet::fd;
  using GenericNet::host;
  using GenericNet::id;
  using GenericNet::inbuf;
  using GenericNet::inbufpos;
  using GenericNet::iodebug;
  using GenericNet::l_addr;
  using GenericNet::lua_state;
  using GenericNet::name;
  using GenericNet::network_id;
  using GenericNet::openGeneric;
  using GenericNet::p_addr;
  using GenericNet::period;
  using GenericNet::persistent;
  using GenericNet::port;
  using GenericNet::raw;
  using GenericNet::rcvData;
  using GenericNet::readfds;
  using GenericNet::reconnect;
  using GenericNet::reg;
  using GenericNet::regexTableIN;
  using GenericNet::regexTableOUT;
  using GenericNet::sendWOL;
  using GenericNet::sndData;
  using GenericNet::ssl;
  using GenericNet::sslctx;
  using GenericNet::timer;
  using GenericNet::toggleDTR;
  using GenericNet::toggleRTS;
  using GenericNet::tty;
  using GenericNet::ttymode;
  using GenericNet::type;
  using GenericNet::unparsedin;
  using GenericNet::unparsedout;
  using GenericNet::wol_adr;
  using GenericNet::wol_mac;
};

using Lines = std::vector<CapturedLine>;

// Lines of the rovik 5 called "net".
inline CapturedLine errorLine(const std::string& text) { return {2, 5, "net", text}; }
inline CapturedLine infoLine(const std::string& text) { return {3, 5, "net", text}; }
inline CapturedLine traceLine(const std::string& text) { return {4, 5, "net", text}; }

// A rovik 5 called "net" without a thread of its own, and everything that it logs.
class NetTest : public ::testing::Test {
 protected:
  NetTest();
  ~NetTest() override;

  // What was logged since the last call.
  Lines newLines();
  // The rovik's current warning, and how many there have been.
  std::string warning() const;
  std::size_t warnings() const;

  // Points the rovik at the peer, opens the link and takes it at the other end. What that logs is
  // not among newLines.
  void openTo(TcpPeer& peer);
  // Sends bytes and waits until all of them wait on the rovik's link.
  void deliver(TcpPeer& peer, std::string_view bytes);
  // Sends bytes and has them read, in as many reads as the buffer needs.
  void feed(TcpPeer& peer, std::string_view bytes);
  // Waits until the peer's farewell, in good order or not, has come.
  void awaitEnd();

  LogCapture log{4};
  std::unique_ptr<ExposedNet> net;

 private:
  std::size_t seen = 0;
};
