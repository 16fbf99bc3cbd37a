#include "storebag/NetworkStorebagFetcher.h"

#include <algorithm>
#include <cmath>
#include <exception>

#include "storebag/ClientTypes.h"
#include "storebag/StorebagEnvironment.h"
#include "values/PropertyList.h"

namespace zun {

namespace {

constexpr std::string_view kNameWithFallback = "confero";
constexpr int32_t kLongestRefreshCycle = 86400;
constexpr uint32_t kFetchClientReleaseTimeout = 30;
constexpr int32_t kStatusOK = 200;

Error failure(URLSessionError code, const char* description) {
  return {kURLErrorDomain, static_cast<int32_t>(code), description};
}

}  // namespace

/// One GET. The completion of its request owns it; others wait for `ended`, which breaks
/// when the completion is let go uncalled: the fetch client drops requests without a word.
struct NetworkStorebagFetcher::Download {
  const std::string url;
  const std::optional<std::string> lastModified;
  const std::shared_ptr<URLRequestCancellation> cancellation = std::make_shared<URLRequestCancellation>();
  std::promise<DownloadEnd> end = {};
  const std::shared_future<DownloadEnd> ended = end.get_future().share();

  [[nodiscard]] bool isUnderWay() const {
    return ended.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
  }
  /// An unconditional answer serves those as well who ask for changes alone.
  [[nodiscard]] bool answers(const std::string& otherURL,
                             const std::optional<std::string>& otherLastModified) const {
    return url == otherURL && (!lastModified || lastModified == otherLastModified);
  }
};

std::shared_ptr<NetworkStorebagFetcher> NetworkStorebagFetcher::create(const PlatformServices& platform,
                                                                       const DeviceIdentity& identity,
                                                                       NetworkStorebagOptions options) {
  return std::shared_ptr<NetworkStorebagFetcher>(new NetworkStorebagFetcher(platform, identity, options));
}

NetworkStorebagFetcher::NetworkStorebagFetcher(const PlatformServices& platform,
                                               const DeviceIdentity& identity, NetworkStorebagOptions options)
    : platform_(platform),
      identity_(identity),
      options_(options),
      diskCache_(platform, identity),
      serials_(platform.defaults),
      verifier_(platform, diskCache_, serials_) {
  diskCache_.removeLeftovers();
}

NetworkStorebagFetcher::~NetworkStorebagFetcher() {
  const RecursiveMutexLock lock(lock_);
  if (fetchClient_) fetchClient_->invalidate();
}

StorebagFetchOutcome NetworkStorebagFetcher::fetchStorebagForEnvironmentAndClientType(int32_t clientType) {
  StorebagFetchOutcome outcome;
  try {
    fetch(clientType, outcome);
  } catch (const std::exception&) {
    platform_.log.error(
        "fetchStorebagForEnvironmentAndClientType: Could not fetch storebag for client type {}", clientType);
  }
  return outcome;
}

void NetworkStorebagFetcher::fetch(int32_t clientType, StorebagFetchOutcome& outcome) {
  const auto name = storebagNameForClientType(clientType);
  if (!name) {
    platform_.log.error(
        "fetchStorebagForEnvironmentAndClientType: Could not find storebag name for client type {}",
        clientType);
    return;
  }
  const auto storebag = fetchStorebagWithName(*name, outcome);
  if (!storebag) {
    if (!outcome.unchanged) {
      platform_.log.error(
          "fetchStorebagForEnvironmentAndClientType: Could not fetch storebag for client type {}",
          clientType);
    }
    return;
  }
  auto section = currentSection(*storebag, clientType);
  if (!section) return;
  const Value& releaseTimeout = (*storebag)["release_timeout"];
  if (!releaseTimeout.isNone()) section->set(Value::literal("release_timeout"), releaseTimeout);
  if (const auto version = (*storebag)["version"].string()) outcome.version = std::string(*version);
  const Value& refreshCycle = (*storebag)["refresh_cycle"];
  if (!refreshCycle.isNone()) {
    const int32_t maxAge = std::min(refreshCycle.nearestInt32Value(), kLongestRefreshCycle);
    outcome.maxAgeSeconds = static_cast<uint32_t>(maxAge);
    platform_.log.note("fetchStorebagForEnvironmentAndClientType: Store bag override MaxAge={}", maxAge);
  }
  outcome.section = std::move(section);
}

std::optional<Dictionary> NetworkStorebagFetcher::currentSection(const Dictionary& storebag,
                                                                 int32_t clientType) {
  const uint32_t environment = userDefaultsEnvironment(platform_, identity_);
  const auto name = environmentName(environment);
  const Dictionary* section = name ? storebag[*name].dictionary() : nullptr;
  if (section == nullptr && environment == kSeed) {
    platform_.log.error("fetchStorebagForEnvironmentAndClientType: Seed section is missing in the storebag.");
    section = storebag[*environmentName(kRelease)].dictionary();
  }
  if (section == nullptr) {
    platform_.log.error(
        "fetchStorebagForEnvironmentAndClientType: "
        "Could not find storebag for client type {} with {} environment",
        clientType, name.value_or("(null)"));
    return std::nullopt;
  }
  return *section;
}

std::optional<Date> NetworkStorebagFetcher::modificationDateOfStorebagFile(std::string_view name) const {
  return diskCache_.modificationDateOfStorebagFile(name);
}

std::optional<Dictionary> NetworkStorebagFetcher::fetchStorebagWithName(std::string_view name,
                                                                        StorebagFetchOutcome& outcome) {
  outcome.maxAgeSeconds = 0;
  outcome.unchanged = false;
  auto cached = cachedEnvelope(name, outcome);
  const auto envelope = cached ? std::optional(std::move(cached->bytes)) : fetchSynchronously(name);
  if (cached && cached->isExpired) download(name, urlOf(name), cached->lastModified);  // serves later calls
  auto storebag = judge(name, envelope, cached.has_value(), outcome);
  serials_.keep(name);
  // That nothing has changed since a file that is of no use would leave it so, and the next
  // lookup may be another process's.
  if (!storebag && cached && cached->isExpired && cached->lastModified) {
    download(name, urlOf(name), std::nullopt);
  }
  return storebag;
}

std::optional<NetworkStorebagFetcher::CachedEnvelope> NetworkStorebagFetcher::cachedEnvelope(
    std::string_view name, StorebagFetchOutcome& outcome) {
  const RecursiveMutexLock lock(lock_);
  auto bytes = diskCache_.loadStorebagFromDisk(name);
  outcome.fileDate = diskCache_.modificationDateOfStorebagFile(name);
  if (!bytes) return std::nullopt;
  CachedEnvelope cached{std::move(*bytes)};
  diskCache_.getLastLoadedStorebagMetricsWithName(name, &outcome.maxAgeSeconds, &outcome.unchanged,
                                                  &cached.lastModified);
  const Date now = platform_.clock.now();
  const Date modified = outcome.fileDate.value_or(now);
  const double age = std::fabs(now.secondsSince1970 - modified.secondsSince1970);
  cached.isExpired = age > static_cast<double>(static_cast<int32_t>(outcome.maxAgeSeconds));
  platform_.log.note("fetchStorebagWithName: storebag '{}' loaded from disk cache. Disk cache {} refreshed",
                     name, cached.isExpired ? "expired and will be" : "is valid and will not be");
  const auto useless = uselessFiles_.find(name);
  if (useless != uselessFiles_.end() && useless->second == outcome.fileDate) cached.lastModified.reset();
  return cached;
}

std::optional<Dictionary> NetworkStorebagFetcher::judge(std::string_view name,
                                                        const std::optional<std::string>& envelope,
                                                        bool isFromDisk, StorebagFetchOutcome& outcome) {
  const RecursiveMutexLock lock(lock_);
  diskCache_.getLastLoadedStorebagMetricsWithName(name, &outcome.maxAgeSeconds, &outcome.unchanged, nullptr);
  if (outcome.unchanged || !envelope) return std::nullopt;
  auto storebag = verifier_.verifyAndParse(name, *envelope);
  if (storebag && !isFromDisk) outcome.fileDate = diskCache_.modificationDateOfStorebagFile(name);
  if (!storebag && isFromDisk) uselessFiles_.insert_or_assign(std::string(name), outcome.fileDate);
  return storebag;
}

void NetworkStorebagFetcher::outcomeNoted(std::string_view name, const StorebagFetchOutcome& outcome) {
  const RecursiveMutexLock lock(lock_);
  const auto now = diskCache_.modificationDateOfStorebagFile(name);
  if (now && now != outcome.fileDate) diskCache_.dateStorebagFileLater(name);
}

std::optional<std::string> NetworkStorebagFetcher::fetchSynchronously(std::string_view name) {
  const std::string url = urlOf(name);
  const auto ended = download(name, url, std::nullopt);
  // A request that waits for a network keeps its time for later; its caller does not wait
  // with it. What it brings in the end still goes to the disk cache.
  DownloadEnd end{{}, 0, failure(URLSessionError::kTimedOut, "the request timed out")};
  if (ended.wait_for(options_.requestTimeout + options_.grace) == std::future_status::ready) {
    try {
      end = ended.get();
    } catch (const std::future_error&) {
      end.error = failure(URLSessionError::kCancelled, "the request was dropped");
    }
  }
  if (!end.error && end.statusCode == kStatusOK) return std::move(end.body);
  platform_.log.note(
      "fetchNetworkStorebag: Error resolving with lookup server {}, sendSynchronousRequest error {}", url,
      end.error ? end.error->description : "(null)");
  if (name != kNameWithFallback) return std::nullopt;
  platform_.log.note("fetchNetworkStorebag: Loading default storebag '{}'", name);
  return fallbackStorebag();
}

// Joins the request that is under way. Otherwise each lookup of an expired file would add
// one while the server takes its time, and each attempt made without a network.
std::shared_future<NetworkStorebagFetcher::DownloadEnd> NetworkStorebagFetcher::download(
    std::string_view name, const std::string& url, const std::optional<std::string>& lastModified) {
  const auto download = std::shared_ptr<Download>(new Download{url, lastModified});
  {
    const RecursiveMutexLock lock(lock_);
    if (isStopping_) return download->ended;
    std::weak_ptr<Download>& last = downloads_[std::string(name)];
    if (const auto other = last.lock(); other != nullptr && other->isUnderWay()) {
      if (other->answers(url, lastModified)) return other->ended;
      other->cancellation->cancel();
    }
    last = download;
  }
  fetchClient()->getURLRequestWithCompletionHandler(
      makeRequest(*download),
      [fetcher = weak_from_this(), name = std::string(name), download](
          std::string body, const std::optional<URLResponse>& response, const std::optional<Error>& error) {
        DownloadEnd end{std::move(body), response ? response->statusCode : 0, error};
        if (const auto self = fetcher.lock()) {
          self->receive(name, *download, end, response);
          // After the file: a kill between the two leaves one that is newer than it must be.
          self->serials_.keep(name);
        }
        download->end.set_value(std::move(end));
      });
  return download->ended;
}

void NetworkStorebagFetcher::cancelFetches() {
  const RecursiveMutexLock lock(lock_);
  isStopping_ = true;
  for (const auto& [name, last] : downloads_) {
    if (const auto download = last.lock()) download->cancellation->cancel();
  }
}

std::string NetworkStorebagFetcher::urlOf(std::string_view name) const {
  return fmt::format("{}/{}?version={}", storebagServerURL(), name, versionOrDefault(platform_.bundle));
}

URLRequest NetworkStorebagFetcher::makeRequest(const Download& download) const {
  URLRequest request;
  request.url = download.url;
  platform_.log.debug("fetchNetworkStorebag: Storebag Server URL: {}", request.url);
  request.timeout = options_.requestTimeout;
  request.wholeTimeout = options_.wholeTimeout;
  request.cancellation = download.cancellation;
  if (download.lastModified) {
    platform_.log.debug("fetchNetworkStorebag: Adding 'Last-Modified: {}' to the header",
                        *download.lastModified);
    request.setHeader("If-Modified-Since", *download.lastModified);
  }
  return request;
}

// An answer of the server, on the fetch client's queue. The metrics are kept whether the
// body verifies or not: what the server said last is what it is asked about next.
void NetworkStorebagFetcher::receive(const std::string& name, const Download& download,
                                     const DownloadEnd& end, const std::optional<URLResponse>& response) {
  if (end.error || !response || response->statusCode != kStatusOK) {
    platform_.log.debug(
        "fetchNetworkStorebag: "
        "storebag '{}' does not need update as its content has not changed on the server",
        name);
    return;
  }
  // What waits is done before the lock is taken, and after it, where these are let go of. The
  // metrics keep other processes from the settings: they come last and go first.
  const auto verified = verifyAndStage(name, end.body);
  const auto metrics = diskCache_.stageMetrics(name, *response);
  const RecursiveMutexLock lock(lock_);
  if (download.cancellation->isCancelled()) return;  // another server's answer is wanted by now
  diskCache_.saveLastLoadedStorebagMetricsWithName(name, metrics);
  if (end.body.empty()) {
    platform_.log.debug("fetchNetworkStorebag: received zero-length storebag for '{}‘, treat as unchanged",
                        name);
  }
  if (!verified) return;
  const auto former = diskCache_.modificationDateOfStorebagFile(name);
  try {
    if (verifier_.acceptBag(name, verified->bag, &verified->staged)) {
      uselessFiles_.insert_or_assign(name, former);  // whether it could be replaced or not
    }
  } catch (const std::exception& failure) {
    platform_.log.error("fetchStorebagWithName: propertyListWithData error {}", failure.what());
  }
}

std::optional<NetworkStorebagFetcher::VerifiedEnvelope> NetworkStorebagFetcher::verifyAndStage(
    std::string_view name, std::string_view envelope) const {
  if (envelope.empty()) return std::nullopt;
  try {
    auto bag = verifier_.verifiedBag(envelope);
    if (!bag) return std::nullopt;
    return VerifiedEnvelope{std::move(*bag), diskCache_.stageEnvelope(name, envelope)};
  } catch (const std::exception& failure) {
    platform_.log.error("fetchStorebagWithName: propertyListWithData error {}", failure.what());
    return std::nullopt;
  }
}

std::shared_ptr<ReportingSessionConnectivityHelper> NetworkStorebagFetcher::fetchClient() {
  const RecursiveMutexLock lock(lock_);
  if (!fetchClient_) {
    fetchClient_ = ReportingSessionConnectivityHelper::create(
        platform_, {}, ReportingSessionConnectivityHelper::GETRequestMode());
    fetchClient_->activate(kFetchClientReleaseTimeout);
  }
  return fetchClient_;
}

std::string NetworkStorebagFetcher::storebagServerURL() const {
  if (auto url = platform_.defaults.stringForKey(kReportingSuite, "zunreporting_storebag_url")) {
    return *std::move(url);
  }
  return identity_.isInternalBuild() ? ZUN_STOREBAG_URL_INTERNAL : ZUN_STOREBAG_URL_RELEASE;
}

std::string NetworkStorebagFetcher::fallbackStorebag() {
  const Dictionary section{{"kodo", Dictionary{{"active", true}}}};
  return serializeBinaryPropertyList(Dictionary{
      {"vantix_internal", section},
      {"development", section},
      {"release", section},
      {"version", "1.0.0-Confero-Fallback"},
      {"refresh_cycle", 3600},
  });
}

}  // namespace zun
