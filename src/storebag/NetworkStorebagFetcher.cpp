#include "storebag/NetworkStorebagFetcher.h"

#include <cmath>
#include <condition_variable>
#include <exception>
#include <mutex>

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

/// One GET as its waiting callers see it: it ends once.
class NetworkStorebagFetcher::Exchange final {
 public:
  explicit Exchange(std::string urlToAsk) : url(std::move(urlToAsk)) {}

  const std::string url;

  struct End {
    std::string body;
    int32_t statusCode = 0;
    std::optional<Error> error;
  };

  void finish(End end) {
    const std::lock_guard lock(mutex_);
    if (end_) return;
    end_ = std::move(end);
    ended_.notify_all();
  }

  /// The end, or none after `limit`.
  std::optional<End> wait(std::chrono::seconds limit) {
    std::unique_lock lock(mutex_);
    if (!ended_.wait_for(lock, limit, [this] { return end_.has_value(); })) return std::nullopt;
    return end_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable ended_;
  std::optional<End> end_;  // never changes once it is there
};

/// Runs a function when the completion that holds it is let go, called or not: the
/// connectivity helper drops requests without a word.
class NetworkStorebagFetcher::LetGo final {
 public:
  explicit LetGo(UniqueFunction<void()> function) : function_(std::move(function)) {}
  LetGo(LetGo&&) noexcept = default;
  LetGo& operator=(LetGo&&) = delete;
  ~LetGo() {
    if (function_) function_();
  }

 private:
  UniqueFunction<void()> function_;
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
      verifier_(platform, diskCache_) {}

NetworkStorebagFetcher::~NetworkStorebagFetcher() {
  const RecursiveMutexLock lock(lock_);
  if (fetchClient_) fetchClient_->invalidate();
}

StorebagFetchOutcome NetworkStorebagFetcher::fetchStorebagForEnvironmentAndClientType(int32_t clientType) {
  try {
    return fetch(clientType);
  } catch (const std::exception&) {
    platform_.log.error(
        "fetchStorebagForEnvironmentAndClientType: Could not fetch storebag for client type {}", clientType);
    return {};
  }
}

StorebagFetchOutcome NetworkStorebagFetcher::fetch(int32_t clientType) {
  StorebagFetchOutcome outcome;
  const auto name = storebagNameForClientType(clientType);
  if (!name) {
    platform_.log.error(
        "fetchStorebagForEnvironmentAndClientType: Could not find storebag name for client type {}",
        clientType);
    return outcome;
  }
  const auto storebag = fetchStorebagWithName(*name, outcome.maxAgeSeconds, outcome.unchanged);
  if (!storebag) {
    if (!outcome.unchanged) {
      platform_.log.error(
          "fetchStorebagForEnvironmentAndClientType: Could not fetch storebag for client type {}",
          clientType);
    }
    return outcome;
  }
  auto section = currentSection(*storebag, clientType);
  if (!section) return outcome;
  const Value& releaseTimeout = (*storebag)["release_timeout"];
  if (!releaseTimeout.isNone()) section->set(Value::literal("release_timeout"), releaseTimeout);
  if (const auto version = (*storebag)["version"].string()) outcome.version = std::string(*version);
  const Value& refreshCycle = (*storebag)["refresh_cycle"];
  if (!refreshCycle.isNone()) {
    const int32_t seconds = refreshCycle.int32Value();
    const int32_t maxAge = seconds < kLongestRefreshCycle ? seconds : kLongestRefreshCycle;
    outcome.maxAgeSeconds = static_cast<uint32_t>(maxAge);
    platform_.log.note("fetchStorebagForEnvironmentAndClientType: Store bag override MaxAge={}", maxAge);
  }
  outcome.section = std::move(section);
  return outcome;
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
        "fetchStorebagForEnvironmentAndClientType: Could not find storebag for client type {} with {} "
        "environment",
        clientType, name.value_or("(null)"));
    return std::nullopt;
  }
  return *section;
}

