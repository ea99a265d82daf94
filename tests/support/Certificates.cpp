#include "support/Certificates.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <stdexcept>

namespace {

constexpr long kDay = 24 * 3600;

void require(bool done, const char* what) {
  if (!done) throw std::runtime_error(what);
}

std::shared_ptr<EVP_PKEY> newKey() {
  std::shared_ptr<EVP_PKEY> key(EVP_RSA_gen(2048), EVP_PKEY_free);
  require(key != nullptr, "EVP_RSA_gen");
  return key;
}

// Made once, since that takes long: one for those who sign others, one for everybody else.
std::shared_ptr<EVP_PKEY> keyFor(bool authority) {
  static const std::shared_ptr<EVP_PKEY> of_authorities = newKey();
  static const std::shared_ptr<EVP_PKEY> of_devices = newKey();
  return authority ? of_authorities : of_devices;
}

// A type whose bytes mean nothing to OpenSSL, and no limit to their number.
void setSubject(X509* to, const std::string& common_name) {
  const auto* const bytes = reinterpret_cast<const unsigned char*>(common_name.data());
  require(X509_NAME_add_entry_by_NID(X509_get_subject_name(to), NID_commonName, V_ASN1_T61STRING,
                                     bytes, static_cast<int>(common_name.size()), -1, 0) == 1,
          "X509_NAME_add_entry_by_NID");
}

void setTimes(X509* to, bool expired) {
  require(X509_gmtime_adj(X509_getm_notBefore(to), -30 * kDay) != nullptr &&
              X509_gmtime_adj(X509_getm_notAfter(to), (expired ? -1 : 30) * kDay) != nullptr,
          "X509_gmtime_adj");
}

void allowToSign(X509* to) {
  const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> extension(
      X509V3_EXT_conf_nid(nullptr, nullptr, NID_basic_constraints, "critical,CA:TRUE"),
      X509_EXTENSION_free);
  require(extension != nullptr && X509_add_ext(to, extension.get(), -1) == 1, "X509_add_ext");
}

std::string textOf(BIO* memory) {
  char* text = nullptr;
  const long length = BIO_get_mem_data(memory, &text);
  return {text, static_cast<std::size_t>(length)};
}

using Memory = std::unique_ptr<BIO, decltype(&BIO_free)>;

Memory newMemory() { return {BIO_new(BIO_s_mem()), BIO_free}; }

}  // namespace

std::string Certificate::pem() const {
  const Memory memory = newMemory();
  require(PEM_write_bio_X509(memory.get(), certificate.get()) == 1, "PEM_write_bio_X509");
  return textOf(memory.get());
}

std::string Certificate::keyPem() const {
  const Memory memory = newMemory();
  require(
      PEM_write_bio_PrivateKey(memory.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1,
      "PEM_write_bio_PrivateKey");
  return textOf(memory.get());
}

std::string Certificate::trustFileName() const {
  char name[16];
  std::snprintf(name, sizeof name, "%08lx.0", X509_subject_name_hash(certificate.get()));
  return name;
}

Certificate makeCertificate(const CertificateWish& wish) {
  static long serial = 0;
  Certificate made{{X509_new(), X509_free}, keyFor(wish.authority)};
  X509* const certificate = made.certificate.get();
  require(certificate != nullptr && X509_set_version(certificate, X509_VERSION_3) == 1 &&
              ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial) == 1,
          "X509_new");
  setSubject(certificate, wish.common_name);
  setTimes(certificate, wish.expired);
  if (wish.authority) allowToSign(certificate);
  const Certificate& issuer = wish.issuer != nullptr ? *wish.issuer : made;
  require(X509_set_issuer_name(certificate, X509_get_subject_name(issuer.certificate.get())) == 1 &&
              X509_set_pubkey(certificate, made.key.get()) == 1 &&
              X509_sign(certificate, issuer.key.get(), EVP_sha256()) > 0,
          "X509_sign");
  return made;
}

Certificate selfSigned(const std::string& common_name) {
  CertificateWish wish;
  wish.common_name = common_name;
  return makeCertificate(wish);
}

Certificate authority(const std::string& common_name) {
  CertificateWish wish;
  wish.common_name = common_name;
  wish.authority = true;
  return makeCertificate(wish);
}
