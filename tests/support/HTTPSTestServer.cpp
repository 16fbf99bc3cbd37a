#include "support/HTTPSTestServer.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <list>
#include <map>
#include <set>
#include <stdexcept>
#include <thread>

#include "support/TestCertificates.h"
#include "support/TestServerContext.h"

namespace zun {
namespace {

constexpr char kTLSHandshake = 0x16;
constexpr size_t kMaxBodyBytes = 256U << 20;

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::optional<std::string> find(const TestHeaders& headers, std::string_view name) {
  for (const auto& [key, value] : headers) {
    if (equalIgnoringCase(key, name)) return value;
  }
  return std::nullopt;
}

const TestCertificates::Identity& identityFor(HTTPSTestServer::Transport transport) {
  const TestCertificates& certificates = TestCertificates::shared();
  switch (transport) {
    case HTTPSTestServer::Transport::kUntrusted: return certificates.untrusted();
    case HTTPSTestServer::Transport::kExpired: return certificates.expired();
    case HTTPSTestServer::Transport::kWrongHost: return certificates.wrongHost();
    default: return certificates.trusted();
  }
}

// A peer that goes away must cost this thread its connection, not the process its life.
void blockPipeSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

std::string headOf(const TestAnswer& answer) {
  std::string head = "HTTP/1.1 " + std::to_string(answer.status) + " Test\r\n";
  for (const auto& [name, value] : answer.headers) head += name + ": " + value + "\r\n";
  const bool bodiless = answer.status == 204 || answer.status == 304;
  if (!bodiless && !find(answer.headers, "Content-Length") && !find(answer.headers, "Transfer-Encoding")) {
    const int64_t length = static_cast<int64_t>(answer.body.size()) + answer.fillerBytes;
    head += "Content-Length: " + std::to_string(length) + "\r\n";
  }
  if (answer.ending == TestAnswer::Ending::kClose) head += "Connection: close\r\n";
  return head + "\r\n";
}

}  // namespace

struct HTTPSTestServer::State {
  std::unique_ptr<SSL_CTX, SSLFreeing> context;  // none: plain
  int listener = -1;
  std::thread acceptor;

  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  bool stopping = false;
  std::map<std::string, std::deque<Handler>> handlers;
  std::set<std::string> early;  // paths whose bodies nobody waits for
  Handler others;
  std::vector<TestRequest> requests;
  std::list<std::unique_ptr<Connection>> connections;
  int accepted = 0;
  int established = 0;
  int failedHandshakes = 0;

  void accept();
  TestAnswer answerFor(const TestRequest& request);
};

/// One connection and its thread. Its socket is closed only after the thread has ended.
class HTTPSTestServer::Connection final {
 public:
  Connection(State& state, int socket, int number) : state_(state), socket_(socket), number_(number) {
    thread_ = std::thread([this] { serve(); });
  }
  ~Connection() {
    interrupt();
    thread_.join();
    ::close(socket_);
  }
  void interrupt() { ::shutdown(socket_, SHUT_RDWR); }

 private:
  void serve();
  bool establish();
  bool readRequest(TestRequest& request);
  bool isEarly(const TestRequest& request);
  bool readHead(TestRequest& request);
  bool readBody(TestRequest& request);
  bool readChunks(std::string& body);
  bool readLine(std::string& line);
  bool readExactly(size_t count, std::string& into);
  bool fill();
  bool send(std::string_view bytes);
  bool give(const TestAnswer& answer);
  bool sendContent(const TestAnswer& answer, int64_t limit);
  bool drip(const std::string& head);
  void waitForGate(const TestGate* gate);
  void waitUntilStopped();

