// The post's body, its headers, and what the server's answer means.

#include <array>
#include <cmath>
#include <new>
#include <utility>

#include "backends/HTTPSPostBackend.h"
#include "platform/Crypto.h"
#include "storebag/StorebagEnvironment.h"
#include "util/Compression.h"
#include "util/Conversions.h"
#include "values/JSONWriter.h"
#include "values/UTF8.h"
#include "zunreporting/Keys.h"

namespace zun {

namespace {

constexpr int32_t kHMACSHA1 = 0;  // the digest algorithm that there is

bool isClean(const Value& value) {
  return value.isString() || value.isInteger() || value.isBoolean() ||
         (value.isReal() && std::isfinite(value.doubleValue()));
}

/// Makes the records of one body such that JSON can carry them, and tells of what had
/// to go: a client decides how much that is, so only the first keys have their line.
class RecordCleaner final {
 public:
  explicit RecordCleaner(SystemLog& log) : log_(log) {}

  /// Most records are clean already and stay untouched.
  void clean(Dictionary& record) {
    std::vector<DictionaryEntry> unfit;
    for (const DictionaryEntry& entry : record) {
      if (!isClean(entry.value)) unfit.push_back(entry);
    }
    for (DictionaryEntry& entry : unfit) {
      if (const auto date = entry.value.date()) {
        record.set(std::move(entry.key), finiteOrMinusOne(date->secondsSince1970));
      } else {
        report(entry);
        record.remove(entry.key.stringValue());
      }
    }
  }

  /// After the last record.
  void reportOthers() const {
    if (removed_ <= kMaximumLines) return;
    log_.error("HTTPSPostBackend(createMessageForPostAndLogging): removed {} more such keys from this post",
               removed_ - kMaximumLines);
  }

 private:
  static constexpr size_t kMaximumLines = 20;  // per body

  void report(const DictionaryEntry& entry) {
    if (++removed_ > kMaximumLines) return;
    log_.error(
        "HTTPSPostBackend(createMessageForPostAndLogging): Textweave unable to handle key: {}, value: {}",
        entry.key, entry.value);
  }

  SystemLog& log_;
  size_t removed_ = 0;
};

/// `url` over https, whatever scheme it names. Text without a scheme stays as it is.
std::string securedURL(const std::string& url) {
  constexpr std::string_view kSeparator = "://";
  const size_t end = url.find(kSeparator);
  if (end == std::string::npos) return url;
  const std::string_view all = url;
  if (equalsIgnoringCase(all.substr(0, end), "https")) return url;
  const std::string_view rest = all.substr(end + kSeparator.size());
  return fmt::format("{}{}{}", "https", kSeparator, rest.substr(0, rest.find(kSeparator)));
}

/// "<1f2e3d4c 5b...>": the server compares text, so the blanks are part of it.
std::string digestText(const std::array<uint8_t, 20>& digest) {
  std::string text = "<";
  for (size_t i = 0; i < digest.size(); ++i) {
    if (i > 0 && i % 4 == 0) text += ' ';
    fmt::format_to(std::back_inserter(text), "{:02x}", digest[i]);
  }
  return text + ">";
}

/// Clients choose some of the text that goes into headers: nothing in it may end one.
std::string headerText(std::string_view text) {
  std::string safe;
  safe.reserve(text.size());
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte >= 0x20 && byte != 0x7F) safe += character;
  }
  return safe;
}

/// What is told of a post's events unless somebody has answered it: a helper that takes no
/// request lets go of the completion, and this with it, without a word.
class UnansweredPost final {
 public:
  UnansweredPost(std::shared_ptr<BackendObserver> observer, size_t events)
      : observer_(std::move(observer)), events_(events) {}
  UnansweredPost(UnansweredPost&&) noexcept = default;
  ~UnansweredPost() { isLost(EventLoss::kHelperRefused); }

  void isAnswered() { observer_ = nullptr; }
  void isLost(EventLoss cause) {
    if (const auto observer = std::exchange(observer_, nullptr)) observer->eventsWereLost(cause, events_);
  }

 private:
  std::shared_ptr<BackendObserver> observer_;  // null once it has been told, or need not be
  const size_t events_;
};

void handleResponse(const std::weak_ptr<ZunReportingBackend>& backend, const std::string& name,
                    SystemLog& log, const std::optional<URLResponse>& response,
                    const std::optional<Error>& error,
                    const ZunReportingBackend::FlushCompletion& completion) {
  if (error) log.error("HTTPSPostBackend(postJsonMessage): post error: {}", error->description);
  if (!response || response->statusCode < 500 || response->statusCode > 599) {
    if (completion) completion(std::nullopt, error);
    return;
  }
  const std::string text =
      fmt::format("backend {} disabled by server {} return code", name, response->statusCode);
  log.note("postJSONMessage: {}", text);
  if (const auto alive = backend.lock()) alive->setState(ZunBackendStateDisabled);
  if (completion) completion(std::nullopt, reportingError(text, response->statusCode));
}

}  // namespace

