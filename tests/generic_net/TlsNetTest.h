// What the tests of the TLS link share.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "NetTest.h"
#include "support/PeerTls.h"

class TlsNetTest : public NetTest {
 protected:
  // Ignores the signal of a broken pipe, as the program does.
  TlsNetTest();
  ~TlsNetTest() override;

  // Points the rovik at a port of this host, with TLS. What that logs is not among newLines.
  void pointAt(int port);

  // Has the rovik open its link while the peer takes it on a thread of its own. The reply.
  std::string openWith(TlsPeer& peer);
  // The same with a peer that does something else than shaking hands.
  std::string openWith(TcpPeer& peer, const std::function<void(TcpPeer&)>& misbehave);

  // Opens the link although the peer's certificate is nobody's. Not among newLines.
  void openTo(TlsPeer& peer);

  // Sends records and waits until all of them wait on the rovik's link.
  void deliverRecords(TlsPeer& peer, std::string_view records);
  // Waits until something has come on the rovik's link.
  bool waitForBytes() const;
  // Sends bytes in records of their own and has them read.
  void feed(TlsPeer& peer, std::string_view bytes);

  // The link is closed and holds on to nothing.
  void expectNothingHeld() const;
  // What was logged is a failed opening with these lines in between, and it left nothing behind.
  void expectFailedOpening(const std::string& reply, Lines between);

 private:
  void (*const pipe_signal_before)(int);
};

// The lines with which a link to a peer called `subject` opens, up to the look at the certificate.
Lines handshakeLines(const std::string& subject);