std::optional<Date> NetworkStorebagFetcher::modificationDateOfStorebagFile(std::string_view name) const {
  return diskCache_.modificationDateOfStorebagFile(name);
}

std::optional<Dictionary> NetworkStorebagFetcher::fetchStorebagWithName(std::string_view name,
                                                                        uint32_t& maxAge, bool& unchanged) {
  maxAge = 0;
  unchanged = false;
  std::optional<std::string> lastModified;
  std::optional<std::string> envelope;
  bool isExpired = false;
  {
    const RecursiveMutexLock lock(lock_);
    envelope = diskCache_.loadStorebagFromDisk(name);
    if (envelope) {
      diskCache_.getLastLoadedStorebagMetricsWithName(name, &maxAge, &unchanged, &lastModified);
      const Date now = platform_.clock.now();
      const Date modified = diskCache_.modificationDateOfStorebagFile(name).value_or(now);
      const double age = std::fabs(now.secondsSince1970 - modified.secondsSince1970);
      isExpired = age > static_cast<double>(static_cast<int32_t>(maxAge));
      platform_.log.note(
          "fetchStorebagWithName: storebag '{}' loaded from disk cache. Disk cache {} refreshed", name,
          isExpired ? "expired and will be" : "is valid and will not be");
    }
  }
  if (!envelope) {
    envelope = fetchNetworkStorebag(name, Waiting::kSynchronous, std::nullopt);
  } else if (isExpired) {
    fetchNetworkStorebag(name, Waiting::kAsynchronous, lastModified);
  }
  const RecursiveMutexLock lock(lock_);
  diskCache_.getLastLoadedStorebagMetricsWithName(name, &maxAge, &unchanged, nullptr);
  if (unchanged || !envelope) return std::nullopt;
  return verifier_.verifyAndParse(name, *envelope, SaveToDisk::kNo);
}

std::optional<std::string> NetworkStorebagFetcher::fetchNetworkStorebag(
    std::string_view name, Waiting waiting, const std::optional<std::string>& lastModified) {
  if (waiting == Waiting::kSynchronous) return fetchSynchronously(std::string(name), lastModified);
  refresh(std::string(name), lastModified);
  return std::nullopt;
}

URLRequest NetworkStorebagFetcher::makeRequest(const std::string& name,
                                               const std::optional<std::string>& lastModified) const {
  URLRequest request;
  request.url =
      fmt::format("{}/{}?version={}", storebagServerURL(), name, versionOrDefault(platform_.bundle));
  platform_.log.debug("fetchNetworkStorebag: Storebag Server URL: {}", request.url);
  request.timeout = options_.requestTimeout;
  if (lastModified) {
    platform_.log.debug("fetchNetworkStorebag: Adding 'Last-Modified: {}' to the header", *lastModified);
    request.setHeader("If-Modified-Since", *lastModified);
  }
  return request;
}

// Refreshes the file for later calls. Without the check, each lookup of an expired file
// would add a request while the server takes its time.
void NetworkStorebagFetcher::refresh(const std::string& name,
                                     const std::optional<std::string>& lastModified) {
  {
    const RecursiveMutexLock lock(lock_);
    if (!refreshing_.insert(name).second) return;
  }
  LetGo ended([fetcher = weak_from_this(), name] {
    const auto self = fetcher.lock();
    if (!self) return;
    const RecursiveMutexLock lock(self->lock_);
    self->refreshing_.erase(name);
  });
  URLRequest request = makeRequest(name, lastModified);
  fetchClient()->getURLRequestWithCompletionHandler(
      std::move(request),
      [fetcher = weak_from_this(), name, ended = std::move(ended)](
          std::string body, const std::optional<URLResponse>& response, const std::optional<Error>& error) {
        if (const auto self = fetcher.lock()) self->receive(name, body, response, error);
      });
}

