#include "harness/Client.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "values/Check.h"
#include "zunreporting/Keys.h"

namespace zun::bench {

namespace {

using namespace zunreporting;

constexpr size_t kSerialOffset = 8;

}  // namespace

Client::Client(const std::string& socketPath, const Session& session) {
  socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ZUN_CHECK(socket_ >= 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ZUN_CHECK(socketPath.size() < sizeof address.sun_path);
  std::memcpy(address.sun_path, socketPath.data(), socketPath.size());
  ZUN_CHECK(connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0);
  authenticate();
  call(sessionInfoCall(session));
  call(sessionCall("startConfigWithCompletionHandler", "", {}));
}

Client::~Client() {
  close(socket_);
}

std::string Client::sessionInfoCall(const Session& session) {
  Dictionary info{{kZunReportingSessionInfoSessionID, 1},
                  {kZunReportingSessionInfoClientType, 7},
                  {kZunReportingSessionInfoClientVersion, 1},
                  {kZunReportingSessionInfoRequireUserInfo, true},
                  {kZunReportingSessionInfoBatchEvent, session.posting == Posting::kInBatches}};
  if (!session.hierarchyToken.empty()) {
    info.set(kZunReportingSessionInfoHierarchyToken,
             Dictionary{{kZunReportingHierarchyTokenTokenID, session.hierarchyToken},
                        {kZunReportingHierarchyTokenLevel, session.hierarchyLevel}});
  }
  const Dictionary user{{kZunReportingUserInfoClientName, "bench"},
                        {kZunReportingUserInfoServiceName, "throughput"}};
  return sessionCall("setSessionInfo", "a{sv}aa{sv}asb", Array{info, Array{user}, Array{}, false});
}

uint64_t Client::send(const std::vector<std::string>& calls, Work& work, uint64_t window,
                      std::vector<Clock::duration>& latencies) {
  std::vector<Clock::time_point> sentAt(window);
  std::string block;
  uint64_t sent = 0;
  uint64_t heard = 0;
  bool hasMore = true;
  while (hasMore || heard < sent) {
    // Half a window at a time, so that writes and replies overlap.
    const uint64_t room = window - (sent - heard);
    if (hasMore && room >= (window + 1) / 2) {
      uint64_t number = 0;
      const uint64_t count = work.take(room, number);
      hasMore = count > 0;
      block.clear();
      const auto now = Clock::now();
      for (uint64_t i = 0; i < count; ++i) {
        append(calls[(number + i) % calls.size()], block);
        sentAt[sent++ % window] = now;
      }
      writeAll(block);
    }
    if (heard == sent) continue;
    const uint64_t replies = readReplies();
    const auto now = Clock::now();
    for (uint64_t i = 0; i < replies; ++i) latencies.push_back(now - sentAt[heard++ % window]);
  }
  return sent;
}

Client::AtRate Client::sendAtRate(const Events& events, uint64_t count, Clock::duration interval) {
  prctl(PR_SET_TIMERSLACK, 1);
  AtRate told;
  std::vector<Clock::time_point> sentAt;
  sentAt.reserve(count);
  const auto start = Clock::now();
  std::string block;
  while (told.latencies.size() < count) {
    const Clock::time_point due = sentAt.size() < count
                                      ? start + interval * static_cast<int64_t>(sentAt.size())
                                      : Clock::time_point::max();
    if (Clock::now() >= due) {
      block.clear();
      append(events.call(sentAt.size()), block);
      sentAt.push_back(Clock::now());
      told.delays.push_back(sentAt.back() - due);
      writeAll(block);
    }
    if (!canReadBefore(due)) continue;
    const uint64_t replies = readReplies();
    const auto now = Clock::now();
    for (uint64_t i = 0; i < replies; ++i) told.latencies.push_back(now - sentAt[told.latencies.size()]);
  }
  return told;
}

void Client::flush() {
  call(sessionCall("flushMessagesWithCompletion", "", {}));
}

void Client::authenticate() {
  std::string hexadecimal;
  for (const char digit : std::to_string(getuid())) hexadecimal += fmt::format("{:02x}", digit);
  writeAll(std::string("\0AUTH EXTERNAL ", 15) + hexadecimal + "\r\n");
  char answer[256];
  const ssize_t count = read(socket_, answer, sizeof answer);
  ZUN_CHECK(count > 3 && std::memcmp(answer, "OK ", 3) == 0);
  writeAll("BEGIN\r\n");
}

void Client::call(std::string message) {
  std::string block;
  append(message, block);
  writeAll(block);
  ZUN_CHECK(readReplies() == 1);
}

void Client::append(const std::string& call, std::string& block) {
  block += call;
  ++serial_;
  std::memcpy(block.data() + block.size() - call.size() + kSerialOffset, &serial_, sizeof serial_);
}

void Client::writeAll(const std::string& bytes) {
  for (std::string_view rest = bytes; !rest.empty();) {
    const ssize_t written = ::send(socket_, rest.data(), rest.size(), MSG_NOSIGNAL);
    ZUN_CHECK(written > 0);
    rest.remove_prefix(static_cast<size_t>(written));
  }
}

bool Client::canReadBefore(Clock::time_point time) const {
  using namespace std::chrono;
  const auto left = std::clamp<Clock::duration>(time - Clock::now(), Clock::duration(0), seconds(1));
  const timespec wait{duration_cast<seconds>(left).count(), (left % seconds(1)).count()};
  pollfd entry{socket_, POLLIN, 0};
  return ppoll(&entry, 1, &wait, nullptr) == 1;
}

uint64_t Client::readReplies() {
  uint64_t replies = 0;
  char chunk[64 * 1024];
  while (replies == 0) {
    const ssize_t count = read(socket_, chunk, sizeof chunk);
    ZUN_CHECK(count > 0);
    received_.append(chunk, static_cast<size_t>(count));
    size_t taken = 0;
    while (received_.size() - taken >= DBusFrame::kFixedBytes) {
      const std::string_view rest = std::string_view(received_).substr(taken);
      const auto frame = frameDBusMessage(rest);
      ZUN_CHECK(static_cast<bool>(frame));
      if (rest.size() < frame->totalBytes) break;
      ZUN_CHECK(rest[1] == static_cast<char>(expected_));
      taken += frame->totalBytes;
      ++replies;
    }
    received_.erase(0, taken);
  }
  return replies;
}

}  // namespace zun::bench
