#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zun {

using TestHeaders = std::vector<std::pair<std::string, std::string>>;

/// Holds answers back until the test opens it.
class TestGate final {
 public:
  void open();
  [[nodiscard]] bool isOpen() const;

 private:
  friend class HTTPSTestServer;
  mutable std::mutex mutex_;
  bool open_ = false;
};

/// A request as it came over the wire.
struct TestRequest {
  std::string method;
  std::string target;  // path and query
  std::string path;
  std::string query;    // without the question mark
  TestHeaders headers;  // in the order received, letter case kept
  std::string body;     // raw: nothing is decoded
  int connection = 0;   // 1 for the server's first connection, and so on

  /// Letter case of the name is ignored; the first of several wins.
  [[nodiscard]] std::optional<std::string> header(std::string_view name) const;
};

/// What the server does about one request.
struct TestAnswer {
  enum class Ending {
    kKeepAlive,
    kClose,           // the whole answer, then closes
    kCloseMidAnswer,  // the head and half of the body, then closes
    kNoAnswer,        // closes without a byte
    kNever,           // keeps the connection and says nothing
    kStallMidAnswer,  // the head and half of the body, then says nothing more
    kDrip,            // the head, then a byte every few milliseconds that promises more
  };

  int status = 200;
  std::string body = {};
  TestHeaders headers = {};  // Content-Length is added unless it or Transfer-Encoding is here
  Ending ending = Ending::kKeepAlive;
  int64_t fillerBytes = 0;              // that many more bytes follow the body
  std::shared_ptr<TestGate> gate = {};  // none: at once
  std::optional<std::string> raw = {};  // sent instead of everything above

  static TestAnswer redirect(const std::string& location, int status = 302);
  static TestAnswer ended(Ending ending);
};

/// A real HTTP/1.1 server over TLS on a free port of 127.0.0.1. It keeps every request
/// and answers as told, badly too. A path that it was told nothing about gets 404.
///
/// Threading: any thread; each connection is served by its own thread.
/// Lifecycle: serves from construction to `stop` or destruction.
class HTTPSTestServer final {
 public:
  enum class Transport { kTrusted, kUntrusted, kExpired, kWrongHost, kPlain };
  using Handler = std::function<TestAnswer(const TestRequest&)>;
  static constexpr std::chrono::seconds kDeadline{60};

  explicit HTTPSTestServer(Transport transport = Transport::kTrusted);
  ~HTTPSTestServer();
  HTTPSTestServer(const HTTPSTestServer&) = delete;
  HTTPSTestServer& operator=(const HTTPSTestServer&) = delete;

  /// Ends every connection and frees the port. More calls do nothing.
  void stop();

  [[nodiscard]] uint16_t port() const { return port_; }
  [[nodiscard]] std::string url(const std::string& path, const std::string& host = "127.0.0.1") const;
  /// PEM file of the authority behind the trusted, expired and wrong-host certificates.
  [[nodiscard]] static const std::string& caFile();

  /// Answers requests for `path` (without query) so, every time.
  void answer(const std::string& path, TestAnswer answer);
  /// Answers in this order; the last one goes on for ever.
  void answerInOrder(const std::string& path, std::vector<TestAnswer> answers);
  /// Answers as soon as the head is there. What follows is read and let go of, unless the
  /// answer closes.
  void answerBeforeTheBody(const std::string& path, TestAnswer answer);
  /// `handler` runs on the connection's thread.
  void handle(const std::string& path, Handler handler);
  /// For paths that have nothing of their own.
  void handleOthers(Handler handler);

  [[nodiscard]] std::vector<TestRequest> requests() const;
  [[nodiscard]] std::vector<TestRequest> requestsFor(const std::string& path) const;
  /// Waits until `count` requests came in all; false when the deadline passed.
  [[nodiscard]] bool waitForRequests(size_t count, std::chrono::milliseconds deadline = kDeadline) const;
  void clearRequests();

  /// Connections accepted so far, and those of them that got through TLS.
  [[nodiscard]] int connectionsAccepted() const;
  [[nodiscard]] int connectionsEstablished() const;
  /// Waits until the TLS handshakes of `count` connections have failed.
  [[nodiscard]] bool waitForFailedHandshakes(int count, std::chrono::milliseconds deadline = kDeadline) const;

 private:
  struct State;
  class Connection;

  const std::unique_ptr<State> state_;
  const Transport transport_;
  uint16_t port_ = 0;
};

}  // namespace zun
