#include "platform/Crypto.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <limits>

#include "values/Check.h"

namespace zun {

namespace {

constexpr int kSmallestKeyBits = 1024;
constexpr int kLargestKeyBits = 16384;

struct KeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyDeleter>;

struct ContextDeleter {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using DigestContext = std::unique_ptr<EVP_MD_CTX, ContextDeleter>;

struct StreamDeleter {
  void operator()(BIO* stream) const { BIO_free_all(stream); }
};
using Stream = std::unique_ptr<BIO, StreamDeleter>;

/// What failed is told by a result of ours; OpenSSL's own list of it must not be left
/// for whoever uses this thread next.
struct ErrorQueueCleaner {
  ErrorQueueCleaner() = default;
  ErrorQueueCleaner(const ErrorQueueCleaner&) = delete;
  ErrorQueueCleaner& operator=(const ErrorQueueCleaner&) = delete;
  ~ErrorQueueCleaner() { ERR_clear_error(); }
};

const unsigned char* asBytes(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

/// Algorithms are looked up once: the look-up costs more than a short digest.
const EVP_MD* sha1Algorithm() {
  static const EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA1", nullptr);
  return algorithm;
}
const EVP_MD* sha256Algorithm() {
  static const EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  return algorithm;
}

template <size_t size>
std::array<uint8_t, size> digest(std::string_view bytes, const EVP_MD* algorithm) {
  std::array<uint8_t, size> result{};
  unsigned written = 0;
  const int done = EVP_Digest(bytes.data(), bytes.size(), result.data(), &written, algorithm, nullptr);
  ZUN_CHECK(done == 1 && written == size);
  return result;
}

bool isAcceptable(EVP_PKEY* key) {
  return key != nullptr && EVP_PKEY_is_a(key, "RSA") == 1 && EVP_PKEY_get_bits(key) >= kSmallestKeyBits &&
         EVP_PKEY_get_bits(key) <= kLargestKeyBits;
}

}  // namespace

std::array<uint8_t, 20> sha1(std::string_view bytes) {
  return digest<20>(bytes, sha1Algorithm());
}

std::array<uint8_t, 32> sha256(std::string_view bytes) {
  return digest<32>(bytes, sha256Algorithm());
}

std::array<uint8_t, 20> hmacSHA1(std::string_view key, std::string_view bytes) {
  std::array<uint8_t, 20> result{};
  size_t written = 0;
  // An empty key is a key, where a null pointer would be none.
  const char* const keyBytes = key.empty() ? "" : key.data();
  const unsigned char* const done =
      EVP_Q_mac(nullptr, "HMAC", nullptr, "SHA1", nullptr, keyBytes, key.size(), asBytes(bytes), bytes.size(),
                result.data(), result.size(), &written);
  ZUN_CHECK(done != nullptr && written == result.size());
  return result;
}

// --- RSAPublicKey ----------------------------------------------------------------

struct RSAPublicKey::Implementation {
  Key key;
};

RSAPublicKey::RSAPublicKey(std::unique_ptr<Implementation> implementation)
    : implementation_(std::move(implementation)) {}
RSAPublicKey::RSAPublicKey(RSAPublicKey&&) noexcept = default;
RSAPublicKey& RSAPublicKey::operator=(RSAPublicKey&&) noexcept = default;
RSAPublicKey::~RSAPublicKey() = default;

std::optional<RSAPublicKey> RSAPublicKey::fromDER(std::string_view der) {
  const ErrorQueueCleaner cleaner;
  if (der.empty() || der.size() > size_t{kLargestKeyBits}) return std::nullopt;
  const auto size = static_cast<long>(der.size());
  const unsigned char* const end = asBytes(der) + der.size();
  const unsigned char* position = asBytes(der);
  Key key(d2i_PublicKey(EVP_PKEY_RSA, nullptr, &position, size));
  if (key == nullptr || position != end) {
    position = asBytes(der);
    key.reset(d2i_PUBKEY(nullptr, &position, size));
  }
  if (position != end || !isAcceptable(key.get())) return std::nullopt;
  return RSAPublicKey(std::make_unique<Implementation>(Implementation{std::move(key)}));
}

bool RSAPublicKey::verifySHA1Signature(std::string_view bytes, std::string_view signature) const {
  const ErrorQueueCleaner cleaner;
  const DigestContext context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* parameters = nullptr;  // the context's
  return context != nullptr &&
         EVP_DigestVerifyInit(context.get(), &parameters, sha1Algorithm(), nullptr,
                              implementation_->key.get()) == 1 &&
         EVP_PKEY_CTX_set_rsa_padding(parameters, RSA_PKCS1_PADDING) == 1 &&
         EVP_DigestVerify(context.get(), asBytes(signature), signature.size(), asBytes(bytes),
                          bytes.size()) == 1;
}

const void* RSAPublicKey::identity() const {
  return implementation_->key.get();
}

// --- RSAPrivateKey ---------------------------------------------------------------

struct RSAPrivateKey::Implementation {
  Key key;
};

RSAPrivateKey::RSAPrivateKey(std::unique_ptr<Implementation> implementation)
    : implementation_(std::move(implementation)) {}
RSAPrivateKey::RSAPrivateKey(RSAPrivateKey&&) noexcept = default;
RSAPrivateKey& RSAPrivateKey::operator=(RSAPrivateKey&&) noexcept = default;
RSAPrivateKey::~RSAPrivateKey() = default;

std::optional<RSAPrivateKey> RSAPrivateKey::generate(int bits) {
  const ErrorQueueCleaner cleaner;
  if (bits < kSmallestKeyBits || bits > kLargestKeyBits) return std::nullopt;
  Key key(EVP_RSA_gen(static_cast<size_t>(bits)));
  if (!isAcceptable(key.get())) return std::nullopt;
  return RSAPrivateKey(std::make_unique<Implementation>(Implementation{std::move(key)}));
}

std::optional<RSAPrivateKey> RSAPrivateKey::fromPEM(std::string_view pem) {
  const ErrorQueueCleaner cleaner;
  if (pem.size() > size_t{std::numeric_limits<int>::max()}) return std::nullopt;
  const Stream stream(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  if (stream == nullptr) return std::nullopt;
  // Never ask a terminal: a key with a pass phrase counts as none.
  const auto noPassPhrase = [](char*, int, int, void*) { return -1; };
  Key key(PEM_read_bio_PrivateKey(stream.get(), nullptr, noPassPhrase, nullptr));
  if (!isAcceptable(key.get())) return std::nullopt;
  return RSAPrivateKey(std::make_unique<Implementation>(Implementation{std::move(key)}));
}

std::string RSAPrivateKey::pem() const {
  const ErrorQueueCleaner cleaner;
  const Stream stream(BIO_new(BIO_s_mem()));
  ZUN_CHECK(stream != nullptr && PEM_write_bio_PKCS8PrivateKey(stream.get(), implementation_->key.get(),
                                                               nullptr, nullptr, 0, nullptr, nullptr) == 1);
  char* text = nullptr;
  const long length = BIO_get_mem_data(stream.get(), &text);
  return {text, static_cast<size_t>(length)};
}

std::string RSAPrivateKey::publicKeyDER() const {
  const ErrorQueueCleaner cleaner;
  unsigned char* der = nullptr;
  const int length = i2d_PublicKey(implementation_->key.get(), &der);
  ZUN_CHECK(length > 0);
  const std::string bytes(reinterpret_cast<const char*>(der), static_cast<size_t>(length));
  OPENSSL_free(der);
  return bytes;
}

std::optional<std::string> RSAPrivateKey::signSHA1(std::string_view bytes) const {
  const ErrorQueueCleaner cleaner;
  const DigestContext context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* parameters = nullptr;  // the context's
  std::string signature(static_cast<size_t>(EVP_PKEY_get_size(implementation_->key.get())), '\0');
  size_t length = signature.size();
  const bool isSigned = context != nullptr &&
                        EVP_DigestSignInit(context.get(), &parameters, sha1Algorithm(), nullptr,
                                           implementation_->key.get()) == 1 &&
                        EVP_PKEY_CTX_set_rsa_padding(parameters, RSA_PKCS1_PADDING) == 1 &&
                        EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()),
                                       &length, asBytes(bytes), bytes.size()) == 1;
  if (!isSigned) return std::nullopt;
  signature.resize(length);
  return signature;
}

}  // namespace zun
