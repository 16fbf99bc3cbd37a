#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/PlatformServices.h"
#include "storebag/StorebagDiskCache.h"
#include "values/Value.h"

namespace zun {

/// Judges storebag envelopes: only one whose signature verifies against the bundle's
/// publicKey.der is ever looked into, kept or given out.
///
/// Threading: any thread; verification that saves is serialised by the fetcher's lock.
/// Ownership: part of a fetcher; what it is given outlives it.
class StorebagVerifier final {
 public:
  StorebagVerifier(const PlatformServices& platform, const StorebagDiskCache& diskCache);

  /// The inner storebag with its macros expanded and "shared_values" gone; none for an
  /// envelope that does not verify or holds no dictionary. The key is read anew.
  /// `staged`: the same envelope, to be saved if it verifies; null to save nothing.
  [[nodiscard]] std::optional<Dictionary> verifyAndParse(
      std::string_view name, std::string_view envelope,
      const StorebagDiskCache::StagedEnvelope* staged = nullptr) const;

 private:
  [[nodiscard]] std::optional<std::string> verifiedBag(std::string_view envelope) const;

  const PlatformServices& platform_;
  const StorebagDiskCache& diskCache_;
};

}  // namespace zun
