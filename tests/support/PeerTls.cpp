#include "support/PeerTls.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include <stdexcept>

namespace {

constexpr std::size_t kRecordHeader = 5;

void require(bool done, const char* what) {
  if (!done) throw std::runtime_error(what);
}

}  // namespace

TlsPeer::TlsPeer(const Certificate& certificate, int version)
    : context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free), session(nullptr, SSL_free) {
  require(context != nullptr, "SSL_CTX_new");
  SSL_CTX_set_security_level(context.get(), 0);
  require(SSL_CTX_set_min_proto_version(context.get(), version) == 1 &&
              SSL_CTX_set_max_proto_version(context.get(), version) == 1,
          "SSL_CTX_set_proto_version");
  require(SSL_CTX_use_certificate(context.get(), certificate.certificate.get()) == 1 &&
              SSL_CTX_use_PrivateKey(context.get(), certificate.key.get()) == 1,
          "SSL_CTX_use_certificate");
}

void TlsPeer::sendAlso(const Certificate& certificate) {
  require(SSL_CTX_add1_chain_cert(context.get(), certificate.certificate.get()) == 1,
          "SSL_CTX_add1_chain_cert");
}

bool TlsPeer::accept() {
  tcp.accept();
  session.reset(SSL_new(context.get()));
  require(session != nullptr, "SSL_new");
  SSL_set_bio(session.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
  SSL_set_accept_state(session.get());
  while (true) {
    ERR_clear_error();
    const int result = SSL_do_handshake(session.get());
    const int reason = SSL_get_error(session.get(), result);
    tcp.send(takeSealed());
    if (result == 1) return true;
    if (reason != SSL_ERROR_WANT_READ || !takeRecord()) return false;
  }
}

// What the session wants to send.
std::string TlsPeer::takeSealed() {
  BIO* const out = SSL_get_wbio(session.get());
  std::string records(BIO_ctrl_pending(out), '\0');
  if (records.empty()) return records;
  const int length = BIO_read(out, records.data(), static_cast<int>(records.size()));
  require(length == static_cast<int>(records.size()), "BIO_read");
  return records;
}

// Gives the session the next record of the other side. False when there is none.
bool TlsPeer::takeRecord() {
  std::string record = tcp.receive(kRecordHeader);
  if (record.size() < kRecordHeader) return false;
  const auto length = static_cast<std::size_t>(static_cast<unsigned char>(record[3]) << 8 |
                                               static_cast<unsigned char>(record[4]));
  record += tcp.receive(length);
  const int size = static_cast<int>(record.size());
  require(BIO_write(SSL_get_rbio(session.get()), record.data(), size) == size, "BIO_write");
  return record.size() == kRecordHeader + length;
}

std::string TlsPeer::seal(std::string_view bytes) {
  const int length = static_cast<int>(bytes.size());
  ERR_clear_error();
  require(SSL_write(session.get(), bytes.data(), length) == length, "SSL_write");
  return takeSealed();
}

std::string TlsPeer::receive(std::size_t count) {
  std::string bytes(count, '\0');
  std::size_t got = 0;
  while (got < count) {
    ERR_clear_error();
    const int room = static_cast<int>(count - got);
    const int received = SSL_read(session.get(), &bytes[got], room);
    if (received > 0) {
      got += static_cast<std::size_t>(received);
    } else if (SSL_get_error(session.get(), received) != SSL_ERROR_WANT_READ || !takeRecord()) {
      break;
    }
  }
  bytes.resize(got);
  return bytes;
}

void TlsPeer::sendCloseNotify() {
  SSL_shutdown(session.get());
  tcp.send(takeSealed());
}

// The other side's last message of a handshake differs from one handshake to the next.
std::string TlsPeer::finished() const {
  std::string message(64, '\0');
  message.resize(SSL_get_peer_finished(session.get(), message.data(), message.size()));
  return message;
}

bool TlsPeer::negotiateAnew() {
  const std::string before = finished();
  require(SSL_renegotiate(session.get()) == 1 && SSL_do_handshake(session.get()) == 1,
          "SSL_renegotiate");
  tcp.send(takeSealed());
  while (finished() == before || SSL_is_init_finished(session.get()) == 0) {
    if (!takeRecord()) return false;
    char nothing = 0;
    ERR_clear_error();
    const int received = SSL_read(session.get(), &nothing, sizeof nothing);
    const int reason = SSL_get_error(session.get(), received);
    tcp.send(takeSealed());
    if (received > 0 || reason != SSL_ERROR_WANT_READ) return false;
  }
  return true;
}
