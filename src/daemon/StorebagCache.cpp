#include "daemon/StorebagCache.h"

#include <cmath>

#include "storebag/ClientTypes.h"

namespace zun {

namespace {

constexpr std::string_view kData = "StorebagData";
constexpr std::string_view kVersion = "StorebagVersion";
constexpr std::string_view kFetchTime = "StorebagFetchTime";
constexpr std::string_view kFetchState = "StorebagFetchState";
constexpr std::string_view kMaxAge = "StorebagMaxAge";

constexpr std::string_view kSuccessful = "Fetch Successful";
constexpr std::string_view kFailure = "Fetch Failure";

Date fetchTimeOf(const Dictionary& entry) {
  return entry[kFetchTime].date().value_or(Date{});
}

std::optional<Dictionary> dataOf(const Dictionary& entry) {
  const Dictionary* const data = entry[kData].dictionary();
  return data == nullptr ? std::nullopt : std::optional(*data);
}

}  // namespace

StorebagCache::StorebagCache(StorebagFetcher& fetcher, const Clock& clock, SystemLog& log)
    : fetcher_(fetcher), clock_(clock), log_(log) {}

std::optional<Dictionary> StorebagCache::storebagForClientType(int32_t clientType) {
  const auto name = storebagNameForClientType(clientType);
  if (!name) {
    fetchAndCacheStorebag(clientType);  // reports the unknown type
    return std::nullopt;
  }

  const std::shared_ptr<Mutex> fetchLock = fetchLockOf(*name);
  const MutexLock turn(*fetchLock);
  if (const auto entry = entryNamed(*name)) {
    const auto diskDate = fetcher_.modificationDateOfStorebagFile(*name);
    switch (decide(*entry, clock_.now(), diskDate)) {
      case Decision::kFetchAsDiskIsNewer:
        log_.note(
            "storebagForSession: "
            "Override maxAge as disk cache for storebag '{}' was updated: modification time '{}' "
            "is greater than last fetch time '{}",
            *name, Value(*diskDate), (*entry)[kFetchTime]);
        break;
      case Decision::kServeFresh:
        log_.debug("storebagForSession: Cached storebag found for client type {}", clientType);
        return dataOf(*entry);
      case Decision::kServeWhileCooling:
        log_.note(
            "storebagForSession: "
            "Not fetching storebag for client type {} - must wait {} seconds between attempts",
            clientType, kFetchRetryInterval);
        return dataOf(*entry);
      case Decision::kFetch: break;
    }
  }
  fetchAndCacheStorebag(clientType);
  const auto entry = entryNamed(*name);
  return entry ? dataOf(*entry) : std::nullopt;
}

StorebagCache::Decision StorebagCache::decide(const Dictionary& entry, Date now,
                                              const std::optional<Date>& diskDate) {
  const Date fetchTime = fetchTimeOf(entry);
  const double age = std::abs(now.secondsSince1970 - fetchTime.secondsSince1970);
  const bool success = entry[kFetchState].stringValue() == kSuccessful;
  if (diskDate && *diskDate > fetchTime) return Decision::kFetchAsDiskIsNewer;
  if (success && age < entry[kMaxAge].int32Value()) return Decision::kServeFresh;
  if (!success && age < kFetchRetryInterval) return Decision::kServeWhileCooling;
  return Decision::kFetch;
}

void StorebagCache::fetchAndCacheStorebag(int32_t clientType) {
  log_.debug("fetchAndCacheStorebag: Fetching storebag for client type {}", clientType);
  const auto name = storebagNameForClientType(clientType);
  if (!name) {
    log_.error("fetchAndCacheStorebag: clientType {} is invalid", clientType);
    return;
  }

  const StorebagFetchOutcome outcome = fetcher_.fetchStorebagForEnvironmentAndClientType(clientType);
  log_.debug("fetchAndCacheStorebag: Storebag max age: {} seconds",
             static_cast<int32_t>(outcome.maxAgeSeconds));
  if (!outcome.section && !outcome.unchanged) {
    log_.error("fetchAndCacheStorebag: Unable to fetch storebag for client type {}", clientType);
  }

  note(*name, outcome);
  fetcher_.outcomeNoted(*name, outcome);
}

void StorebagCache::note(std::string_view name, const StorebagFetchOutcome& outcome) {
  const bool success = outcome.section.has_value() || outcome.unchanged;
  const MutexLock lock(mutex_);
  const Dictionary* const former = cachedStorebags_[name].dictionary();
  Dictionary entry = former == nullptr ? Dictionary() : *former;
  if (outcome.section) {
    entry.set(Value::literal(kData), *outcome.section);
    entry.set(Value::literal(kVersion), outcome.version ? Value(*outcome.version) : Value());
  }
  entry.set(Value::literal(kFetchTime), clock_.now());
  entry.set(Value::literal(kFetchState), Value::literal(success ? kSuccessful : kFailure));
  entry.set(Value::literal(kMaxAge), static_cast<int32_t>(outcome.maxAgeSeconds));
  cachedStorebags_.set(Value::literal(name), std::move(entry));
}

std::optional<std::string> StorebagCache::storebagVersionForClientType(int32_t clientType) const {
  const auto name = storebagNameForClientType(clientType);
  const auto entry = name ? entryNamed(*name) : std::nullopt;
  if (!entry || !(*entry)[kVersion].isString()) return std::nullopt;
  return std::string((*entry)[kVersion].stringValue());
}

Dictionary StorebagCache::entries() const {
  const MutexLock lock(mutex_);
  return cachedStorebags_;
}

std::optional<Dictionary> StorebagCache::entryNamed(std::string_view name) const {
  const MutexLock lock(mutex_);
  const Dictionary* const entry = cachedStorebags_[name].dictionary();
  return entry == nullptr ? std::nullopt : std::optional(*entry);
}

std::shared_ptr<Mutex> StorebagCache::fetchLockOf(std::string_view name) {
  const MutexLock lock(mutex_);
  auto& fetchLock = fetchLocks_[std::string(name)];
  if (fetchLock == nullptr) fetchLock = std::make_shared<Mutex>();
  return fetchLock;
}

}  // namespace zun
