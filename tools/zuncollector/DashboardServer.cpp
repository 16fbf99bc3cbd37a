#include "DashboardServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <memory>
#include <optional>
#include <system_error>

#include "Received.h"
#include "values/JSONWriter.h"

namespace zun {

namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// Bytes that the kernel keeps for us while we write; it may allow less.
constexpr int kReceiveBufferBytes = 8 << 20;
/// A byte more than a datagram may have, so that a longer one shows.
constexpr size_t kBufferBytes = DashboardDatagram::kLargest + 1;
/// Received in one go before acknowledgements and the end get their turn.
constexpr int kDatagramsAtOnce = 256;
/// Goes at what waits at the end: more than the kernel keeps, so that only a sender without end loses.
constexpr int kTurnsAtTheEnd = 1000;
/// Acknowledgements that wait for their delay; what comes on top is lost.
constexpr size_t kMostDelayed = 10'000;
/// Malformed datagrams that are told one by one; further ones are only counted.
constexpr uint64_t kMostTold = 100;

std::string errorText(const char* what) {
  return fmt::format("{}: {}", what, std::generic_category().message(errno));
}

std::optional<sockaddr_in> addressOf(const std::string& host, uint16_t port) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return std::nullopt;
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, freeaddrinfo);
  auto address = *reinterpret_cast<const sockaddr_in*>(found->ai_addr);
  address.sin_port = htons(port);
  return address;
}

std::string nameOf(const sockaddr_in& address) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
  return fmt::format("{}:{}", text, ntohs(address.sin_port));
}

}  // namespace

DashboardServer::DashboardServer(RecordFile& file, const AcknowledgementOptions& options)
    : file_(file), options_(options), plan_(options) {}

DashboardServer::~DashboardServer() {
  stop();
  for (const int descriptor : {socket_, wakePipe_[0], wakePipe_[1]}) {
    if (descriptor >= 0) close(descriptor);
  }
}

std::string DashboardServer::bind(const std::string& host, uint16_t port) {
  const auto address = addressOf(host, port);
  if (!address) return fmt::format("{} is no IPv4 address", host);
  socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_UDP);
  if (socket_ < 0) return errorText("cannot make a dashboard socket");
  setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &kReceiveBufferBytes, sizeof kReceiveBufferBytes);
  sockaddr_in bound = *address;
  socklen_t length = sizeof bound;
  if (::bind(socket_, reinterpret_cast<const sockaddr*>(&bound), length) != 0 ||
      getsockname(socket_, reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
    return errorText(fmt::format("cannot receive datagrams at {}:{}", host, port).c_str());
  }
  if (pipe2(wakePipe_.data(), O_CLOEXEC) != 0) return errorText("cannot make a pipe");
  port_ = ntohs(bound.sin_port);
  return {};
}

void DashboardServer::start() {
  thread_ = std::thread([this] { run(); });
}

void DashboardServer::stop() {
  if (!thread_.joinable()) return;
  static_cast<void>(write(wakePipe_[1], "", 1) == 1);
  thread_.join();
}

DashboardTotals DashboardServer::totals() const {
  const MutexLock lock(mutex_);
  return totals_;
}

void DashboardServer::run() {
  for (;;) {
    pollfd waiting[] = {{socket_, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
    poll(waiting, 2, millisecondsToNextDue());
    const bool isTheEnd = (waiting[1].revents & POLLIN) != 0;
    // What has come by the end is still taken, so that the totals are complete.
    for (int turns = isTheEnd ? kTurnsAtTheEnd : 1; turns > 0 && receiveWaiting(); --turns) continue;
    sendDue();
    if (isTheEnd) return;
  }
}

bool DashboardServer::receiveWaiting() {
  char buffer[kBufferBytes];
  for (int i = 0; i < kDatagramsAtOnce; ++i) {
    sockaddr_in sender{};
    socklen_t length = sizeof sender;
    const ssize_t count =
        recvfrom(socket_, buffer, sizeof buffer, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&sender), &length);
    if (count < 0 && errno == EAGAIN) return false;
    if (count >= 0) take({buffer, static_cast<size_t>(count)}, sender);
  }
  return true;
}

void DashboardServer::take(std::string_view bytes, const sockaddr_in& sender) {
  const std::string senderName = nameOf(sender);
  const auto datagram = DashboardDatagram::decode(bytes);
  if (!datagram) return tellMalformed(senderName, datagram.error());

  const bool isDuplicate = seen_.contains(senderName, *datagram);
  const auto fate = datagram->isReliable() ? plan_.next() : AcknowledgementFate::kNone;
  Dictionary record{
      {"_way", "dashboard"},      {"received", secondsSince1970()},  {"sender", senderName},
      {"duplicate", isDuplicate}, {"acknowledgement", nameOf(fate)},
  };
  record.addEntries(datagram->record());
  const std::string error = file_.append(writeJSON(record, JSONFormat::kCompact) + "\n");
  if (error.empty()) seen_.add(senderName, *datagram);
  {
    const MutexLock lock(mutex_);
    ++totals_.datagrams;
    if (isDuplicate) ++totals_.duplicates;
    if (!error.empty()) ++totals_.unrecorded;
  }
  if (!error.empty()) {
    std::cerr << fmt::format("dashboard: event {} of {} is not acknowledged: {}\n", datagram->eventNumber,
                             senderName, error);
  } else {
    acknowledge(bytes, sender, fate);
  }
}

void DashboardServer::tellMalformed(const std::string& sender, const std::string& why) {
  const MutexLock lock(mutex_);
  ++totals_.malformed;
  if (totals_.malformed > kMostTold) return;
  std::cerr << fmt::format("dashboard: malformed datagram from {}: {}\n", sender, why);
  if (totals_.malformed == kMostTold) std::cerr << "dashboard: further malformed ones are only counted\n";
}

void DashboardServer::acknowledge(std::string_view bytes, const sockaddr_in& sender,
                                  AcknowledgementFate fate) {
  if (fate == AcknowledgementFate::kNone || fate == AcknowledgementFate::kDrop) return;
  Acknowledgement acknowledgement{steady_clock::now() + options_.delay, sender, fate,
                                  acknowledgementOf(bytes, fate, options_)};
  if (options_.delay.count() == 0) {
    send(acknowledgement);
  } else if (delayed_.size() < kMostDelayed) {
    delayed_.push_back(std::move(acknowledgement));
  }
}

void DashboardServer::send(const Acknowledgement& acknowledgement) {
  ssize_t sent = 0;
  for (int copies = options_.duplicate ? 2 : 1; copies > 0; --copies) {
    sent = sendto(socket_, acknowledgement.bytes.data(), acknowledgement.bytes.size(), MSG_DONTWAIT,
                  reinterpret_cast<const sockaddr*>(&acknowledgement.receiver), sizeof(sockaddr_in));
  }
  if (sent < 0 || acknowledgement.fate != AcknowledgementFate::kSend) return;
  const MutexLock lock(mutex_);
  ++totals_.acknowledged;
}

void DashboardServer::sendDue() {
  const TimePoint now = steady_clock::now();
  while (!delayed_.empty() && delayed_.front().due <= now) {
    send(delayed_.front());
    delayed_.pop_front();
  }
}

int DashboardServer::millisecondsToNextDue() const {
  if (delayed_.empty()) return -1;
  const auto left = duration_cast<milliseconds>(delayed_.front().due - steady_clock::now()) + milliseconds(1);
  return static_cast<int>(std::max<milliseconds::rep>(left.count(), 0));
}

}  // namespace zun
