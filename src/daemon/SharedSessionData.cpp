#include "daemon/SharedSessionData.h"

#include "util/MemoryUse.h"

namespace zun {

namespace {

/// What the tables themselves cost per token, roughly.
constexpr int64_t kBytesPerTokenEntry = 256;

/// The part that one entry has in its dictionary's table, roughly.
constexpr int64_t kBytesPerEntry = 64;

/// The same when an entry comes and when it goes. So the key counts with its length: the
/// one that names it at its end has another block than the one it came with.
int64_t bytesOfEntry(std::string_view key, const Value& value) {
  return kBytesPerEntry + static_cast<int64_t>(key.size()) + estimatedObjectSize(value);
}

}  // namespace

SharedSessionData::SharedSessionData(SystemLog& log) : log_(log) {}

void SharedSessionData::update(const std::string& token, const Dictionary& sharedData) {
  const auto found = sharedData_.find(token);
  const int64_t growth =
      found == sharedData_.end() ? TokenValues().growthBy(sharedData) : found->second.growthBy(sharedData);
  const int64_t bytes = found == sharedData_.end() ? 0 : found->second.entryBytes;
  if (bytes + growth > kMaximumBytesPerToken) {
    log_.error(
        "updateSharedDataForSession: shared data for hierarchyToken {} would exceed {} bytes, update dropped",
        token, kMaximumBytesPerToken);
    return;
  }
  TokenValues& kept = sharedData_[token];
  kept.values.addEntries(sharedData);
  kept.entryBytes += growth;
}

int64_t SharedSessionData::TokenValues::growthBy(const Dictionary& update) const {
  int64_t growth = 0;
  for (const auto& [key, value] : update) {
    growth += bytesOfEntry(key.stringValue(), value);
    if (const Value& former = values[key.stringValue()]; !former.isNone())
      growth -= bytesOfEntry(key.stringValue(), former);
  }
  return growth;
}

void SharedSessionData::remove(const std::string& token, const std::string& key) {
  const auto found = sharedData_.find(token);
  if (found == sharedData_.end()) return;
  TokenValues& kept = found->second;
  if (const Value& former = kept.values[key]; !former.isNone()) kept.entryBytes -= bytesOfEntry(key, former);
  kept.values.remove(key);
}

std::optional<Dictionary> SharedSessionData::forToken(const std::string& token) const {
  const auto found = sharedData_.find(token);
  return found == sharedData_.end() ? std::nullopt : std::optional(found->second.values);
}

std::list<std::string> SharedSessionData::tokenBecameIdle(const std::string& token) {
  tokenBecameBusy(token);
  const int64_t bytes = bytesKeptFor(token);
  idle_[token] = {idleOrder_.insert(idleOrder_.end(), token), bytes};
  idleBytes_ += bytes;

  std::list<std::string> givenUp;
  while (idleBytes_ > kMaximumIdleBytes && !idleOrder_.empty()) {
    givenUp.push_back(idleOrder_.front());
    removeToken(givenUp.back());
  }
  return givenUp;
}

void SharedSessionData::tokenBecameBusy(const std::string& token) {
  const auto found = idle_.find(token);
  if (found == idle_.end()) return;
  idleBytes_ -= found->second.bytes;
  idleOrder_.erase(found->second.place);
  idle_.erase(found);
}

void SharedSessionData::removeToken(const std::string& token) {
  tokenBecameBusy(token);
  sharedData_.erase(token);
}

int64_t SharedSessionData::bytesKeptFor(const std::string& token) const {
  const auto found = sharedData_.find(token);
  const int64_t tokenBytes = kBytesPerTokenEntry + 2 * static_cast<int64_t>(token.size());
  if (found == sharedData_.end()) return tokenBytes;
  // A table stays as large as it once was, whatever left it.
  return tokenBytes + found->second.entryBytes + static_cast<int64_t>(found->second.values.allocationSize());
}

}  // namespace zun
