#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "connectivity/ReportingSessionConnectivityHelper.h"
#include "platform/Mutex.h"
#include "storebag/StorebagDiskCache.h"
#include "storebag/StorebagFetcher.h"
#include "storebag/StorebagVerifier.h"

namespace zun {

struct NetworkStorebagOptions {
  std::chrono::seconds requestTimeout{15};
  /// A synchronous fetch waits so much longer than the request's timeout, so that what
  /// the URL session says about it comes first.
  std::chrono::seconds grace{5};
};

/// Gets storebags from the disk cache and the storebag server.
///
///   file on disk ──verify──▶ given out; an expired one is refreshed behind the caller's
///                            back (If-Modified-Since) and serves later calls
///   no file ──GET, the caller waits──▶ verify, save, give out
///
/// Only what verifies is ever given out, whether it comes from the server, the disk or
/// the built-in fallback (which does not verify: "confero" then gets nothing, as the
/// others do).
///
/// Threading: any thread; one re-entrant lock serialises disk loads, freshness and
/// verification with saving, and is never held while the network is waited for.
/// Ownership: one per process, made by main; a request under way holds it weakly.
class NetworkStorebagFetcher final : public StorebagFetcher,
                                     public std::enable_shared_from_this<NetworkStorebagFetcher> {
 public:
  /// `platform` and `identity` outlive the fetcher.
  static std::shared_ptr<NetworkStorebagFetcher> create(const PlatformServices& platform,
                                                        const DeviceIdentity& identity,
                                                        NetworkStorebagOptions options = {});
  ~NetworkStorebagFetcher() override;

  // StorebagFetcher
  StorebagFetchOutcome fetchStorebagForEnvironmentAndClientType(int32_t clientType) override;
  std::optional<Date> modificationDateOfStorebagFile(std::string_view name) const override;

  /// A verified storebag with all its sections, or none; the outputs are always set.
  /// Blocks on the network when no file is cached.
  [[nodiscard]] std::optional<Dictionary> fetchStorebagWithName(std::string_view name, uint32_t& maxAge,
                                                                bool& unchanged);

  enum class Waiting : bool { kAsynchronous, kSynchronous };

  /// Downloads an envelope, verifies it and saves it. Synchronous: blocks, and gives its
  /// bytes (verified or not), the fallback's, or none. Asynchronous: returns none at
  /// once; a name is refreshed by one request at a time.
  std::optional<std::string> fetchNetworkStorebag(std::string_view name, Waiting waiting,
                                                  const std::optional<std::string>& lastModified);

  /// Base URL, without a trailing slash; asked of the user defaults on every call.
  [[nodiscard]] std::string storebagServerURL() const;

  /// A plain storebag for "confero", serialised; not an envelope.
  [[nodiscard]] static std::string fallbackStorebag();

 private:
  class Exchange;
  class LetGo;

  NetworkStorebagFetcher(const PlatformServices& platform, const DeviceIdentity& identity,
                         NetworkStorebagOptions options);
  StorebagFetchOutcome fetch(int32_t clientType);
  [[nodiscard]] std::optional<Dictionary> currentSection(const Dictionary& storebag, int32_t clientType);

  [[nodiscard]] URLRequest makeRequest(const std::string& name,
                                       const std::optional<std::string>& lastModified) const;
  void refresh(const std::string& name, const std::optional<std::string>& lastModified) EXCLUDES(lock_);
  std::optional<std::string> fetchSynchronously(const std::string& name,
                                                const std::optional<std::string>& lastModified)
      EXCLUDES(lock_);
  std::shared_ptr<Exchange> exchangeFor(const std::string& name,
                                        const std::optional<std::string>& lastModified) EXCLUDES(lock_);
  void forget(const std::string& name, const std::shared_ptr<Exchange>& exchange) EXCLUDES(lock_);
  void receive(const std::string& name, std::string_view body, const std::optional<URLResponse>& response,
               const std::optional<Error>& error) EXCLUDES(lock_);
  std::shared_ptr<ReportingSessionConnectivityHelper> fetchClient() EXCLUDES(lock_);

  const PlatformServices& platform_;
  const DeviceIdentity& identity_;
  const NetworkStorebagOptions options_;
  const StorebagDiskCache diskCache_;
  const StorebagVerifier verifier_;
  RecursiveMutex lock_;
  std::shared_ptr<ReportingSessionConnectivityHelper> fetchClient_ GUARDED_BY(lock_);
  std::set<std::string> refreshing_ GUARDED_BY(lock_);
  std::map<std::string, std::shared_ptr<Exchange>> exchanges_ GUARDED_BY(lock_);  // by name, while under way
};

}  // namespace zun
