#pragma once

#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "connectivity/ReportingSessionConnectivityHelper.h"
#include "platform/Mutex.h"
#include "storebag/AcceptedSerials.h"
#include "storebag/StorebagDiskCache.h"
#include "storebag/StorebagFetcher.h"
#include "storebag/StorebagVerifier.h"

namespace zun {

struct NetworkStorebagOptions {
  std::chrono::seconds requestTimeout{15};  // without progress
  /// From when there is a route to the end. A server that sends a byte now and then would
  /// hold its storebag up for days.
  std::chrono::milliseconds wholeTimeout = std::chrono::seconds(120);
  /// A synchronous fetch waits so much longer than the request's timeout, so that what
  /// the URL session says about it comes first. It does not wait for ever: a request
  /// without a route never times out.
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
/// Of one name there is one request at a time, and who wants the same joins it. One to
/// another server, or that asks for less, is cancelled first.
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
  void outcomeNoted(std::string_view name, const StorebagFetchOutcome& outcome) override;
  void cancelFetches() override;

  /// Base URL, without a trailing slash; asked of the user defaults on every call.
  [[nodiscard]] std::string storebagServerURL() const;

  /// A plain storebag for "confero", serialised; not an envelope.
  [[nodiscard]] static std::string fallbackStorebag();

 private:
  struct DownloadEnd {
    std::string body;
    int32_t statusCode = 0;
    std::optional<Error> error;
  };
  struct Download;
  struct CachedEnvelope {
    std::string bytes;
    bool isExpired = false;
    std::optional<std::string> lastModified = {};  // to ask for changes since
  };
  struct VerifiedEnvelope {
    std::string bag;
    StorebagDiskCache::StagedEnvelope staged;
  };

  NetworkStorebagFetcher(const PlatformServices& platform, const DeviceIdentity& identity,
                         NetworkStorebagOptions options);
  void fetch(int32_t clientType, StorebagFetchOutcome& outcome);
  [[nodiscard]] std::optional<Dictionary> currentSection(const Dictionary& storebag, int32_t clientType);

  /// A verified storebag with all its sections, or none; the maximum age and "unchanged"
  /// are always set.
  [[nodiscard]] std::optional<Dictionary> fetchStorebagWithName(std::string_view name,
                                                                StorebagFetchOutcome& outcome)
      EXCLUDES(lock_);
  [[nodiscard]] std::optional<CachedEnvelope> cachedEnvelope(std::string_view name,
                                                             StorebagFetchOutcome& outcome) EXCLUDES(lock_);
  [[nodiscard]] std::optional<Dictionary> judge(std::string_view name,
                                                const std::optional<std::string>& envelope, bool isFromDisk,
                                                StorebagFetchOutcome& outcome) EXCLUDES(lock_);
  /// The server's bytes (verified or not), the fallback's, or none.
  [[nodiscard]] std::optional<std::string> fetchSynchronously(std::string_view name) EXCLUDES(lock_);
  std::shared_future<DownloadEnd> download(std::string_view name, const std::string& url,
                                           const std::optional<std::string>& lastModified) EXCLUDES(lock_);
  [[nodiscard]] std::string urlOf(std::string_view name) const;
  [[nodiscard]] URLRequest makeRequest(const Download& download) const;
  void receive(const std::string& name, const Download& download, const DownloadEnd& end,
               const std::optional<URLResponse>& response) EXCLUDES(lock_);
  /// None for what does not verify. Waits for the disk.
  [[nodiscard]] std::optional<VerifiedEnvelope> verifyAndStage(std::string_view name,
                                                               std::string_view envelope) const
      EXCLUDES(lock_);
  std::shared_ptr<ReportingSessionConnectivityHelper> fetchClient() EXCLUDES(lock_);

  const PlatformServices& platform_;
  const DeviceIdentity& identity_;
  const NetworkStorebagOptions options_;
  const StorebagDiskCache diskCache_;
  AcceptedSerials serials_;
  const StorebagVerifier verifier_;
  RecursiveMutex lock_;
  std::shared_ptr<ReportingSessionConnectivityHelper> fetchClient_ GUARDED_BY(lock_);
  std::map<std::string, std::weak_ptr<Download>, std::less<>> downloads_
      GUARDED_BY(lock_);  // the last of a name
  /// Dates, by name, of the last file that did not verify or has a successor, which may not
  /// have been saved: that nothing has changed is no answer for it.
  std::map<std::string, std::optional<Date>, std::less<>> uselessFiles_ GUARDED_BY(lock_);
  bool isStopping_ GUARDED_BY(lock_) = false;
};

}  // namespace zun
