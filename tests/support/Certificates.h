// Keys and certificates made on the spot, good ones and others.
#pragma once

#include <openssl/types.h>

#include <memory>
#include <string>

// A certificate with the key to it.
struct Certificate {
  std::shared_ptr<X509> certificate;
  std::shared_ptr<EVP_PKEY> key;

  std::string pem() const;
  std::string keyPem() const;
  // What its file must be called in a folder of trusted certificates.
  std::string trustFileName() const;
};

// What a certificate says.
struct CertificateWish {
  std::string common_name = "device";   // any bytes, any length
  const Certificate* issuer = nullptr;  // null: the certificate signs itself
  bool authority = false;               // may sign others
  bool expired = false;                 // its time ended yesterday
};

Certificate makeCertificate(const CertificateWish& wish);

// One that signs itself and is otherwise in order.
Certificate selfSigned(const std::string& common_name = "device");
// One that may sign others.
Certificate authority(const std::string& common_name);