std::optional<std::string> HTTPSPostBackend::createMessageForPostAndLogging(
    std::vector<Dictionary> records, std::optional<std::string>* prettyJsonString) const try {
  const double postTime = finiteOrMinusOne(services_.platform.clock.now().secondsSince1970);
  Array events = Array::withCapacity(records.size());
  RecordCleaner cleaner(log());
  for (Dictionary& record : records) {
    cleaner.clean(record);
    events.append(std::move(record));
  }
  cleaner.reportOthers();
  Dictionary body = Dictionary::withCapacity(3);
  body.set(Value::literal("postTime"), postTime);
  // Servers tell a body without an identifier by its being empty but for the time.
  if (Value identifier = clientIdentifier(); !identifier.isNone()) {
    body.set(Value::literal("clientId"), std::move(identifier));
    body.set(Value::literal("events"), std::move(events));
  }
  const Value message(std::move(body));
  std::string json = writeJSON(message, JSONFormat::kCompact);
  if (prettyJsonString != nullptr && mayLogEvents()) {
    *prettyJsonString = writeJSON(message, JSONFormat::kPretty);
  }
  return json;
} catch (const std::bad_alloc&) {
  log().error("HTTPSPostBackend(createMessageForPostAndLogging): {}: no memory for a post of {} events",
              name_, records.size());
  return std::nullopt;
}

Value HTTPSPostBackend::clientIdentifier() const {
  if (extrasOnInternal_ != 0 && isInternal_) return udid_ ? Value(*udid_) : Value();
  if (uuidCustom_) return *uuidCustom_;
  return dnuType_ != kNoOverride ? uuidOverrideDnu_ : uuidRespectDnu_;
}

bool HTTPSPostBackend::mayLogEvents() const {
  if (dnuType_ == kNoOverride && dnuEnabled_) return true;
  if (!forceEventLogging_) return false;
  const uint32_t environment = userDefaultsEnvironment(services_.platform, services_.identity);
  return environment == kDevelopment || environment == kVantixInternal;
}

void HTTPSPostBackend::postJSONMessage(std::string json, int32_t flag, std::optional<uint16_t> method,
                                       std::optional<uint16_t> responseCode, FlushCompletion completion,
                                       size_t events) {
  UnansweredPost post(observer_, events);
  const std::optional<std::string>& url = flag == 1 || flag == 3 ? realtimePostURL_ : postURL_;
  if (!url) {
    post.isLost(EventLoss::kNoPostURL);
    if (completion) completion(std::nullopt, reportingError("postURL is nil"));
    return;
  }
  const auto helper = reportingSessionConnectivityDelegate_.lock();
  if (helper == nullptr) return post.isLost(EventLoss::kNoConnectivityHelper);
  URLRequest request =
      requestForPost(services_.identity.isInternalBuild() ? *url : securedURL(*url), method, responseCode);
  std::optional<std::string> compressed = gzipDeflate(json, log());
  const bool sendsCompressed = compressed && !compressed->empty() && compressed->size() < json.size();
  request.headers.emplace_back("Content-Length",
                               fmt::to_string(sendsCompressed ? compressed->size() : json.size()));
  if (sendsCompressed) request.headers.emplace_back("Content-Encoding", "gzip");
  if (digestKey_ && digestAlgorithm_ == kHMACSHA1) {
    request.headers.emplace_back("X-ZUN-DIGEST", digestText(hmacSHA1(*digestKey_, json)));
  }
  request.body =
      std::make_shared<const std::string>(sendsCompressed ? std::move(*compressed) : std::move(json));
  helper->postURLRequestWithCompletionHandler(
      std::move(request),
      [backend = weak_from_this(), name = name_, &logOfAll = log(), completion = std::move(completion),
       post = std::move(post)](std::string, const std::optional<URLResponse>& response,
                               const std::optional<Error>& error) mutable {
        post.isAnswered();
        handleResponse(backend, name, logOfAll, response, error, completion);
      });
}

URLRequest HTTPSPostBackend::requestForPost(const std::string& url, std::optional<uint16_t> method,
                                            std::optional<uint16_t> responseCode) const {
  URLRequest request;
  request.url = url;
  request.method = "POST";
  request.holder = services_.holder;
  request.cellularAccess = shouldUseWiFiOnly_ != 0 ? CellularAccess::kForbidden : CellularAccess::kAllowed;
  const auto add = [&request](const char* name, std::string_view value) {
    request.headers.emplace_back(name, headerText(value));
  };
  const Names names = namesFromUserInfo();
  if (names.client) add("X-ZUN-Client-Name", *names.client);
  if (names.service) add("X-ZUN-Service-Name", *names.service);
  if (isInternal_) add("X-ZUN-Internal-Build", "1");
  add("User-Agent",
      fmt::format("ZunReporting/{} ({}; {})", selfVersionText_, hardwareType_, productVersion_));
  add("X-ZUN-Client-Version", fmt::to_string(clientVersion_));
  add("X-ZUN-Sender", senderCode());
  if (method && responseCode) add("X-ZUN-Event-Map", fmt::format("{} {}", *method, *responseCode));
  add("Accept", "application/json");
  add("Content-Type", "application/json");
  return request;
}

}  // namespace zun
