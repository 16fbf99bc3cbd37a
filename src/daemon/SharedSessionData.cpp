#include "daemon/SharedSessionData.h"

#include "util/MemoryUse.h"

namespace zun {

namespace {

/// What the tables themselves cost per token, roughly.
constexpr int64_t kBytesPerTokenEntry = 256;

}  // namespace

SharedSessionData::SharedSessionData(SystemLog& log) : log_(log) {}

void SharedSessionData::update(const std::string& token, const Dictionary& sharedData) {
  const auto found = sharedData_.find(token);
  Dictionary updated = found == sharedData_.end() ? Dictionary() : found->second;
  updated.addEntries(sharedData);
  if (estimatedObjectSize(updated) > kMaximumBytesPerToken) {
    log_.error(
        "updateSharedDataForSession: shared data for hierarchyToken {} would exceed {} bytes, update dropped",
        token, kMaximumBytesPerToken);
    return;
  }
  sharedData_[token] = std::move(updated);
}

void SharedSessionData::remove(const std::string& token, const std::string& key) {
  if (const auto found = sharedData_.find(token); found != sharedData_.end()) found->second.remove(key);
}

std::optional<Dictionary> SharedSessionData::forToken(const std::string& token) const {
  const auto found = sharedData_.find(token);
  return found == sharedData_.end() ? std::nullopt : std::optional(found->second);
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
  const int64_t values = found == sharedData_.end() ? 0 : estimatedObjectSize(found->second);
  return kBytesPerTokenEntry + 2 * static_cast<int64_t>(token.size()) + values;
}

}  // namespace zun
