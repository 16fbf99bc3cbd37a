// What servers answer: status, headers, folded lines, codings, redirects, cache headers. A
// request ends once, whatever comes, and what is told of the answer can be used as it is.
//
// It runs in a network of its own: an answer may redirect to anywhere.

#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "FuzzCheck.h"
#include "FuzzInput.h"
#include "FuzzWorld.h"
#include "linux/files/FileDescriptor.h"
#include "storebag/StorebagDiskCache.h"

namespace {

constexpr std::string_view kEndOfHead = "\r\n\r\n";
constexpr char kTLSHandshake = 0x16;

void enterOwnNetwork() {
  check(::unshare(CLONE_NEWNET) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0,
        "no network of its own");
  const zun::FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq loopback{};
  std::strcpy(loopback.ifr_name, "lo");
  loopback.ifr_flags = IFF_UP | IFF_RUNNING;
  check(::ioctl(socket.get(), SIOCSIFFLAGS, &loopback) == 0, "no loopback");
}

/// Tells once of the end, and keeps what was told.
class Observer final : public zun::URLSessionDelegate {
 public:
  void didReceiveResponse(zun::URLSession&, zun::URLSessionTask&, const zun::URLResponse& response) override {
    check(ends == 0, "nothing follows the end");
    judge(response);
  }
  void didReceiveData(zun::URLSession&, zun::URLSessionTask&, std::string bytes) override {
    check(ends == 0 && !bytes.empty(), "bytes come before the end");
    received += bytes.size();
    check(received <= size_t{16} << 20, "a body is bounded");
  }
  void didSendBodyData(zun::URLSession&, zun::URLSessionTask&, int64_t, int64_t) override {}
  void didCompleteWithError(zun::URLSession&, zun::URLSessionTask&,
                            const std::optional<zun::URLResponse>& response,
                            const std::optional<zun::Error>& error) override {
    check(++ends == 1, "a task ends once");
    check(response || error, "an end without a cause");
    if (response) judge(*response);
    const bool hasStatus = response && response->statusCode >= 100 && response->statusCode < 1000;
    check(error || hasStatus, "a success has a status of three digits");
    last = response;
    signal();
  }
  void didBecomeInvalidWithError(zun::URLSession&, const std::optional<zun::Error>&) override { signal(); }

  /// Becomes readable at the end of the task, and again at that of the session.
  [[nodiscard]] int event() const { return event_.get(); }

  int ends = 0;
  size_t received = 0;
  std::optional<zun::URLResponse> last;

 private:
  static void judge(const zun::URLResponse& response) {
    for (const auto& [name, value] : response.headers) {
      check((name + value).find_first_of("\r\n") == std::string::npos, "a header is one line");
    }
    check(response.description().find('\n') == std::string::npos, "a description is one line");
  }
  void signal() const {
    const uint64_t one = 1;
    check(::write(event_.get(), &one, sizeof one) == sizeof one, "event");
  }

  const zun::FileDescriptor event_{::eventfd(0, EFD_CLOEXEC | EFD_SEMAPHORE)};
};

/// Answers each connection with the next of the input's parts, and closes it.
class Server final {
 public:
  Server() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(kPort);
    check(::bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "bind");
    check(::listen(socket_.get(), 16) == 0, "listen");
  }

  void serveUntil(int event, std::string_view answers) {
    for (;;) {
      pollfd waiting[] = {{event, POLLIN, 0}, {socket_.get(), POLLIN, 0}};
      // The fuzzer's own timer interrupts it now and then.
      check(TEMP_FAILURE_RETRY(::poll(waiting, 2, 20'000)) > 0, "a request ends");
      if (waiting[1].revents != 0) answerOne(answers);
      if (waiting[0].revents == 0) continue;
      uint64_t count = 0;
      check(::read(event, &count, sizeof count) == sizeof count, "event");
      return;
    }
  }

  static constexpr uint16_t kPort = 8099;

 private:
  void answerOne(std::string_view& answers) {
    const zun::FileDescriptor client(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    std::string request;
    char chunk[4096];
    while (request.find(kEndOfHead) == std::string::npos) {
      const ssize_t count = ::recv(client.get(), chunk, sizeof chunk, 0);
      if (count <= 0) return;
      request.append(chunk, static_cast<size_t>(count));
      if (request.front() == kTLSHandshake) return;  // a redirect to https
    }
    const size_t end = answers.find('\0');
    const std::string_view answer = answers.substr(0, end);
    answers.remove_prefix(end == std::string_view::npos ? answers.size() : end + 1);
    static_cast<void>(::send(client.get(), answer.data(), answer.size(), MSG_NOSIGNAL));
  }

  const zun::FileDescriptor socket_;
};

void keepFreshness(FuzzWorld& world, const zun::URLResponse& response) {
  if (!response.header("Cache-Control") && !response.header("Last-Modified")) return;
  const zun::StorebagDiskCache cache(world.services_, world.identity_);
  const auto metrics = cache.stageMetrics("confero", response);  // and dropped
  check(metrics.lastModified == response.header("Last-Modified"), "Last-Modified is kept as it came");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 16'384) return 0;
  static const bool isInside = (enterOwnNetwork(), true);
  static auto& world = *new FuzzWorld;
  static auto& server = *new Server;
  static_cast<void>(isInside);
  FuzzInput input(data, size);
  zun::URLRequest request;
  request.url = "http://127.0.0.1:" + std::to_string(Server::kPort) + "/a";
  request.timeout = std::chrono::seconds(5);
  if (input.byte() % 2 == 0) {
    request.method = "POST";
    request.body = std::make_shared<const std::string>("{}");
  }
  const auto observer = std::make_shared<Observer>();
  {
    const auto session = world.platform_.urlSessions.makeSession(
        {}, observer, zun::SerialQueue::create("fuzz", world.platform_.workers));
    const auto task = session->dataTaskWithRequest(request);
    check(static_cast<bool>(task), "a task");
    (*task)->resume();
    server.serveUntil(observer->event(), input.rest());
    session->finishTasksAndInvalidate();
    server.serveUntil(observer->event(), "");
  }
  if (observer->last) keepFreshness(world, *observer->last);
  world.run();
  return 0;
}
