#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace zun {

[[nodiscard]] std::array<uint8_t, 20> sha1(std::string_view bytes);
[[nodiscard]] std::array<uint8_t, 32> sha256(std::string_view bytes);
[[nodiscard]] std::array<uint8_t, 20> hmacSHA1(std::string_view key, std::string_view bytes);

/// An RSA public key.
class RSAPublicKey final {
 public:
  /// From DER bytes: an RSAPublicKey or a SubjectPublicKeyInfo. None for anything else.
  [[nodiscard]] static std::optional<RSAPublicKey> fromDER(std::string_view der);

  RSAPublicKey(RSAPublicKey&&) noexcept;
  RSAPublicKey& operator=(RSAPublicKey&&) noexcept;
  ~RSAPublicKey();

  /// RSASSA-PKCS1-v1_5 with SHA-1 over `bytes` (RFC 8017, 8.2.2).
  [[nodiscard]] bool verifySHA1Signature(std::string_view bytes, std::string_view signature) const;

  /// The key object's identity, for logs.
  [[nodiscard]] const void* identity() const;

 private:
  struct Implementation;
  explicit RSAPublicKey(std::unique_ptr<Implementation> implementation);
  std::unique_ptr<Implementation> implementation_;
};

/// An RSA private key: what the storebag author's tool signs with.
class RSAPrivateKey final {
 public:
  /// A fresh key of `bits` bits; none when the library cannot make one.
  [[nodiscard]] static std::optional<RSAPrivateKey> generate(int bits);
  [[nodiscard]] static std::optional<RSAPrivateKey> fromPEM(std::string_view pem);

  RSAPrivateKey(RSAPrivateKey&&) noexcept;
  RSAPrivateKey& operator=(RSAPrivateKey&&) noexcept;
  ~RSAPrivateKey();

  [[nodiscard]] std::string pem() const;           // PKCS#8
  [[nodiscard]] std::string publicKeyDER() const;  // RSAPublicKey
  [[nodiscard]] std::optional<std::string> signSHA1(std::string_view bytes) const;

 private:
  struct Implementation;
  explicit RSAPrivateKey(std::unique_ptr<Implementation> implementation);
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace zun
