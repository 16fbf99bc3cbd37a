#include "linux/http/CurlURLSessionTransfer.h"

#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>

#include "values/Check.h"
#include "values/UTF8.h"

namespace zun {
namespace {

constexpr int64_t kMaxHeadBytes = 256 << 10;
constexpr long kMaxRedirects = 10;
constexpr std::chrono::seconds kDefaultIdleTimeout{60};
constexpr std::chrono::minutes kDefaultWholeTimeout{10};
// Usual servers close what has idled for a minute or longer, some after half of one.
constexpr long kLongestIdleSeconds = 20;
constexpr int kBackgroundTrafficClass = IPTOS_CLASS_CS1;

bool append(curl_slist*& list, const std::string& line) {
  curl_slist* longer = curl_slist_append(list, line.c_str());
  if (longer == nullptr) return false;
  list = longer;
  return true;
}

bool describesBody(std::string_view name) {
  return equalsIgnoringASCIICase(name, "Content-Length") || equalsIgnoringASCIICase(name, "Content-Type") ||
         equalsIgnoringASCIICase(name, "Content-Encoding");
}

bool isBackground(const URLSessionConfiguration& configuration) {
  return configuration.kind == URLSessionConfiguration::Kind::kBackground ||
         configuration.networkServiceType == URLSessionConfiguration::NetworkServiceType::kBackground;
}

URLSessionError classOf(CURLcode code) {
  switch (code) {
    case CURLE_URL_MALFORMAT:
    case CURLE_UNSUPPORTED_PROTOCOL: return URLSessionError::kBadURL;
    case CURLE_OPERATION_TIMEDOUT: return URLSessionError::kTimedOut;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY: return URLSessionError::kCannotFindHost;
    case CURLE_COULDNT_CONNECT:
    case CURLE_PROXY:
    case CURLE_INTERFACE_FAILED: return URLSessionError::kCannotConnect;
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR: return URLSessionError::kConnectionLost;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_USE_SSL_FAILED: return URLSessionError::kSecureConnectionFailed;
    case CURLE_TOO_MANY_REDIRECTS: return URLSessionError::kTooManyRedirects;
    case CURLE_BAD_CONTENT_ENCODING:
    case CURLE_WEIRD_SERVER_REPLY: return URLSessionError::kBadServerResponse;
    default: return URLSessionError::kUnknown;
  }
}

}  // namespace

CurlURLSessionTransfer::CurlURLSessionTransfer(const CurlOptions& options)
    : options_(options), handle_(curl_easy_init()) {
  ZUN_CHECK(handle_ != nullptr);
  for (const std::string& address : options.hostAddresses) append(addresses_, address);
}

CurlURLSessionTransfer::~CurlURLSessionTransfer() {
  curl_easy_cleanup(handle_);
  curl_slist_free_all(headers_);
  curl_slist_free_all(bodilessHeaders_);
  curl_slist_free_all(addresses_);
}

bool CurlURLSessionTransfer::begin(std::shared_ptr<CurlURLSessionTask> task) {
  task_ = std::move(task);
  message_.front() = '\0';
  const std::chrono::seconds asked = task_->request().timeout;
  idleTimeout_ = options_.idleTimeout.value_or(asked.count() > 0 ? asked : kDefaultIdleTimeout);
  idleTimeout_ = std::min(idleTimeout_, options_.resourceTimeout);
  noteProgress();
  if (!setHeaders()) return false;
  setConnectionOptions();
  setRequestOptions();
  return true;
}

std::shared_ptr<CurlURLSessionTask> CurlURLSessionTransfer::end() {
  // Reset, it would still remember the last header of the answer, which has been freed: the
  // next answer, beginning with a folded line, would be joined to it.
  curl_easy_cleanup(std::exchange(handle_, curl_easy_init()));
  ZUN_CHECK(handle_ != nullptr);
  curl_slist_free_all(std::exchange(headers_, nullptr));
  curl_slist_free_all(std::exchange(bodilessHeaders_, nullptr));
  status_ = 0;
  responseHeaders_.clear();
  headBytes_ = bodyBytes_ = decodedBytes_ = toldBytesSent_ = 0;
  isHeadComplete_ = isResponseTold_ = isTooLarge_ = hasLostBody_ = false;
  problem_.clear();
  decoder_.reset();
  seenReceived_ = seenSent_ = movedBytes_ = rawBytes_ = 0;
  isConnected_ = isUnanswered_ = false;
  timesSentAgain_ = 0;
  wholeDeadline_ = Clock::time_point::max();
  floor_ = {};
  delivery_ = {};
  return std::move(task_);
}

void CurlURLSessionTransfer::setConnectionOptions() {
  const auto set = [this](CURLoption option, auto value) { curl_easy_setopt(handle_, option, value); };
  set(CURLOPT_PRIVATE, this);
  set(CURLOPT_ERRORBUFFER, message_.data());
  set(CURLOPT_NOSIGNAL, 1L);
  // A name that is still being looked up must not hold up the transfer thread.
  set(CURLOPT_QUICK_EXIT, 1L);
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(CURLOPT_SSL_VERIFYPEER, 1L);
  set(CURLOPT_SSL_VERIFYHOST, 2L);
  set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  if (!options_.caFile.empty()) {
    set(CURLOPT_CAINFO, options_.caFile.c_str());
    set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
  }
  if (addresses_ != nullptr) set(CURLOPT_RESOLVE, addresses_);
  // Our own loopback is nowhere a proxy could reach.
  if (task_->target().isLoopback) set(CURLOPT_PROXY, "");
  // The idle limit ends a connection that does not come about.
  set(CURLOPT_CONNECTTIMEOUT, static_cast<long>(std::chrono::hours(24 * 7) / std::chrono::seconds(1)));
  set(CURLOPT_MAXAGE_CONN, kLongestIdleSeconds);
  set(CURLOPT_OPENSOCKETFUNCTION, &makeSocket);
  set(CURLOPT_PREREQFUNCTION, &requestGoesOut);
  set(CURLOPT_PREREQDATA, this);
  if (isBackground(task_->configuration())) {
    // The class belongs to the connection, so nobody else may share it.
    set(CURLOPT_SOCKOPTFUNCTION, &socketMade);
    set(CURLOPT_SOCKOPTDATA, this);
    set(CURLOPT_FRESH_CONNECT, 1L);
    set(CURLOPT_FORBID_REUSE, 1L);
  }
}

void CurlURLSessionTransfer::setRequestOptions() {
  const auto set = [this](CURLoption option, auto value) { curl_easy_setopt(handle_, option, value); };
  const URLRequest& request = task_->request();
  set(CURLOPT_URL, request.url.c_str());
  set(CURLOPT_FOLLOWLOCATION, 1L);
  set(CURLOPT_MAXREDIRS, kMaxRedirects);
  set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  set(CURLOPT_HTTPHEADER, headers_);
  set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  if (request.body || request.method == "POST") {
    set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(task_->bodyBytes()));
    set(CURLOPT_POSTFIELDS, request.body ? request.body->data() : "");
    if (request.method != "POST") set(CURLOPT_CUSTOMREQUEST, request.method.c_str());
  } else if (request.method == "HEAD") {
    set(CURLOPT_NOBODY, 1L);
  } else if (request.method != "GET") {
    set(CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }

  set(CURLOPT_HEADERFUNCTION, &headerCame);
  set(CURLOPT_HEADERDATA, this);
  set(CURLOPT_WRITEFUNCTION, &bodyCame);
  set(CURLOPT_WRITEDATA, this);
  set(CURLOPT_XFERINFOFUNCTION, &progressed);
  set(CURLOPT_XFERINFODATA, this);
  set(CURLOPT_NOPROGRESS, 0L);
  set(CURLOPT_DEBUGFUNCTION, &noteTraffic);
  set(CURLOPT_DEBUGDATA, this);
  set(CURLOPT_VERBOSE, 1L);
}

// The request's own headers in their order, after the coding that is decoded here: libcurl
// would decode as many as a server cares to name, within one call. It adds Host and the
// length of the body; every other header of its own is taken back.
bool CurlURLSessionTransfer::setHeaders() {
  const URLRequest& request = task_->request();
  const bool sendsBody = request.body != nullptr || request.method == "POST";
  const std::string length = std::to_string(task_->bodyBytes());
  bool hasLength = false;
  bool hasType = false;
  bool hasAccept = false;
  decodes_ = std::none_of(request.headers.begin(), request.headers.end(), [](auto& header) {
    return equalsIgnoringASCIICase(header.first, "Accept-Encoding");
  });
  constexpr const char* kAccepted = "Accept-Encoding: gzip";
  if (decodes_ && !(append(headers_, kAccepted) && append(bodilessHeaders_, kAccepted))) return false;
  for (const auto& [name, value] : request.headers) {
    if (equalsIgnoringASCIICase(name, "Expect") || equalsIgnoringASCIICase(name, "Transfer-Encoding"))
      continue;
    if (equalsIgnoringASCIICase(name, "Content-Length")) {
      if (!sendsBody || hasLength || trimmed(value) != length) continue;
      hasLength = true;
    }
    hasType = hasType || equalsIgnoringASCIICase(name, "Content-Type");
    hasAccept = hasAccept || equalsIgnoringASCIICase(name, "Accept");
    const std::string line = trimmed(value).empty() ? name + ";" : name + ": " + value;
    if (!append(headers_, line)) return false;
    if (!describesBody(name) && !append(bodilessHeaders_, line)) return false;
  }
  if (!hasAccept && !(append(headers_, "Accept:") && append(bodilessHeaders_, "Accept:"))) return false;
  if (!hasType && !append(headers_, "Content-Type:")) return false;
  return append(headers_, "Expect:");
}

int CurlURLSessionTransfer::requestGoesOut(void* self, char*, char*, int, int) noexcept {
  static_cast<CurlURLSessionTransfer*>(self)->noteRequest();
  return CURL_PREREQFUNC_OK;
}

// libcurl sends a request again, in silence and up to five times, when its kept connection
// closes without a line of an answer. A server may have taken it each time, so: once, and
// over a fresh connection, which is not given a second chance. The other kept ones are
// likely to have gone as well.
void CurlURLSessionTransfer::noteRequest() {
  if (!isConnected_) connectionStands();
  if (isUnanswered_) ++timesSentAgain_;
  isUnanswered_ = true;
  curl_easy_setopt(handle_, CURLOPT_FRESH_CONNECT, 1L);
}

void CurlURLSessionTransfer::connectionStands() {
  isConnected_ = true;
  const URLRequest& request = task_->request();
  if (request.transferClass == TransferClass::kUpload) {
    floor_.begin(Clock::now());
  } else if (!request.wholeTimeout) {
    wholeDeadline_ = Clock::now() + kDefaultWholeTimeout;
  }
}

size_t CurlURLSessionTransfer::headerCame(char* bytes, size_t size, size_t count, void* self) noexcept {
  try {
    const bool taken =
        static_cast<CurlURLSessionTransfer*>(self)->takeHeaderLine(std::string_view(bytes, size * count));
    return taken ? size * count : 0;
  } catch (...) {
    return 0;
  }
}

bool CurlURLSessionTransfer::takeHeaderLine(std::string_view whole) {
  // A stray line break or NUL inside is a blank (RFC 9110, 5.5): no request could carry it on.
  std::string line(trimmed(whole, "\r\n"));
  std::replace_if(
      line.begin(), line.end(), [](char byte) { return byte == '\r' || byte == '\0'; }, ' ');
  noteProgress();
  headBytes_ += static_cast<int64_t>(whole.size());
  if (headBytes_ > kMaxHeadBytes) {
    isTooLarge_ = true;
    return false;
  }
  if (bodyBytes_ > 0) return true;  // a trailer
  // For libcurl a line that begins with a carriage return ends the head, whatever follows.
  const bool isEndOfHead = whole.starts_with('\r') || trimmed(line).empty();
  if (!isEndOfHead && line.starts_with("HTTP/")) {
    beginHead(line);
  } else if (isEndOfHead) {
    isHeadComplete_ = true;
    problem_ = status_ < 100 || status_ > 999 ? "the answer has no status"  // libcurl makes one up
                                              : AnswerDecoder::transferProblem(makeResponse()).value_or("");
    return problem_.empty();
  } else if (line.front() == ' ' || line.front() == '\t') {
    if (!responseHeaders_.empty()) responseHeaders_.back().second.append(" ").append(trimmed(line));
  } else if (const size_t colon = line.find(':'); colon != std::string_view::npos) {
    const std::string_view text = line;
    responseHeaders_.emplace_back(trimmed(text.substr(0, colon)), trimmed(text.substr(colon + 1)));
  }
  return true;
}

// An answer may have several heads: provisional ones, redirects, the one that counts.
void CurlURLSessionTransfer::beginHead(std::string_view statusLine) {
  status_ = 0;
  isHeadComplete_ = isUnanswered_ = false;
  responseHeaders_.clear();
  const size_t space = statusLine.find(' ');
  if (space != std::string_view::npos)
    std::from_chars(statusLine.data() + space + 1, statusLine.data() + statusLine.size(), status_);

  const char* scheme = nullptr;
  curl_easy_getinfo(handle_, CURLINFO_SCHEME, &scheme);
  if (scheme != nullptr && equalsIgnoringASCIICase(scheme, "https"))
    curl_easy_setopt(handle_, CURLOPT_REDIR_PROTOCOLS_STR, "https");
  if (status_ >= 301 && status_ <= 303 && task_->request().method == "POST") {
    hasLostBody_ = true;
    curl_easy_setopt(handle_, CURLOPT_HTTPHEADER, bodilessHeaders_);
  }
}

size_t CurlURLSessionTransfer::bodyCame(char* bytes, size_t size, size_t count, void* self) noexcept {
  try {
    const bool taken =
        static_cast<CurlURLSessionTransfer*>(self)->takeBody(std::string_view(bytes, size * count));
    return taken ? size * count : 0;
  } catch (...) {
    return 0;
  }
}

bool CurlURLSessionTransfer::takeBody(std::string_view bytes) {
  noteProgress();
  if (!isResponseTold_) {
    isResponseTold_ = true;
    delivery_.response = makeResponse();
  }
  if (!decoder_) decoder_.emplace(makeResponse(), decodes_);
  bodyBytes_ += static_cast<int64_t>(bytes.size());
  if (bodyBytes_ > options_.maxResponseBytes) {
    isTooLarge_ = true;
    return false;
  }
  return decoder_->take(bytes, [this](std::string_view decoded) { return takeDecoded(decoded); });
}

bool CurlURLSessionTransfer::takeDecoded(std::string_view bytes) {
  decodedBytes_ += static_cast<int64_t>(bytes.size());
  if (decodedBytes_ > options_.maxResponseBytes) {
    isTooLarge_ = true;
    return false;
  }
  delivery_.data.append(bytes);
  return true;
}

// A redirect's body and what chunks say of themselves are seen nowhere else.
int CurlURLSessionTransfer::noteTraffic(CURL*, curl_infotype type, char*, size_t size, void* self) noexcept {
  if (type == CURLINFO_DATA_IN)
    static_cast<CurlURLSessionTransfer*>(self)->rawBytes_ += static_cast<int64_t>(size);
  return 0;
}

int CurlURLSessionTransfer::progressed(void* self, curl_off_t, curl_off_t received, curl_off_t,
                                       curl_off_t sent) noexcept {
  auto& transfer = *static_cast<CurlURLSessionTransfer*>(self);
  if (transfer.rawBytes_ > 2 * transfer.options_.maxResponseBytes) {
    transfer.isTooLarge_ = true;
    return 1;
  }
  if (received == transfer.seenReceived_ && sent == transfer.seenSent_) return 0;
  transfer.movedBytes_ += std::max<int64_t>(received - transfer.seenReceived_, 0) +
                          std::max<int64_t>(sent - transfer.seenSent_, 0);
  transfer.seenReceived_ = received;
  transfer.seenSent_ = sent;
  transfer.noteProgress();
  transfer.noteBytesSent(sent);
  return 0;
}

void CurlURLSessionTransfer::noteBytesSent(int64_t sent) {
  sent = std::min(sent, task_->bodyBytes());
  if (sent <= toldBytesSent_) return;
  toldBytesSent_ = sent;
  delivery_.bytesSent = sent;
}

// libcurl would make it non-blocking by another call, and go on with it if that fails: the
// transfer thread would stand still in the first read.
curl_socket_t CurlURLSessionTransfer::makeSocket(void*, curlsocktype, curl_sockaddr* address) noexcept {
  return ::socket(address->family, address->socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, address->protocol);
}

int CurlURLSessionTransfer::socketMade(void*, curl_socket_t socket, curlsocktype) noexcept {
  const int trafficClass = kBackgroundTrafficClass;
  // One of them fits the socket's family.
  ::setsockopt(socket, IPPROTO_IP, IP_TOS, &trafficClass, sizeof trafficClass);
  ::setsockopt(socket, IPPROTO_IPV6, IPV6_TCLASS, &trafficClass, sizeof trafficClass);
  return CURL_SOCKOPT_OK;
}

URLResponse CurlURLSessionTransfer::makeResponse() const {
  const char* url = nullptr;
  curl_easy_getinfo(handle_, CURLINFO_EFFECTIVE_URL, &url);
  return {url == nullptr ? std::string() : std::string(url), status_, responseHeaders_};
}

CurlDelivery CurlURLSessionTransfer::endWith(CURLcode code) {
  // libcurl takes an answer for whole that ends within its head.
  if (code == CURLE_OK && !isHeadComplete_)
    return endWith(urlError(URLSessionError::kConnectionLost, "the answer breaks off within its head"));
  if (code != CURLE_OK || (decoder_ && !decoder_->isWhole())) return endWith(errorFor(code));
  curl_off_t sent = 0;
  curl_easy_getinfo(handle_, CURLINFO_SIZE_UPLOAD_T, &sent);
  noteBytesSent(sent);
  const bool isSuccess = status_ >= 200 && status_ < 300;
  if (isSuccess && !hasLostBody_ && sent < task_->bodyBytes())
    return endWith(urlError(URLSessionError::kConnectionLost, "the server has not taken the whole body"));
  CurlDelivery last = takeDelivery();
  URLResponse response = makeResponse();
  if (!isResponseTold_) last.response = response;
  last.end = CurlDelivery::End{std::move(response), std::nullopt};
  return last;
}

CurlDelivery CurlURLSessionTransfer::endWith(Error error) {
  CurlDelivery last = takeDelivery();
  std::optional<URLResponse> response;
  if (isHeadComplete_ && status_ >= 200) response = makeResponse();
  if (response && !isResponseTold_) last.response = response;
  last.end = CurlDelivery::End{std::move(response), std::move(error)};
  return last;
}

Error CurlURLSessionTransfer::errorFor(CURLcode code) const {
  std::string text = message_.front() != '\0' ? message_.data() : curl_easy_strerror(code);
  if (isTooLarge_) return urlError(URLSessionError::kResponseTooLarge, "the answer is too large");
  const std::string& problem = decoder_ ? decoder_->problem() : problem_;
  if (!problem.empty()) return urlError(URLSessionError::kBadServerResponse, problem);
  URLSessionError kind = classOf(code);
  if (code == CURLE_UNSUPPORTED_PROTOCOL) {
    // The first URL's scheme was looked at before: this is a redirect, or no HTTP at all.
    long redirects = 0;
    curl_easy_getinfo(handle_, CURLINFO_REDIRECT_COUNT, &redirects);
    const bool isRedirect = status_ >= 300 && status_ < 400 && redirects > 0;
    kind = isRedirect ? URLSessionError::kSecureConnectionFailed : URLSessionError::kBadServerResponse;
    if (isRedirect) text = "the redirect leads to a protocol that is not allowed: " + text;
  }
  return urlError(kind, std::move(text));
}

}  // namespace zun
