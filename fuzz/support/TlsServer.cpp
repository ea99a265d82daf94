#include "support/TlsServer.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <array>

#include "support/Property.h"

namespace fuzzing {
namespace {

constexpr long kYear = 365 * 24 * 3600L;

// On a curve, since an RSA key makes a handshake ten times as long.
struct Identity {
  Identity() {
    require(key != nullptr && certificate != nullptr, "there is a certificate");
    X509_set_version(certificate.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kYear);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), kYear);
    X509_set_pubkey(certificate.get(), key.get());
    require(X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0, "the certificate is signed");
  }

  std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key{EVP_EC_gen("P-256"), EVP_PKEY_free};
  std::unique_ptr<X509, void (*)(X509*)> certificate{X509_new(), X509_free};
};

}  // namespace

TlsServer::TlsServer()
    : context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free), session(nullptr, SSL_free) {
  static const Identity identity;
  SSL_CTX_set_security_level(context.get(), 0);
  require(SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION) == 1 &&
              SSL_CTX_set_max_proto_version(context.get(), TLS1_VERSION) == 1 &&
              SSL_CTX_use_certificate(context.get(), identity.certificate.get()) == 1 &&
              SSL_CTX_use_PrivateKey(context.get(), identity.key.get()) == 1,
          "the server can be set up");
}

void TlsServer::begin() {
  session.reset(SSL_new(context.get()));
  require(session != nullptr, "there is a session");
  SSL_set_bio(session.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
  SSL_set_accept_state(session.get());
}

void TlsServer::give(std::string_view records) const {
  if (records.empty()) return;
  BIO_write(SSL_get_rbio(session.get()), records.data(), static_cast<int>(records.size()));
}

std::string TlsServer::takeSealed() const {
  BIO* const out = SSL_get_wbio(session.get());
  std::string records(BIO_ctrl_pending(out), '\0');
  if (!records.empty()) BIO_read(out, records.data(), static_cast<int>(records.size()));
  return records;
}

std::string TlsServer::seal(std::string_view bytes) {
  ERR_clear_error();
  if (!bytes.empty()) SSL_write(session.get(), bytes.data(), static_cast<int>(bytes.size()));
  return takeSealed();
}

std::string TlsServer::negotiation() {
  ERR_clear_error();
  if (SSL_renegotiate(session.get()) == 1) SSL_do_handshake(session.get());
  return takeSealed();
}

std::string TlsServer::farewell() {
  ERR_clear_error();
  SSL_shutdown(session.get());
  return takeSealed();
}

std::string TlsServer::take(std::string_view records) {
  give(records);
  std::array<char, 4096> dropped;
  ERR_clear_error();
  while (SSL_read(session.get(), dropped.data(), dropped.size()) > 0) {
  }
  return takeSealed();
}

}  // namespace fuzzing
