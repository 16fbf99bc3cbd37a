#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Crypto.h"
#include "platform/PlatformServices.h"
#include "storebag/AcceptedSerials.h"
#include "storebag/StorebagDiskCache.h"
#include "values/Value.h"

namespace zun {

/// Judges storebag envelopes: only one whose signature verifies against a key of the bundle
/// (publicKey.der, publicKey-2.der to publicKey-4.der) is ever looked into, kept or given
/// out, and none that was signed for another name, or is older than what was accepted.
///
/// Threading: any thread; verification that saves is serialised by the fetcher's lock.
/// Ownership: part of a fetcher; what it is given outlives it.
class StorebagVerifier final {
 public:
  StorebagVerifier(const PlatformServices& platform, const StorebagDiskCache& diskCache,
                   AcceptedSerials& serials);

  /// The inner storebag with its macros expanded and "shared_values" gone; none for an
  /// envelope that is refused or holds no dictionary. The keys are read anew, and a serial
  /// is noted. `staged`: the same envelope, to be saved if it is not refused; null to save
  /// nothing. What cannot be saved is given out, but its serial is not noted: the file that
  /// is there stays good.
  [[nodiscard]] std::optional<Dictionary> verifyAndParse(
      std::string_view name, std::string_view envelope,
      const StorebagDiskCache::StagedEnvelope* staged = nullptr) const;

  /// The first step of it alone: the signed bytes. Needs no lock.
  [[nodiscard]] std::optional<std::string> verifiedBag(std::string_view envelope) const;
  /// The rest of it.
  [[nodiscard]] std::optional<Dictionary> acceptBag(
      std::string_view name, std::string_view bag,
      const StorebagDiskCache::StagedEnvelope* staged = nullptr) const;

 private:
  [[nodiscard]] std::vector<RSAPublicKey> signingKeys() const;
  /// Why a signed storebag is not taken under that name; none if it is.
  [[nodiscard]] std::optional<std::string> refusal(std::string_view name, const Dictionary& storebag) const;

  const PlatformServices& platform_;
  const StorebagDiskCache& diskCache_;
  AcceptedSerials& serials_;
};

}  // namespace zun
