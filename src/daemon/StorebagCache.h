#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/Clock.h"
#include "platform/Mutex.h"
#include "platform/SystemLog.h"
#include "storebag/StorebagFetcher.h"
#include "values/Value.h"

namespace zun {

/// Keeps one storebag per name in memory and decides when to fetch again.
///
///   no entry ──fetch──▶ fresh ──age ≥ maximum age──▶ stale ──request──▶ fetch
///                         ▲  └──────disk file newer─────────────────────▶ fetch
///   failed (cooling, < 900 s: last good bag) ──request after 900 s──────▶ fetch
///
/// There is no timer: an entry is looked at only when a session asks.
///
/// Threading: any thread. One name is never fetched twice at once; different names
/// never wait for each other.
/// Ownership: owned by the agent; the services outlive it.
class StorebagCache final {
 public:
  /// How long a failed attempt is left alone, in seconds.
  static constexpr int32_t kFetchRetryInterval = 900;

  StorebagCache(StorebagFetcher& fetcher, const Clock& clock, SystemLog& log);

  /// The storebag section to use for `clientType`, or none if there never was a good
  /// one. Blocks for a fetch when the entry is missing, stale or due.
  [[nodiscard]] std::optional<Dictionary> storebagForClientType(int32_t clientType);

  /// Version of the cached storebag, or none. Never fetches, never waits for a fetch.
  [[nodiscard]] std::optional<std::string> storebagVersionForClientType(int32_t clientType) const;

  /// A copy of the table: storebag name to entry.
  [[nodiscard]] Dictionary entries() const;

 private:
  enum class Decision { kServeFresh, kServeWhileCooling, kFetch, kFetchAsDiskIsNewer };

  static Decision decide(const Dictionary& entry, Date now, const std::optional<Date>& diskDate);
  void fetchAndCacheStorebag(int32_t clientType);
  /// `name`: one of the table of client types.
  void note(std::string_view name, const StorebagFetchOutcome& outcome) EXCLUDES(mutex_);
  /// The entry as it is now, or none.
  [[nodiscard]] std::optional<Dictionary> entryNamed(std::string_view name) const;
  [[nodiscard]] std::shared_ptr<Mutex> fetchLockOf(std::string_view name);

  StorebagFetcher& fetcher_;
  const Clock& clock_;
  SystemLog& log_;

  mutable Mutex mutex_;
  Dictionary cachedStorebags_ GUARDED_BY(mutex_);
  std::map<std::string, std::shared_ptr<Mutex>, std::less<>> fetchLocks_ GUARDED_BY(mutex_);
};

}  // namespace zun
