#pragma once

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "linux/http/AnswerDecoder.h"
#include "linux/http/CurlURLSession.h"
#include "linux/http/CurlURLSessionTask.h"
#include "linux/http/ThroughputFloor.h"

namespace zun {

/// One libcurl handle and what it is doing. Used again for one task after the other:
///
///   idle ──begin──▶ under way (handle in the multi handle) ──end──▶ idle
///
/// Threading: the transfer thread only. Ownership: of the loop; shares the task.
class CurlURLSessionTransfer final {
 public:
  using Clock = std::chrono::steady_clock;

  /// `options` outlive the transfer.
  explicit CurlURLSessionTransfer(const CurlOptions& options);
  ~CurlURLSessionTransfer();
  CurlURLSessionTransfer(const CurlURLSessionTransfer&) = delete;
  CurlURLSessionTransfer& operator=(const CurlURLSessionTransfer&) = delete;

  [[nodiscard]] CURL* handle() const { return handle_; }
  [[nodiscard]] CurlURLSessionTask& task() const { return *task_; }

  /// Sets the handle up for `task`; false when libcurl has no memory for it.
  [[nodiscard]] bool begin(std::shared_ptr<CurlURLSessionTask> task);

  /// When to ask whether the task's time is over, unless something moves before.
  [[nodiscard]] Clock::time_point deadline() const { return std::min(timeLimit(), floor_.deadline()); }
  [[nodiscard]] bool isOver(Clock::time_point now) {
    return timeLimit() <= now || floor_.isMissed(now, movedBytes_);
  }
  /// A request went out, if only in part.
  [[nodiscard]] bool hasSentRequest() const { return isConnected_; }
  /// How many of its requests went out a second time.
  [[nodiscard]] unsigned timesSentAgain() const { return timesSentAgain_; }

  /// What came since the last call.
  CurlDelivery takeDelivery() { return std::exchange(delivery_, {}); }
  /// The last delivery of a transfer that libcurl ended.
  CurlDelivery endWith(CURLcode code);
  /// The last delivery of a transfer that the loop ended.
  CurlDelivery endWith(Error error);
  /// Lets go of the task, which is handed back, and of everything that was its own.
  std::shared_ptr<CurlURLSessionTask> end();

 private:
  using List = std::vector<std::pair<std::string, std::string>>;

  static size_t headerCame(char* bytes, size_t size, size_t count, void* self) noexcept;
  static size_t bodyCame(char* bytes, size_t size, size_t count, void* self) noexcept;
  static int noteTraffic(CURL* handle, curl_infotype type, char* bytes, size_t size, void* self) noexcept;
  static int progressed(void* self, curl_off_t total, curl_off_t received, curl_off_t toSend,
                        curl_off_t sent) noexcept;
  static int requestGoesOut(void* self, char* remoteAddress, char* localAddress, int remotePort,
                            int localPort) noexcept;
  static curl_socket_t makeSocket(void* self, curlsocktype purpose, curl_sockaddr* address) noexcept;
  static int socketMade(void* self, curl_socket_t socket, curlsocktype purpose) noexcept;

  [[nodiscard]] Clock::time_point timeLimit() const {
    return std::min({lastProgress_ + idleTimeout_, task_->deadline(), wholeDeadline_});
  }
  void setConnectionOptions();
  void setRequestOptions();
  bool setHeaders();
  void connectionStands();
  void noteRequest();
  bool takeHeaderLine(std::string_view line);
  void beginHead(std::string_view statusLine);
  bool takeBody(std::string_view bytes);
  bool takeDecoded(std::string_view bytes);
  [[nodiscard]] URLResponse makeResponse() const;
  [[nodiscard]] Error errorFor(CURLcode code) const;
  void noteProgress() { lastProgress_ = Clock::now(); }
  void noteBytesSent(int64_t sent);

  const CurlOptions& options_;
  CURL* handle_;  // a new one for each transfer
  curl_slist* addresses_ = nullptr;
  std::array<char, CURL_ERROR_SIZE> message_{};

  std::shared_ptr<CurlURLSessionTask> task_;
  curl_slist* headers_ = nullptr;
  curl_slist* bodilessHeaders_ = nullptr;  // for a POST that a redirect turns into a GET
  std::chrono::milliseconds idleTimeout_{0};
  Clock::time_point lastProgress_;
  bool isConnected_ = false;
  Clock::time_point wholeDeadline_ = Clock::time_point::max();  // set once connected
  ThroughputFloor floor_;                                       // an upload's, once connected
  int64_t movedBytes_ = 0;                                      // both ways

  bool isUnanswered_ = false;  // a request has gone out
  unsigned timesSentAgain_ = 0;

  int32_t status_ = 0;
  List responseHeaders_;
  int64_t headBytes_ = 0;
  bool isHeadComplete_ = false;
  bool isResponseTold_ = false;
  bool isTooLarge_ = false;
  bool hasLostBody_ = false;  // to a redirect
  std::string problem_;       // the answer's
  bool decodes_ = false;
  std::optional<AnswerDecoder> decoder_;  // once there is a body
  int64_t bodyBytes_ = 0;                 // as they came
  int64_t rawBytes_ = 0;                  // of all bodies, redirects' included, in their chunks
  int64_t decodedBytes_ = 0;
  int64_t toldBytesSent_ = 0;
  curl_off_t seenReceived_ = 0;
  curl_off_t seenSent_ = 0;
  CurlDelivery delivery_;
};

}  // namespace zun
