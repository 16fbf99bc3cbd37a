#include "storebag/StorebagVerifier.h"

#include "platform/Crypto.h"
#include "storebag/SharedValues.h"
#include "values/Base64.h"
#include "values/PropertyList.h"

namespace zun {

StorebagVerifier::StorebagVerifier(const PlatformServices& platform, const StorebagDiskCache& diskCache)
    : platform_(platform), diskCache_(diskCache) {}

std::optional<Dictionary> StorebagVerifier::verifyAndParse(
    std::string_view name, std::string_view envelope, const StorebagDiskCache::StagedEnvelope* staged) const {
  const auto bag = verifiedBag(envelope);
  if (!bag) return std::nullopt;
  if (staged != nullptr && diskCache_.saveStorebagToDisk(name, *staged)) {
    platform_.log.note("fetchStorebagWithName: storebag '{}' has been saved to disk cache", name);
  }
  const auto storebag = parsePropertyList(*bag);
  if (!storebag || !storebag->isDictionary()) return std::nullopt;
  return expandSharedValues(*storebag->dictionary(), platform_.log);
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
  // Read each time: an operator may replace it while the daemon runs.
  const auto der = platform_.bundle.resource("publicKey", "der");
  if (!der) return std::nullopt;
  const auto key = RSAPublicKey::fromDER(*der);
  if (!key) return std::nullopt;
  const auto signature = base64Decode((*fields)["signature"].stringValue());
  if (!signature || !(*fields)["bag"].isString()) return std::nullopt;
  auto bag = base64Decode((*fields)["bag"].stringValue());
  if (!bag) return std::nullopt;
  if (!key->verifySHA1Signature(*bag, *signature)) {
    platform_.log.error("fetchStorebagWithName: Signature can not be verified, {}", key->identity());
    return std::nullopt;
  }
  return bag;
}

}  // namespace zun
