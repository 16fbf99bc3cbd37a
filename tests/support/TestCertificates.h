#pragma once

#include <string>

namespace zun {

/// Certificates made for this process alone, so that tests speak real TLS and
/// nothing secret is kept in the tree. Made on first use and shared by every server of
/// the process; the file of the authority goes away with the process.
class TestCertificates final {
 public:
  /// A certificate with its key, both as PEM.
  struct Identity {
    std::string certificate;
    std::string key;
  };

  /// The set of this process. Any thread.
  static const TestCertificates& shared();

  TestCertificates();
  ~TestCertificates();
  TestCertificates(const TestCertificates&) = delete;
  TestCertificates& operator=(const TestCertificates&) = delete;

  /// PEM file of the authority to trust.
  [[nodiscard]] const std::string& caFile() const { return caFile_; }

  /// For localhost, 127.0.0.1, ::1 and server.test.
  [[nodiscard]] const Identity& trusted() const { return trusted_; }
  /// As above, by an authority that nobody trusts.
  [[nodiscard]] const Identity& untrusted() const { return untrusted_; }
  /// As `trusted`, but its time is over.
  [[nodiscard]] const Identity& expired() const { return expired_; }
  /// By the trusted authority, for elsewhere.test only.
  [[nodiscard]] const Identity& wrongHost() const { return wrongHost_; }

 private:
  std::string caFile_;
  Identity trusted_;
  Identity untrusted_;
  Identity expired_;
  Identity wrongHost_;
};

}  // namespace zun
