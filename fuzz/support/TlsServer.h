// The server's side of a TLS 1.0 session, without a socket: all records pass through the target's
// hands, to be sent, cut, spoiled or repeated.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <string_view>

namespace fuzzing {

class TlsServer {
 public:
  TlsServer();

  // Begins a session, whose handshake takes its steps as the client's records are taken.
  void begin();

  // Sealed records: bytes of the stream, the wish to negotiate anew, the farewell.
  std::string seal(std::string_view bytes);
  std::string negotiation();
  std::string farewell();

  // Takes what the client has sent. What is to be sent for that, as in a handshake.
  std::string take(std::string_view records);

 private:
  template <typename Handle>
  using Owner = std::unique_ptr<Handle, void (*)(Handle*)>;

  void give(std::string_view records) const;
  std::string takeSealed() const;

  Owner<SSL_CTX> context;
  Owner<SSL> session;
};

}  // namespace fuzzing
