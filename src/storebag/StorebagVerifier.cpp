#include "storebag/StorebagVerifier.h"

#include <algorithm>

#include "storebag/SharedValues.h"
#include "values/Base64.h"
#include "values/PropertyList.h"

namespace zun {

StorebagVerifier::StorebagVerifier(const PlatformServices& platform, const StorebagDiskCache& diskCache,
                                   AcceptedSerials& serials)
    : platform_(platform), diskCache_(diskCache), serials_(serials) {}

std::optional<Dictionary> StorebagVerifier::verifyAndParse(
    std::string_view name, std::string_view envelope, const StorebagDiskCache::StagedEnvelope* staged) const {
  const auto bag = verifiedBag(envelope);
  return bag ? acceptBag(name, *bag, staged) : std::nullopt;
}

std::optional<Dictionary> StorebagVerifier::acceptBag(std::string_view name, std::string_view bag,
                                                      const StorebagDiskCache::StagedEnvelope* staged) const {
  const auto parsed = parsePropertyList(bag);
  const Dictionary* const storebag = parsed ? parsed->dictionary() : nullptr;
  if (const auto reason = refusal(name, storebag == nullptr ? Dictionary() : *storebag)) {
    platform_.log.error("fetchStorebagWithName: {}", *reason);
    return std::nullopt;
  }
  const bool isSaved = staged != nullptr && diskCache_.saveStorebagToDisk(name, *staged);
  if (isSaved) {
    platform_.log.note("fetchStorebagWithName: storebag '{}' has been saved to disk cache", name);
  }
  if (storebag == nullptr) return std::nullopt;
  if (const Value& serial = (*storebag)["serial"]; serial.isInteger() && (isSaved || staged == nullptr)) {
    serials_.note(name, serial.intValue());
  }
  return expandSharedValues(*storebag, platform_.log);
}

std::optional<std::string> StorebagVerifier::refusal(std::string_view name,
                                                     const Dictionary& storebag) const {
  const Value& ownName = storebag["name"];
  if (!ownName.isNone() && ownName.string() != name) {
    return fmt::format("storebag '{}' was signed as '{}'", name, ownName);
  }
  const Value& serial = storebag["serial"];
  if (!serial.isNone() && (!serial.isInteger() || serial.isAboveInt64())) {
    return fmt::format("the serial of storebag '{}' is no integer", name);
  }
  const auto accepted = serials_.of(name);
  if (!accepted) {
    return fmt::format(
        "storebag '{}' is not taken while the serials that were accepted before cannot be read", name);
  }
  const std::optional<int64_t> before = *accepted;
  if (!before) return std::nullopt;
  if (serial.isNone()) {
    return fmt::format("storebag '{}' has no serial, but {} was accepted before", name, *before);
  }
  if (serial.intValue() >= *before) return std::nullopt;
  return fmt::format("storebag '{}' has serial {}, but {} was accepted before", name, serial, *before);
}

// The bytes of the inner storebag, once its signature has been verified.
std::optional<std::string> StorebagVerifier::verifiedBag(std::string_view envelope) const {
  const auto parsed = parsePropertyList(envelope);
  if (!parsed) {
    platform_.log.error("fetchStorebagWithName: propertyListWithData error {}", parsed.error());
  }
  const Dictionary* fields = parsed ? parsed->dictionary() : nullptr;
  if (fields == nullptr || !(*fields)["signature"].isString()) {
    platform_.log.error("fetchStorebagWithName: Signature is missing");
    return std::nullopt;
  }
  const std::vector<RSAPublicKey> keys = signingKeys();
  if (keys.empty()) return std::nullopt;
  const auto signature = base64Decode((*fields)["signature"].stringValue());
  if (!signature || !(*fields)["bag"].isString()) return std::nullopt;
  auto bag = base64Decode((*fields)["bag"].stringValue());
  if (!bag) return std::nullopt;
  const bool isVerified = std::any_of(keys.begin(), keys.end(), [&](const RSAPublicKey& key) {
    return key.verifySHA1Signature(*bag, *signature);
  });
  if (!isVerified) {
    platform_.log.error("fetchStorebagWithName: Signature can not be verified, {}", keys.front().identity());
    return std::nullopt;
  }
  return bag;
}

// Read each time: an operator may replace them while the daemon runs.
std::vector<RSAPublicKey> StorebagVerifier::signingKeys() const {
  std::vector<RSAPublicKey> keys;
  std::vector<std::string_view> unusable;
  for (const std::string_view name : {"publicKey", "publicKey-2", "publicKey-3", "publicKey-4"}) {
    const auto der = platform_.bundle.resource(name, "der");
    auto key = der ? RSAPublicKey::fromDER(*der) : std::nullopt;
    if (key) {
      keys.push_back(*std::move(key));
    } else if (der || name == "publicKey") {  // further ones are there for a rotation alone
      unusable.push_back(name);
    }
  }
  // Without any key nothing verifies, and that goes without a line.
  for (const std::string_view name : unusable) {
    if (keys.empty()) break;
    platform_.log.error("fetchStorebagWithName: {}.der is missing or no RSA public key", name);
  }
  return keys;
}

}  // namespace zun