std::optional<std::string> NetworkStorebagFetcher::fetchSynchronously(
    const std::string& name, const std::optional<std::string>& lastModified) {
  const std::shared_ptr<Exchange> exchange = exchangeFor(name, lastModified);
  // A request that waits for a network keeps its timeout for later; its caller does not
  // wait with it. What it brings in the end still goes to the disk cache.
  auto end = exchange->wait(options_.requestTimeout + options_.grace);
  if (!end) end = Exchange::End{{}, 0, failure(URLSessionError::kTimedOut, "the request timed out")};
  if (!end->error && end->statusCode == kStatusOK) return std::move(end->body);
  platform_.log.note(
      "fetchNetworkStorebag: Error resolving with lookup server {}, sendSynchronousRequest "
      "error {}",
      exchange->url, end->error ? end->error->description : "(null)");
  if (name != kNameWithFallback) return std::nullopt;
  platform_.log.note("fetchNetworkStorebag: Loading default storebag '{}'", name);
  return fallbackStorebag();
}

// Joins the request of an earlier caller that gave up waiting. Otherwise each attempt
// made without a network would leave one more request behind.
std::shared_ptr<NetworkStorebagFetcher::Exchange> NetworkStorebagFetcher::exchangeFor(
    const std::string& name, const std::optional<std::string>& lastModified) {
  URLRequest request;
  std::shared_ptr<Exchange> exchange;
  {
    const RecursiveMutexLock lock(lock_);
    const auto underWay = exchanges_.find(name);
    if (underWay != exchanges_.end()) return underWay->second;
    request = makeRequest(name, lastModified);
    exchange = std::make_shared<Exchange>(request.url);
    exchanges_.emplace(name, exchange);
  }
  // Forgotten before it ends: whoever hears of the end may ask anew at once.
  auto finish = [fetcher = weak_from_this(), name, exchange](Exchange::End end) {
    if (const auto self = fetcher.lock()) self->forget(name, exchange);
    exchange->finish(std::move(end));
  };
  LetGo ended([finish] { finish({{}, 0, failure(URLSessionError::kCancelled, "the request was dropped")}); });
  fetchClient()->getURLRequestWithCompletionHandler(
      std::move(request),
      [fetcher = weak_from_this(), name, finish, ended = std::move(ended)](
          std::string body, const std::optional<URLResponse>& response, const std::optional<Error>& error) {
        if (const auto self = fetcher.lock()) self->receive(name, body, response, error);
        finish({std::move(body), response ? response->statusCode : 0, error});
      });
  return exchange;
}

void NetworkStorebagFetcher::forget(const std::string& name, const std::shared_ptr<Exchange>& exchange) {
  const RecursiveMutexLock lock(lock_);
  const auto found = exchanges_.find(name);
  if (found != exchanges_.end() && found->second == exchange) exchanges_.erase(found);
}

// An answer of the server, on the fetch client's queue. The metrics are kept before the
// body has been verified: what the server said last is what it is asked about next.
void NetworkStorebagFetcher::receive(const std::string& name, std::string_view body,
                                     const std::optional<URLResponse>& response,
                                     const std::optional<Error>& error) {
  if (error || !response || response->statusCode != kStatusOK) {
    platform_.log.debug(
        "fetchNetworkStorebag: storebag '{}' does not need update as its content has not changed on the "
        "server",
        name);
    return;
  }
  const RecursiveMutexLock lock(lock_);
  diskCache_.saveLastLoadedStorebagMetricsWithName(name, *response);
  if (body.empty()) {
    platform_.log.debug("fetchNetworkStorebag: received zero-length storebag for '{}‘, treat as unchanged",
                        name);
    return;
  }
  try {
    static_cast<void>(verifier_.verifyAndParse(name, body, SaveToDisk::kYes));
  } catch (const std::exception& failure) {
    platform_.log.error("fetchStorebagWithName: propertyListWithData error {}", failure.what());
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
