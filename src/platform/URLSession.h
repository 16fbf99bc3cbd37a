#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/MemoryBudget.h"
#include "platform/Mutex.h"
#include "platform/SerialQueue.h"
#include "platform/UniqueFunction.h"
#include "values/Error.h"
#include "values/Result.h"

namespace zun {

enum class CellularAccess : bool { kForbidden, kAllowed };

/// Uploads have connections of their own, and may take as long as they keep their pace.
enum class TransferClass : bool { kOrdinary, kUpload };

/// Ends the requests that carry it: they complete with kCancelled, wherever they stand,
/// and so do those that are begun later. Any thread.
class URLRequestCancellation final {
 public:
  void cancel();
  [[nodiscard]] bool isCancelled() const;
  /// For the service that carries a request out: `handler` is called by `cancel`, or at
  /// once where that has been. It must not call back.
  void onCancel(UniqueFunction<void()> handler);

 private:
  mutable Mutex mutex_;
  bool isCancelled_ GUARDED_BY(mutex_) = false;
  std::vector<UniqueFunction<void()>> handlers_ GUARDED_BY(mutex_);
};

struct URLRequest {
  std::string url = {};
  std::string method = "GET";
  std::vector<std::pair<std::string, std::string>> headers = {};  // sent in this order
  std::shared_ptr<const std::string> body = {};                   // none: no body
  std::chrono::seconds timeout{60};                               // without progress
  /// Progress or not, from when nothing stands in the way (a route, power) to the end.
  /// None: ten minutes from when the connection stands; for an upload, as long as each
  /// minute after the first moves 1 KiB a second.
  std::optional<std::chrono::milliseconds> wholeTimeout = {};
  CellularAccess cellularAccess = CellularAccess::kAllowed;
  TransferClass transferClass = TransferClass::kOrdinary;
  BudgetHolder holder = {};                                   // whose share of all transfers it takes
  std::shared_ptr<URLRequestCancellation> cancellation = {};  // none: nobody ends it

  /// Replaces the header of that name (letter case ignored) or adds it.
  void setHeader(std::string_view name, std::string value);
};

struct URLResponse {
  std::string url = {};
  int32_t statusCode = 0;
  std::vector<std::pair<std::string, std::string>> headers = {};

  /// Letter case of the name is ignored; the first of several wins.
  [[nodiscard]] std::optional<std::string> header(std::string_view name) const;
  /// All of that name as one list; empty without one.
  [[nodiscard]] std::string headerList(std::string_view name) const;
  /// One line for logs.
  [[nodiscard]] std::string description() const;
};

/// Codes of errors in kURLErrorDomain.
enum class URLSessionError : int32_t {
  kUnknown = 1,
  kBadURL,
  kTimedOut,
  kCannotFindHost,
  kCannotConnect,
  kConnectionLost,
  kSecureConnectionFailed,  // the server's certificate does not verify, or TLS fails
  kTooManyRedirects,
  kResponseTooLarge,
  kCancelled,
  kCannotReadFile,
  kBadRequest,         // a method or header that cannot be sent
  kBadServerResponse,  // not HTTP, or a body that does not decode
  kTooManyTransfers,   // more tasks, or bytes to send, are under way than the service bears
};

struct URLSessionConfiguration {
  enum class Kind { kDefault, kBackground };
  enum class NetworkServiceType { kDefault, kBackground };

  Kind kind = Kind::kDefault;
  std::string identifier = {};  // of a background configuration
  NetworkServiceType networkServiceType = NetworkServiceType::kDefault;
  bool discretionary = false;
  bool requiresPowerPluggedIn = false;
  bool waitsForConnectivity = false;
  std::string sourceApplicationIdentifier = {};
};

/// One transfer. A task counts as its session's from its creation to its end; one that
/// is let go without ever being resumed has thereby ended, without a word. Any thread.
class URLSessionTask {
 public:
  virtual ~URLSessionTask() = default;

  /// The owner's name for the task; set before `resume`.
  virtual void setTaskDescription(std::string description) = 0;
  [[nodiscard]] virtual std::string taskDescription() const = 0;

  /// Starts the transfer. Once.
  virtual void resume() = 0;
};

class URLSession;

/// What a session tells its owner, one call at a time, on the delegate queue.
class URLSessionDelegate {
 public:
  virtual ~URLSessionDelegate() = default;

  /// The head of the answer is here; the body is loaded whatever the status.
  virtual void didReceiveResponse(URLSession& session, URLSessionTask& task, const URLResponse& response) = 0;
  virtual void didReceiveData(URLSession& session, URLSessionTask& task, std::string bytes) = 0;
  virtual void didSendBodyData(URLSession& session, URLSessionTask& task, int64_t totalBytesSent,
                               int64_t totalBytesExpected) = 0;
  /// The end of a task, once. `response` is none when no answer came.
  virtual void didCompleteWithError(URLSession& session, URLSessionTask& task,
                                    const std::optional<URLResponse>& response,
                                    const std::optional<Error>& error) = 0;
  /// A data task turned into a download. A service without downloads never says this.
  virtual void didBecomeDownloadTask(URLSession& /*session*/) {}
  /// The session has finished: nothing is called after this.
  virtual void didBecomeInvalidWithError(URLSession& session, const std::optional<Error>& error) = 0;
};

/// Makes transfers of one configuration, which share connections. Any thread.
///
/// Ownership: a session keeps its delegate until it has become invalid, and itself
/// until its tasks have ended.
class URLSession {
 public:
  virtual ~URLSession() = default;

  virtual void setSessionDescription(std::string description) = 0;
  [[nodiscard]] virtual std::string sessionDescription() const = 0;

  /// A task not started yet; an error after invalidation.
  virtual Result<std::shared_ptr<URLSessionTask>, Error> dataTaskWithRequest(URLRequest request) = 0;
  /// As above, with the file's bytes, as they are now, as the body. A file that cannot
  /// be read makes a task that completes with kCannotReadFile.
  virtual Result<std::shared_ptr<URLSessionTask>, Error> uploadTaskWithRequest(
      URLRequest request, const std::string& filePath) = 0;

  /// No new tasks; when the running ones have ended the delegate hears
  /// `didBecomeInvalidWithError`.
  virtual void finishTasksAndInvalidate() = 0;
};

/// The platform's URL-session service. Its end cancels the tasks that are left and
/// invalidates the sessions that still are valid.
class URLSessionService {
 public:
  virtual ~URLSessionService() = default;

  virtual std::shared_ptr<URLSession> makeSession(const URLSessionConfiguration& configuration,
                                                  std::shared_ptr<URLSessionDelegate> delegate,
                                                  std::shared_ptr<SerialQueue> delegateQueue) = 0;
};

}  // namespace zun
