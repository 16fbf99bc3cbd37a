// What a storebag server, or a disk, can hand us: envelopes that are parsed before their
// signature is known, and signed storebags with whatever an author wrote in them.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/Crypto.h"
#include "platform/SystemLog.h"
#include "storebag/SharedValues.h"
#include "util/MemoryUse.h"
#include "values/Base64.h"
#include "values/Check.h"
#include "values/PropertyList.h"

namespace {

/// Has every line formatted, as the daemon does at its most talkative, and keeps none.
class FormattingLog final : public zun::SystemLog {
 public:
  bool isEnabled(zun::LogLevel) const override { return true; }
  void write(zun::LogLevel, std::string_view line) override { bytes_ += line.size(); }

 private:
  size_t bytes_ = 0;
};

const zun::RSAPublicKey& key() {
  static const zun::RSAPublicKey key = [] {
    const auto made = zun::RSAPrivateKey::generate(2048);
    ZUN_CHECK(made);
    auto publicKey = zun::RSAPublicKey::fromDER(made->publicKeyDER());
    ZUN_CHECK(publicKey);
    return *std::move(publicKey);
  }();
  return key;
}

// Small enough to stay fast where macros multiply.
constexpr zun::PropertyListLimits kLimits{size_t{1} << 16, 64, 5'000};

void readEnvelope(const zun::Dictionary& envelope) {
  const auto signature = zun::base64Decode(envelope["signature"].stringValue());
  const auto bag = zun::base64Decode(envelope["bag"].stringValue());
  // Nobody can have signed it: the key is of this process.
  if (signature && bag) ZUN_CHECK(!key().verifySHA1Signature(*bag, *signature));
}

void readStorebag(const zun::Dictionary& storebag) {
  FormattingLog log;
  const zun::Dictionary expanded = zun::expandSharedValues(storebag, log);
  const zun::Dictionary* shared = storebag["shared_values"].dictionary();
  const bool hasMacros = shared != nullptr && !shared->empty();
  ZUN_CHECK(hasMacros != expanded.contains("shared_values") || !storebag.contains("shared_values"));
  static_cast<void>(zun::estimatedObjectSize(expanded));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto parsed = zun::parsePropertyList({reinterpret_cast<const char*>(data), size}, kLimits);
  const zun::Dictionary* fields = parsed ? parsed->dictionary() : nullptr;
  if (fields == nullptr) return 0;
  readEnvelope(*fields);
  readStorebag(*fields);
  return 0;
}
