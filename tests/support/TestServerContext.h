#pragma once

#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <memory>
#include <stdexcept>

#include "support/TestCertificates.h"

namespace zun {

struct SSLFreeing {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  void operator()(SSL* ssl) const { SSL_free(ssl); }
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};

/// What a TLS server with that certificate needs.
inline std::unique_ptr<SSL_CTX, SSLFreeing> makeContext(const TestCertificates::Identity& identity) {
  std::unique_ptr<SSL_CTX, SSLFreeing> context(SSL_CTX_new(TLS_server_method()));
  const std::unique_ptr<BIO, SSLFreeing> certificateBio(
      BIO_new_mem_buf(identity.certificate.data(), static_cast<int>(identity.certificate.size())));
  const std::unique_ptr<BIO, SSLFreeing> keyBio(
      BIO_new_mem_buf(identity.key.data(), static_cast<int>(identity.key.size())));
  const std::unique_ptr<X509, SSLFreeing> certificate(
      PEM_read_bio_X509(certificateBio.get(), nullptr, nullptr, nullptr));
  const std::unique_ptr<EVP_PKEY, SSLFreeing> key(
      PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr, nullptr));
  if (SSL_CTX_use_certificate(context.get(), certificate.get()) != 1 ||
      SSL_CTX_use_PrivateKey(context.get(), key.get()) != 1)
    throw std::runtime_error("test server certificate");
  return context;
}

}  // namespace zun
