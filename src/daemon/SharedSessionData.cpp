#include "daemon/SharedSessionData.h"

#include "util/MemoryUse.h"

namespace zun {

namespace {

/// The part that one entry has in its dictionary's table, roughly.
constexpr int64_t kBytesPerEntry = 64;

/// The same when an entry comes and when it goes. So the key counts with its length: the
/// one that names it at its end has another block than the one it came with.
int64_t bytesOfEntry(std::string_view key, const Value& value) {
  return kBytesPerEntry + static_cast<int64_t>(key.size()) + estimatedObjectSize(value);
}

}  // namespace

bool SharedSessionData::update(const Dictionary& sharedData, const std::string& token, SystemLog& log) {
  const int64_t growth = growthBy(sharedData);
  if (entryBytes_ + growth > kMaximumBytes) {
    log.error(
        "updateSharedDataForSession: shared data for hierarchyToken {} would exceed {} bytes, update dropped",
        token, kMaximumBytes);
    return false;
  }
  values_.addEntries(sharedData);
  entryBytes_ += growth;
  return true;
}

int64_t SharedSessionData::growthBy(const Dictionary& update) const {
  int64_t growth = 0;
  for (const auto& [key, value] : update) {
    growth += bytesOfEntry(key.stringValue(), value);
    if (const Value& former = values_[key.stringValue()]; !former.isNone())
      growth -= bytesOfEntry(key.stringValue(), former);
  }
  return growth;
}

void SharedSessionData::remove(const std::string& key) {
  if (const Value& former = values_[key]; !former.isNone()) entryBytes_ -= bytesOfEntry(key, former);
  values_.remove(key);
}

int64_t SharedSessionData::bytes() const {
  // The table stays as large as it once was, whatever left it.
  return entryBytes_ + static_cast<int64_t>(values_.allocationSize());
}

}  // namespace zun
