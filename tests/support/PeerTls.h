// The other end of a TLS link, over the real loopback interface.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <string_view>

#include "support/Certificates.h"
#include "support/PeerTcp.h"

// A server as old as the devices are: TLS 1.0 and nothing else, unless told otherwise. Each record
// passes through the test's hands, so that it can be held back, cut and counted. Every operation
// waits for the other side with a deadline; one thread at a time.
class TlsPeer {
 public:
  explicit TlsPeer(const Certificate& certificate, int version = TLS1_VERSION);
  int port() const { return tcp.port(); }

  // Is sent along behind the peer's own certificate.
  void sendAlso(const Certificate& certificate);

  // Takes the next link and shakes hands; an earlier one is closed. False when that fails.
  bool accept();

  // The records that carry these bytes; not sent yet.
  std::string seal(std::string_view bytes);
  void send(std::string_view bytes) { tcp.send(seal(bytes)); }
  // The next `count` bytes; fewer when the other side ends the link or nothing more comes in time.
  std::string receive(std::size_t count);
  // Takes leave in good order; the connection stays.
  void sendCloseNotify();
  // Has the session negotiated anew. False when the other side ends the link or does not answer.
  bool negotiateAnew();

  // The connection below the session.
  TcpPeer& link() { return tcp; }

 private:
  std::string takeSealed();
  bool takeRecord();
  std::string finished() const;

  template <typename Handle>
  using Owner = std::unique_ptr<Handle, void (*)(Handle*)>;

  TcpPeer tcp;
  Owner<SSL_CTX> context;
  Owner<SSL> session;
};