  State& state_;
  const int socket_;
  const int number_;
  std::unique_ptr<SSL, SSLFreeing> ssl_;
  std::string buffer_;
  std::thread thread_;
};

void HTTPSTestServer::Connection::serve() {
  blockPipeSignal();
  if (establish()) {
    TestRequest request;
    while (readRequest(request)) {
      {
        const std::lock_guard lock(state_.mutex);
        state_.requests.push_back(request);
      }
      state_.changed.notify_all();
      if (!give(state_.answerFor(request))) break;
      if (isEarly(request)) {
        while (fill()) buffer_.clear();
        break;
      }
      request = {};
    }
    if (ssl_ != nullptr) SSL_shutdown(ssl_.get());
  }
  interrupt();
}

bool HTTPSTestServer::Connection::establish() {
  bool good = true;
  if (state_.context != nullptr) {
    ssl_.reset(SSL_new(state_.context.get()));
    SSL_set_fd(ssl_.get(), socket_);
    good = SSL_accept(ssl_.get()) == 1;
  }
  {
    const std::lock_guard lock(state_.mutex);
    ++(good ? state_.established : state_.failedHandshakes);
  }
  state_.changed.notify_all();
  return good;
}

bool HTTPSTestServer::Connection::fill() {
  char bytes[16384];
  const auto count = ssl_ != nullptr ? SSL_read(ssl_.get(), bytes, sizeof bytes)
                                     : static_cast<int>(::recv(socket_, bytes, sizeof bytes, 0));
  if (count <= 0) return false;
  buffer_.append(bytes, static_cast<size_t>(count));
  return true;
}

bool HTTPSTestServer::Connection::readLine(std::string& line) {
  size_t end = 0;
  while ((end = buffer_.find("\r\n")) == std::string::npos) {
    if (!fill()) return false;
  }
  line = buffer_.substr(0, end);
  buffer_.erase(0, end + 2);
  return true;
}

bool HTTPSTestServer::Connection::readExactly(size_t count, std::string& into) {
  while (buffer_.size() < count) {
    if (!fill()) return false;
  }
  into.append(buffer_, 0, count);
  buffer_.erase(0, count);
  return true;
}

bool HTTPSTestServer::Connection::readHead(TestRequest& request) {
  std::string line;
  if (buffer_.empty() && !fill()) return false;
  if (buffer_.front() == kTLSHandshake) {  // someone who takes us for a TLS server
    send("HTTP/1.1 400 Test\r\nConnection: close\r\n\r\n");
    return false;
  }
  if (!readLine(line)) return false;
  const size_t first = line.find(' ');
  const size_t second = line.rfind(' ');
  if (first == std::string::npos || second <= first) return false;
  request.method = line.substr(0, first);
  request.target = line.substr(first + 1, second - first - 1);
  const size_t question = request.target.find('?');
  request.path = request.target.substr(0, question);
  if (question != std::string::npos) request.query = request.target.substr(question + 1);
  while (readLine(line)) {
    if (line.empty()) return true;
    const size_t colon = line.find(':');
    if (colon == std::string::npos) return false;
    size_t start = line.find_first_not_of(" \t", colon + 1);
    if (start == std::string::npos) start = line.size();
    request.headers.emplace_back(line.substr(0, colon), line.substr(start));
  }
  return false;
}

bool HTTPSTestServer::Connection::readChunks(std::string& body) {
  std::string line;
  while (readLine(line)) {
    const size_t size = std::strtoul(line.c_str(), nullptr, 16);
    if (size > kMaxBodyBytes || !readExactly(size, body) || !readLine(line)) return false;
    if (size == 0) return true;
  }
  return false;
}

bool HTTPSTestServer::Connection::readBody(TestRequest& request) {
  if (find(request.headers, "Expect") && !send("HTTP/1.1 100 Continue\r\n\r\n")) return false;
  if (find(request.headers, "Transfer-Encoding")) return readChunks(request.body);
  const auto length = find(request.headers, "Content-Length");
  if (!length) return true;
  const size_t count = std::strtoul(length->c_str(), nullptr, 10);
  return count <= kMaxBodyBytes && readExactly(count, request.body);
}

bool HTTPSTestServer::Connection::readRequest(TestRequest& request) {
  request.connection = number_;
  return readHead(request) && (isEarly(request) || readBody(request));
}

bool HTTPSTestServer::Connection::isEarly(const TestRequest& request) {
  const std::lock_guard lock(state_.mutex);
  return state_.early.count(request.path) != 0;
}

bool HTTPSTestServer::Connection::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const auto count = ssl_ != nullptr
                           ? SSL_write(ssl_.get(), bytes.data(), static_cast<int>(bytes.size()))
                           : static_cast<int>(::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

bool HTTPSTestServer::Connection::sendContent(const TestAnswer& answer, int64_t limit) {
  const int64_t ofBody = std::min<int64_t>(limit, static_cast<int64_t>(answer.body.size()));
  if (!send(std::string_view(answer.body).substr(0, static_cast<size_t>(ofBody)))) return false;
  static const std::string kFiller(65536, 'x');
  for (int64_t left = limit - ofBody; left > 0; left -= static_cast<int64_t>(kFiller.size())) {
    const auto count = std::min<int64_t>(left, static_cast<int64_t>(kFiller.size()));
    if (!send(std::string_view(kFiller).substr(0, static_cast<size_t>(count)))) return false;
  }
  return true;
}

bool HTTPSTestServer::Connection::give(const TestAnswer& answer) {
  using Ending = TestAnswer::Ending;
  waitForGate(answer.gate.get());
  if (answer.ending == Ending::kNever) waitUntilStopped();
  if (answer.ending == Ending::kNever || answer.ending == Ending::kNoAnswer) return false;
  if (answer.raw) return send(*answer.raw) && answer.ending == Ending::kKeepAlive;

  const int64_t whole = static_cast<int64_t>(answer.body.size()) + answer.fillerBytes;
  const bool half = answer.ending == Ending::kCloseMidAnswer || answer.ending == Ending::kStallMidAnswer;
  std::string head = headOf(answer);
  if (answer.fillerBytes == 0 && !half &&
      answer.ending != Ending::kDrip) {  // one write for the common small answer
    return send(head += answer.body) && answer.ending == Ending::kKeepAlive;
  }
  if (answer.ending == Ending::kDrip) return drip(head);
  if (!send(head) || !sendContent(answer, half ? whole / 2 : whole)) return false;
  if (answer.ending == Ending::kStallMidAnswer) waitUntilStopped();
  return answer.ending == Ending::kKeepAlive;
}

bool HTTPSTestServer::Connection::drip(const std::string& head) {
  if (!send(head)) return false;
  std::unique_lock lock(state_.mutex);
  while (!state_.stopping) {
    lock.unlock();
    if (!send("x")) return false;
    lock.lock();
    state_.changed.wait_for(lock, std::chrono::milliseconds(5));
  }
  return false;
}

void HTTPSTestServer::Connection::waitForGate(const TestGate* gate) {
  if (gate == nullptr) return;
  std::unique_lock lock(state_.mutex);
  while (!state_.stopping && !gate->isOpen()) state_.changed.wait_for(lock, std::chrono::milliseconds(5));
}

void HTTPSTestServer::Connection::waitUntilStopped() {
  std::unique_lock lock(state_.mutex);
  state_.changed.wait(lock, [this] { return state_.stopping; });
}

void HTTPSTestServer::State::accept() {
  blockPipeSignal();
  while (true) {
    const int socket = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0 && errno == EINTR) continue;
    if (socket < 0) return;
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const std::lock_guard lock(mutex);
    connections.push_back(std::make_unique<Connection>(*this, socket, ++accepted));
  }
}

TestAnswer HTTPSTestServer::State::answerFor(const TestRequest& request) {
  Handler handler;
  {
    const std::lock_guard lock(mutex);
    const auto found = handlers.find(request.path);
    if (found != handlers.end() && !found->second.empty()) {
      handler = found->second.front();
      if (found->second.size() > 1) found->second.pop_front();
    } else {
      handler = others;
    }
  }
  return handler ? handler(request) : TestAnswer{.status = 404, .body = "nothing here"};
}

HTTPSTestServer::HTTPSTestServer(Transport transport)
    : state_(std::make_unique<State>()), transport_(transport) {
  if (transport != Transport::kPlain) state_->context = makeContext(identityFor(transport));
  state_->listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(state_->listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(state_->listener, 512) != 0 ||
      ::getsockname(state_->listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    throw std::runtime_error("test server socket");
  port_ = ntohs(address.sin_port);
  state_->acceptor = std::thread([state = state_.get()] { state->accept(); });
}

HTTPSTestServer::~HTTPSTestServer() {
  stop();
}

void HTTPSTestServer::stop() {
  if (!state_->acceptor.joinable()) return;
  // The listener first: who connects again because its connection closed is always refused.
  ::shutdown(state_->listener, SHUT_RDWR);
  state_->acceptor.join();
  ::close(state_->listener);
  std::list<std::unique_ptr<Connection>> connections;
  {
    const std::lock_guard lock(state_->mutex);
    state_->stopping = true;
    connections.swap(state_->connections);
  }
  state_->changed.notify_all();
  for (const auto& connection : connections) connection->interrupt();
}

std::string HTTPSTestServer::url(const std::string& path, const std::string& host) const {
  const char* scheme = transport_ == Transport::kPlain ? "http://" : "https://";
  return scheme + host + ":" + std::to_string(port_) + path;
}

const std::string& HTTPSTestServer::caFile() {
  return TestCertificates::shared().caFile();
}

void HTTPSTestServer::answer(const std::string& path, TestAnswer answer) {
  answerInOrder(path, {std::move(answer)});
}

void HTTPSTestServer::answerInOrder(const std::string& path, std::vector<TestAnswer> answers) {
  std::deque<Handler> handlers;
  for (TestAnswer& answer : answers) {
    handlers.emplace_back([answer = std::move(answer)](const TestRequest&) { return answer; });
  }
  const std::lock_guard lock(state_->mutex);
  state_->handlers[path] = std::move(handlers);
}

void HTTPSTestServer::answerBeforeTheBody(const std::string& path, TestAnswer answer) {
  this->answer(path, std::move(answer));
  const std::lock_guard lock(state_->mutex);
  state_->early.insert(path);
}

void HTTPSTestServer::handle(const std::string& path, Handler handler) {
  const std::lock_guard lock(state_->mutex);
  state_->handlers[path] = {std::move(handler)};
}

void HTTPSTestServer::handleOthers(Handler handler) {
  const std::lock_guard lock(state_->mutex);
  state_->others = std::move(handler);
}

std::vector<TestRequest> HTTPSTestServer::requests() const {
  const std::lock_guard lock(state_->mutex);
  return state_->requests;
}

std::vector<TestRequest> HTTPSTestServer::requestsFor(const std::string& path) const {
  std::vector<TestRequest> found = requests();
  std::erase_if(found, [&path](const TestRequest& request) { return request.path != path; });
  return found;
}

bool HTTPSTestServer::waitForRequests(size_t count, std::chrono::milliseconds deadline) const {
  std::unique_lock lock(state_->mutex);
  return state_->changed.wait_for(lock, deadline, [&] { return state_->requests.size() >= count; });
}

void HTTPSTestServer::clearRequests() {
  const std::lock_guard lock(state_->mutex);
  state_->requests.clear();
}

int HTTPSTestServer::connectionsAccepted() const {
  const std::lock_guard lock(state_->mutex);
  return state_->accepted;
}

int HTTPSTestServer::connectionsEstablished() const {
  const std::lock_guard lock(state_->mutex);
  return state_->established;
}

bool HTTPSTestServer::waitForFailedHandshakes(int count, std::chrono::milliseconds deadline) const {
  std::unique_lock lock(state_->mutex);
  return state_->changed.wait_for(lock, deadline, [&] { return state_->failedHandshakes >= count; });
}

void TestGate::open() {
  const std::lock_guard lock(mutex_);
  open_ = true;
}

bool TestGate::isOpen() const {
  const std::lock_guard lock(mutex_);
  return open_;
}

std::optional<std::string> TestRequest::header(std::string_view name) const {
  return find(headers, name);
}

TestAnswer TestAnswer::redirect(const std::string& location, int status) {
  return {.status = status, .headers = {{"Location", location}}};
}

TestAnswer TestAnswer::ended(Ending ending) {
  return {.body = "an answer", .ending = ending};
}

}  // namespace zun
