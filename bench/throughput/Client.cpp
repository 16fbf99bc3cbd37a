#include "Client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "values/Check.h"
#include "values/Value.h"
#include "zunreporting/Keys.h"

namespace zun::bench {

namespace {

using namespace zunreporting;

constexpr uint64_t kWindow = 256;  // calls in flight
constexpr size_t kSerialOffset = 8;

std::string callOf(std::string_view member, std::string_view signature, const Array& arguments) {
  DBusHeader header;
  header.serial = 1;
  header.path = "/com/vantix/zunreportingd/session";
  header.interface = "com.vantix.zunreportingd.ClientSessionInterface";
  header.member = member;
  header.signature = signature;
  std::string message;
  ZUN_CHECK(!appendDBusMessage(message, header, arguments));
  return message;
}

/// What an app might report: some texts, some numbers.
Dictionary samplePayload() {
  return {{"screen", "settings/network"},
          {"action", "toggle"},
          {"durationMs", 1234},
          {"attempt", 2},
          {"signal", -67.5},
          {"roaming", false},
          {"operator", "Example Mobile"}};
}

std::string eventCall() {
  const Dictionary message{{kZunReportingMessageParametersCategory, 3},
                           {kZunReportingMessageParametersType, 17},
                           {kZunReportingMessageParametersPayload, samplePayload()}};
  return callOf("sendMessageWithDictionary", "a{sv}", Array{message});
}

/// As a session of the hierarchy `token`, or of none.
std::string infoCall(bool batch, std::string_view token = {}) {
  Dictionary info{{kZunReportingSessionInfoSessionID, 1},
                  {kZunReportingSessionInfoClientType, 7},
                  {kZunReportingSessionInfoClientVersion, 1},
                  {kZunReportingSessionInfoBatchEvent, batch}};
  if (!token.empty())
    info.set(kZunReportingSessionInfoHierarchyToken,
             Dictionary{{kZunReportingHierarchyTokenTokenID, token}, {kZunReportingHierarchyTokenLevel, 1}});
  const Dictionary user{{kZunReportingUserInfoClientName, "bench"},
                        {kZunReportingUserInfoServiceName, "throughput"}};
  return callOf("setSessionInfo", "a{sv}aa{sv}asb", Array{info, Array{user}, Array{}, false});
}

}  // namespace

Client::Client(const std::string& socketPath, bool batch) {
  socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ZUN_CHECK(socketPath.size() < sizeof address.sun_path);
  std::memcpy(address.sun_path, socketPath.data(), socketPath.size());
  // The daemon may have bound its socket, and not listen yet.
  for (int tries = 1; connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0; ++tries) {
    ZUN_CHECK(tries < 1000);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  authenticate();

  call(infoCall(batch));
  call(callOf("startConfigWithCompletionHandler", "", {}));
  use(Call::kEvent);
}

Client::~Client() {
  close(socket_);
}

void Client::use(Call call) {
  expected_ = call == Call::kRefused ? DBusMessageType::kError : DBusMessageType::kMethodReturn;
  switch (call) {
    case Call::kEvent: messages_ = {eventCall()}; break;
    case Call::kJoin: messages_ = {infoCall(true, "one"), infoCall(true, "another")}; break;
    case Call::kFlush: messages_ = {eventCall(), callOf("flushMessagesWithCompletion", "", {})}; break;
    case Call::kRefused: messages_ = {callOf("noSuchMember", "", {})}; break;
  }
}

void Client::send(uint64_t count, Sending sending, std::vector<Clock::duration>& latencies) {
  const uint64_t window = sending == Sending::kAwaited ? 1 : kWindow;
  std::vector<Clock::time_point> sentAt(window);
  std::string block;
  uint64_t sent = 0;
  uint64_t heard = 0;
  while (heard < count) {
    // Half a window at a time, so that writes and replies overlap.
    const uint64_t room = std::min(window - (sent - heard), count - sent);
    if (room > 0 && (room >= window / 2 || sent + room == count)) {
      block.clear();
      const auto now = Clock::now();
      for (uint64_t i = 0; i < room; ++i) {
        const std::string& message = messages_[sent % messages_.size()];
        block += message;
        setSerial(block.data() + block.size() - message.size(), ++serial_);
        sentAt[sent++ % window] = now;
      }
      writeAll(block.data(), block.size());
    }
    const uint64_t replies = readReplies();
    const auto now = Clock::now();
    for (uint64_t i = 0; i < replies; ++i) latencies.push_back(now - sentAt[heard++ % window]);
  }
}

void Client::flush() {
  call(callOf("flushMessagesWithCompletion", "", {}));
}

void Client::authenticate() {
  std::string hexadecimal;
  for (const char digit : std::to_string(getuid())) hexadecimal += fmt::format("{:02x}", digit);
  std::string hello("\0AUTH EXTERNAL ", 15);
  hello += hexadecimal + "\r\n";
  writeAll(hello.data(), hello.size());
  char answer[256];
  const ssize_t count = read(socket_, answer, sizeof answer);
  ZUN_CHECK(count > 3 && std::memcmp(answer, "OK ", 3) == 0);
  constexpr std::string_view kBegin = "BEGIN\r\n";
  writeAll(kBegin.data(), kBegin.size());
}

void Client::call(std::string message) {
  setSerial(message.data(), ++serial_);
  writeAll(message.data(), message.size());
  ZUN_CHECK(readReplies() == 1);
}

void Client::writeAll(const char* bytes, size_t count) {
  while (count > 0) {
    const ssize_t written = ::send(socket_, bytes, count, MSG_NOSIGNAL);
    ZUN_CHECK(written > 0);
    bytes += written;
    count -= static_cast<size_t>(written);
  }
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

void Client::setSerial(char* message, uint32_t serial) {
  std::memcpy(message + kSerialOffset, &serial, sizeof serial);
}

}  // namespace zun::bench
