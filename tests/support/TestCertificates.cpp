#include "support/TestCertificates.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>

namespace zun {
namespace {

constexpr const char* kTestHosts = "DNS:localhost,DNS:server.test,IP:127.0.0.1,IP:::1";
constexpr long kDay = 24L * 60 * 60;

struct Deleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
};
using Key = std::unique_ptr<EVP_PKEY, Deleter>;
using Certificate = std::unique_ptr<X509, Deleter>;

struct Authority {
  Key key;
  Certificate certificate;
};

void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

void addExtension(X509* certificate, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const std::unique_ptr<X509_EXTENSION, Deleter> extension(
      X509V3_EXT_conf_nid(nullptr, &context, nid, value));
  require(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1, "extension");
}

struct Subject {
  const char* commonName;
  long serial;
  long validFrom;   // seconds from now
  long validUntil;  // seconds from now
};

Certificate makeCertificate(const Subject& subject, EVP_PKEY* key, X509* issuer) {
  Certificate certificate(X509_new());
  X509* x509 = certificate.get();
  X509_set_version(x509, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(x509), subject.serial);
  X509_gmtime_adj(X509_getm_notBefore(x509), subject.validFrom);
  X509_gmtime_adj(X509_getm_notAfter(x509), subject.validUntil);
  X509_set_pubkey(x509, key);
  X509_NAME* name = X509_get_subject_name(x509);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(subject.commonName), -1, -1, 0);
  X509_set_issuer_name(x509, issuer == nullptr ? name : X509_get_subject_name(issuer));
  return certificate;
}

Authority makeAuthority(const char* name) {
  Authority authority{Key(EVP_EC_gen("P-256")), nullptr};
  require(authority.key != nullptr, "key");
  authority.certificate = makeCertificate({name, 1, -kDay, 2 * kDay}, authority.key.get(), nullptr);
  X509* x509 = authority.certificate.get();
  addExtension(x509, x509, NID_basic_constraints, "critical,CA:TRUE");
  addExtension(x509, x509, NID_key_usage, "critical,keyCertSign,cRLSign");
  addExtension(x509, x509, NID_subject_key_identifier, "hash");
  require(X509_sign(x509, authority.key.get(), EVP_sha256()) > 0, "sign");
  return authority;
}

template <typename Write>
std::string pem(Write write) {
  const std::unique_ptr<BIO, Deleter> bio(BIO_new(BIO_s_mem()));
  require(write(bio.get()) == 1, "PEM");
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &bytes);
  return {bytes, static_cast<size_t>(length)};
}

std::string pemOf(X509* certificate) {
  return pem([certificate](BIO* bio) { return PEM_write_bio_X509(bio, certificate); });
}

TestCertificates::Identity makeIdentity(const Authority& authority, const Subject& subject,
                                        const char* hosts) {
  const Key key(EVP_EC_gen("P-256"));
  require(key != nullptr, "key");
  const Certificate certificate = makeCertificate(subject, key.get(), authority.certificate.get());
  addExtension(certificate.get(), authority.certificate.get(), NID_subject_alt_name, hosts);
  addExtension(certificate.get(), authority.certificate.get(), NID_ext_key_usage, "serverAuth");
  require(X509_sign(certificate.get(), authority.key.get(), EVP_sha256()) > 0, "sign");
  return {pemOf(certificate.get()), pem([&key](BIO* bio) {
            return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
          })};
}

}  // namespace

const TestCertificates& TestCertificates::shared() {
  static const TestCertificates certificates;
  return certificates;
}

TestCertificates::TestCertificates() {
  const Authority authority = makeAuthority("zun test authority");
  const Authority stranger = makeAuthority("zun test stranger");
  trusted_ = makeIdentity(authority, {"localhost", 2, -kDay, kDay}, kTestHosts);
  untrusted_ = makeIdentity(stranger, {"localhost", 3, -kDay, kDay}, kTestHosts);
  expired_ = makeIdentity(authority, {"localhost", 4, -2 * kDay, -kDay}, kTestHosts);
  wrongHost_ = makeIdentity(authority, {"elsewhere.test", 5, -kDay, kDay}, "DNS:elsewhere.test");

  std::string name = (std::filesystem::temp_directory_path() / "zun-test-ca-XXXXXX").string();
  const int file = ::mkstemp(name.data());
  require(file >= 0, "file of the authority");
  const std::string text = pemOf(authority.certificate.get());
  const bool written = ::write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(file);
  require(written, "file of the authority");
  caFile_ = name;
}

TestCertificates::~TestCertificates() {
  ::unlink(caFile_.c_str());
}

}  // namespace zun
