// The link over TLS 1.0, for controllers that know nothing newer. Such a link is as good as an open
// one against an attacker; what it does is speak to the device.
//
// The session reads with the socket non-blocking for that moment, so that a peer that stops inside
// a record, or wants to negotiate anew for ever, does not hold up the rovik. All else waits for the
// peer, as on TCP.
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <memory>

#include "GenericNet.h"

namespace {

const char kTrustFolder[] = "/etc/ssl/certs";

struct TextRelease {
  void operator()(char* text) const { OPENSSL_free(text); }
};

// The subject of a certificate as one line; bytes outside of printable ASCII come out as \xNN.
std::string oneLine(const X509_NAME* subject) {
  const std::unique_ptr<char, TextRelease> text(X509_NAME_oneline(subject, nullptr, 1000));
  return text != nullptr ? text.get() : "";
}

// Sets a socket non-blocking for the life of a scope.
class NonBlocking {
 public:
  explicit NonBlocking(int its_descriptor)
      : descriptor(its_descriptor), flags(fcntl(descriptor, F_GETFL, 0)) {
    fcntl(descriptor, F_SETFL, flags | O_NONBLOCK);
  }
  ~NonBlocking() { fcntl(descriptor, F_SETFL, flags); }
  NonBlocking(const NonBlocking&) = delete;
  NonBlocking& operator=(const NonBlocking&) = delete;

 private:
  const int descriptor;
  const int flags;
};

// A context that offers TLS 1.0 and nothing else. Security level 0, because the signatures of that
// version are refused above; and servers that do not know of secure renegotiation (RFC 5746) are
// as old as it. Null on failure.
SSL_CTX* oldContext() {
  SSL_CTX* const context = SSL_CTX_new(TLS_client_method());
  if (context == nullptr) return nullptr;
  SSL_CTX_set_security_level(context, 0);
  SSL_CTX_set_options(context, SSL_OP_LEGACY_SERVER_CONNECT);
  // A read that met no data comes back to the event loop instead of trying again.
  SSL_CTX_clear_mode(context, SSL_MODE_AUTO_RETRY);
  if (SSL_CTX_set_min_proto_version(context, TLS1_VERSION) == 1 &&
      SSL_CTX_set_max_proto_version(context, TLS1_VERSION) == 1)
    return context;
  SSL_CTX_free(context);
  return nullptr;
}

}  // namespace

void TlsRelease::operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
void TlsRelease::operator()(SSL* session) const { SSL_free(session); }
void TlsRelease::operator()(X509* certificate) const { X509_free(certificate); }

int GenericNet::openSSL() {
  trace("opening SSL socket\n");
  const bool opened = startSession() && acceptPeer();
  certname = nullptr;
  cert.reset();
  if (opened) return 0;
  closeSSL();
  return abandonLink();
}

// Context, connection and handshake. False after the reason was logged.
bool GenericNet::startSession() {
  sslctx.reset(oldContext());
  if (sslctx == nullptr) {
    trace("Failed to create SSL context structure\n");
    return false;
  }
  if (SSL_CTX_load_verify_locations(sslctx.get(), nullptr, kTrustFolder) == 0) {
    trace("Trust store failed to load or problem with directory\n");
    return false;
  }
  ssl.reset(SSL_new(sslctx.get()));
  if (openTCP() < 0) {
    trace("Failed to opent TCP socket\n");
    return false;
  }
  ERR_clear_error();
  if (ssl == nullptr || SSL_set_fd(ssl.get(), fd) != 1 || SSL_connect(ssl.get()) != 1) {
    trace("An SSL session could not be created!\n");
    return false;
  }
  trace("SSL session created successfully!\n");
  return true;
}

// Looks at the certificate. The name of the host is not compared with it. False after the reason
// was logged.
bool GenericNet::acceptPeer() {
  cert.reset(SSL_get1_peer_certificate(ssl.get()));
  if (cert == nullptr) {
    trace("Error retrieving certificate\n");
    return false;
  }
  certname = X509_get_subject_name(cert.get());
  trace("Certificate retrieved from server: %s\n", oneLine(certname).c_str());
  const long verdict = SSL_get_verify_result(ssl.get());
  const char* const text = X509_verify_cert_error_string(verdict);
  if (verdict == X509_V_OK) {
    trace("Verify ok: %s\n", text);
    return true;
  }
  // Whatever is wrong with the certificate: devices come with expired ones and worse.
  if (accept_self_cert) {
    trace("Verify ok (accepting self certs!): %s\n", text);
    return true;
  }
  trace("Verify failed: %s\n", text);
  return false;
}

// The descriptor is closed already and its number may be another thread's by now: the session is
// released without a farewell to the peer.
int GenericNet::closeSSL() {
  ssl.reset();
  sslctx.reset();
  return 0;
}

// Nothing when what came was not data, or not yet a whole record.
std::optional<int> GenericNet::readSSL() {
  if (ssl == nullptr) return -1;
  const NonBlocking now(fd);
  ERR_clear_error();
  const int received = SSL_read(ssl.get(), inbuf + inbufpos, kBufferSize - inbufpos);
  if (received > 0) return received;
  const int reason = SSL_get_error(ssl.get(), received);
  if (reason == SSL_ERROR_WANT_READ || reason == SSL_ERROR_WANT_WRITE) return std::nullopt;
  return -1;
}

// Whether the session holds bytes of a record that was read already, which no wait for the socket
// would tell.
bool GenericNet::decryptedWaits() const {
  return commode == COM_SSL && ssl != nullptr && SSL_pending(ssl.get()) > 0;
}

// Without bytes there is nothing to send: SSL_write(3) leaves open what it would do then.
ssize_t GenericNet::writeSSL(const char* data, std::size_t length) {
  trace("SSL_write\n");
  if (length == 0) return 0;
  errno = 0;
  if (ssl == nullptr) return -1;
  ERR_clear_error();
  return SSL_write(ssl.get(), data, static_cast<int>(length));
}
