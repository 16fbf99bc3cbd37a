#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <bit>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "linux/dbus/DBusMessage.h"
#include "linux/dbus/DBusServiceListener.h"
#include "linux/files/FileDescriptor.h"
#include "support/Fakes.h"
#include "support/RecordingLog.h"
#include "support/ScratchFolder.h"

namespace zun {

// --- The object under call ----------------------------------------------------------

inline constexpr ServiceArgument kEchoArguments[] = {
    {"y", "y"}, {"b", "b"},         {"n", "n"},       {"q", "q"},        {"i", "i"},
    {"u", "u"}, {"x", "x"},         {"t", "t"},       {"d", "d"},        {"s", "s"},
    {"o", "o"}, {"g", "g"},         {"bytes", "ay"},  {"date", "(d)"},   {"texts", "as"},
    {"v", "v"}, {"pairs", "a(is)"}, {"values", "av"}, {"info", "a{sv}"}, {"optional", "aa{sv}"},
};
inline constexpr ServiceArgument kMessage[] = {{"message", "a{sv}"}};
inline constexpr ServiceArgument kDescription[] = {{"description", "s"}};
inline constexpr ServiceArgument kText[] = {{"text", "s"}};
inline constexpr ServiceArgument kOptionalInfo[] = {{"info", "aa{sv}"}};
inline constexpr ServiceArgument kSize[] = {{"bytes", "u"}};
inline constexpr ServiceArgument kOptionalText[] = {{"text", "as"}};
inline constexpr ServiceArgument kOutcome[] = {{"result", "as"}, {"error", "a(sis)"}};
inline constexpr ServiceMember kEchoMembers[] = {
    {"Echo", kEchoArguments, kEchoArguments},  // gives back what it got
    {"Describe", kMessage, kDescription},      // its text, as logs show it
    {"Later", kText, kText},                   // answered when the test says so
    {"Drop", {}, kText},                       // never answered
    {"Block", {}, {}},                         // holds its connection until the test says so
    {"Outcome", {}, kOutcome},
    {"Optional", kOptionalInfo, kDescription},
    {"LongText", kSize, kOptionalText},  // so many bytes, or none where that is too much
};
enum EchoMember : size_t { kEcho, kDescribe, kLater, kDrop, kBlock, kOutcomeMember, kOptional, kLongText };
inline constexpr ServiceInterface kEchoInterface{"/com/vantix/test", "com.vantix.test.Echo", kEchoMembers};

inline constexpr ServiceArgument kRemoteArguments[] = {{"number", "q"}, {"payload", "aa{sv}"}};
inline constexpr ServiceMember kRemoteMembers[] = {{"tell", kRemoteArguments, {}}};
inline constexpr ServiceInterface kRemoteInterface{"/com/vantix/client", "com.vantix.test.Client",
                                                   kRemoteMembers};

/// What happened, for tests to wait for.
class Events final {
 public:
  void add(const std::string& event) {
    const std::lock_guard lock(mutex_);
    events_.push_back(event);
    changed_.notify_all();
  }
  std::vector<std::string> all() const {
    const std::lock_guard lock(mutex_);
    return events_;
  }
  size_t count(const std::string& event) const {
    size_t found = 0;
    for (const std::string& each : all()) found += each == event ? 1 : 0;
    return found;
  }
  /// Waits until `event` was seen `times` times; false after a very long time.
  bool wait(const std::string& event, size_t times = 1) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(60), [&] {
      size_t found = 0;
      for (const std::string& each : events_) found += each == event ? 1 : 0;
      return found >= times;
    });
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> events_;
};

class EchoObject final : public ExportedObject {
 public:
  explicit EchoObject(std::shared_ptr<Events> events) : events_(std::move(events)) {}
  ~EchoObject() override { events_->add("object released"); }

  void handleCall(size_t member, const Array& arguments, ServiceReply reply) override {
    switch (member) {
      case kEcho: reply.send(arguments); break;
      case kDescribe: reply.send(Array{Value(arguments[0].description())}); break;
      case kOptional: reply.send(Array{Value(arguments[0].description())}); break;
      case kLongText:
        reply.send(Array{Array{std::string(static_cast<size_t>(arguments[0].intValue()), 'x')}},
                   Array{Array()});
        break;
      case kOutcomeMember:
        reply.send(Array{Array(), Array{Array{"com.vantix.zunreporting.error", -1, "No backend"}}});
        break;
      case kLater: {
        const std::lock_guard lock(mutex_);
        later_.push_back(std::move(reply));
        break;
      }
      case kBlock: {
        events_->add("blocked");
        std::unique_lock lock(mutex_);
        unblocked_.wait(lock, [this] { return std::exchange(isUnblocked_, false); });
        break;
      }
      default: break;  // Drop
    }
    events_->add(std::string(kEchoMembers[member].name));
  }
  /// Answers the calls of Later that wait, from the caller's thread.
  void answerLater(const std::string& text) {
    std::vector<ServiceReply> replies;
    {
      const std::lock_guard lock(mutex_);
      replies.swap(later_);
    }
    for (ServiceReply& reply : replies) reply.send(Array{Value(text)});
  }
  /// Answers the last of them.
  void answerLastLater(const std::string& text) {
    ServiceReply reply;
    {
      const std::lock_guard lock(mutex_);
      reply = std::move(later_.back());
      later_.pop_back();
    }
    reply.send(Array{Value(text)});
  }
  /// Lets the call of Block that is under way return, and no later one.
  void unblock() {
    const std::lock_guard lock(mutex_);
    isUnblocked_ = true;
    unblocked_.notify_all();
  }

 private:
  std::shared_ptr<Events> events_;
  std::mutex mutex_;
  std::condition_variable unblocked_;
  bool isUnblocked_ = false;
  std::vector<ServiceReply> later_;
};

/// Exports an EchoObject to everybody, and keeps what is accepted.
class EchoDelegate final : public ServiceListenerDelegate {
 public:
  bool isEntitled(const ServicePeer& peer) override { return !entitles || entitles(peer); }
  bool shouldAcceptNewConnection(const std::shared_ptr<ServiceConnection>& connection) override {
    if (!accepts) {
      events->add("refused");
      return false;
    }
    auto object = std::make_shared<EchoObject>(events);
    connection->setExportedInterface(kEchoInterface);
    connection->setRemoteObjectInterface(kRemoteInterface);
    connection->setExportedObject(object);
    connection->setInterruptionHandler([all = events, connection] { all->add("interrupted"); });
    connection->setInvalidationHandler([all = events, connection] { all->add("invalidated"); });
    {
      const std::lock_guard lock(mutex_);
      connection_ = connection;
      object_ = object;
    }
    if (resumes) connection->resume();
    events->add("accepted");
    return true;
  }
  /// The connection accepted last.
  std::shared_ptr<ServiceConnection> connection() {
    const std::lock_guard lock(mutex_);
    return connection_;
  }
  /// The object of the connection accepted last, while it is held.
  std::shared_ptr<EchoObject> object() {
    const std::lock_guard lock(mutex_);
    return object_.lock();
  }
  void forget() {
    const std::lock_guard lock(mutex_);
    connection_ = nullptr;
  }

  std::function<bool(const ServicePeer&)> entitles = nullptr;  // null: everybody
  bool accepts = true;
  bool resumes = true;
  std::shared_ptr<Events> events = std::make_shared<Events>();

 private:
  std::mutex mutex_;
  std::shared_ptr<ServiceConnection> connection_;
  std::weak_ptr<EchoObject> object_;
};

// --- Bytes by hand ------------------------------------------------------------------

/// Builds message bytes in either order, right or wrong, as the test likes.
class WireBytes final {
 public:
  explicit WireBytes(std::endian order = std::endian::native) : order_(order) {}

  WireBytes& align(size_t alignment) {
    while (bytes_.size() % alignment != 0) bytes_ += '\0';
    return *this;
  }
  WireBytes& u8(uint8_t number) {
    bytes_ += static_cast<char>(number);
    return *this;
  }
  template <typename Integer>
  WireBytes& number(Integer value) {
    align(sizeof value);
    char raw[sizeof value];
    std::memcpy(raw, &value, sizeof value);
    if (order_ != std::endian::native) std::reverse(raw, raw + sizeof value);
    bytes_.append(raw, sizeof value);
    return *this;
  }
  WireBytes& u32(uint32_t value) { return number(value); }
  WireBytes& text(std::string_view value) {
    u32(static_cast<uint32_t>(value.size()));
    bytes_.append(value);
    return u8(0);
  }
  WireBytes& signature(std::string_view value) {
    u8(static_cast<uint8_t>(value.size()));
    bytes_.append(value);
    return u8(0);
  }
  WireBytes& raw(std::string_view value) {
    bytes_.append(value);
    return *this;
  }
  /// An array: its length is that of what `fill` adds after the padding for elements.
  WireBytes& array(size_t alignment, const std::function<void(WireBytes&)>& fill) {
    u32(0);
    const size_t lengthAt = bytes_.size() - 4;
    align(alignment);
    const size_t start = bytes_.size();
    fill(*this);
    const WireBytes length = WireBytes(order_).u32(static_cast<uint32_t>(bytes_.size() - start));
    bytes_.replace(lengthAt, 4, length.bytes());
    return *this;
  }
  const std::string& bytes() const { return bytes_; }
  std::endian order() const { return order_; }

 private:
  std::endian order_;
  std::string bytes_;
};

struct WireCall {
  std::string path = std::string(kEchoInterface.objectPath);
  std::string interface = std::string(kEchoInterface.name);
  std::string member = {};
  std::string signature = {};
  uint32_t serial = 1;
  uint8_t flags = 0;
  uint32_t descriptors = 0;
  std::optional<uint32_t> bodyBytes = std::nullopt;  // a lie, where given
};

/// The bytes of a call with `body` (whose order it takes).
inline std::string wireCall(const WireCall& call, const WireBytes& body = WireBytes()) {
  WireBytes message(body.order());
  message.u8(body.order() == std::endian::little ? 'l' : 'B').u8(1).u8(call.flags).u8(1);
  message.u32(call.bodyBytes.value_or(static_cast<uint32_t>(body.bytes().size()))).u32(call.serial);
  message.array(8, [&](WireBytes& fields) {
    fields.u8(1).signature("o").text(call.path);
    if (!call.interface.empty()) fields.align(8).u8(2).signature("s").text(call.interface);
    fields.align(8).u8(3).signature("s").text(call.member);
    if (!call.signature.empty()) fields.align(8).u8(8).signature("g").signature(call.signature);
    if (call.descriptors > 0) fields.align(8).u8(9).signature("u").u32(call.descriptors);
  });
  return message.align(8).raw(body.bytes()).bytes();
}

// --- A client without a library -----------------------------------------------------

/// A connected socket that says exactly what the test wants said.
class RawClient final {
 public:
  explicit RawClient(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    isConnected_ = ::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }

  explicit RawClient(FileDescriptor socket) : socket_(std::move(socket)), isConnected_(true) {}

  bool isConnected() const { return isConnected_; }
  int descriptor() const { return socket_.get(); }
  void send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent <= 0) return;
      bytes.remove_prefix(static_cast<size_t>(sent));
    }
  }
  /// In one piece, with `descriptors`.
  void sendWithDescriptors(std::string_view bytes, const std::vector<int>& descriptors) {
    std::vector<char> control(CMSG_SPACE(descriptors.size() * sizeof(int)));
    iovec part{const_cast<char*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
    std::memcpy(CMSG_DATA(header), descriptors.data(), descriptors.size() * sizeof(int));
    ASSERT_EQ(::sendmsg(socket_.get(), &message, MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }
  /// Waits for some bytes; false at the end.
  bool receiveSome() {
    char chunk[65536];
    const ssize_t count = ::recv(socket_.get(), chunk, sizeof chunk, 0);
    if (count <= 0) return false;
    received_.append(chunk, static_cast<size_t>(count));
    return true;
  }
  std::string receiveLine() {
    size_t end = 0;
    while ((end = received_.find("\r\n")) == std::string::npos) {
      if (!receiveSome()) return "(end)";
    }
    std::string line = received_.substr(0, end);
    received_.erase(0, end + 2);
    return line;
  }
  /// True when the daemon ends the connection without another byte.
  bool isEnded() { return received_.empty() && !receiveSome(); }

  bool authenticate(bool withDescriptors = false) {
    send(std::string("\0AUTH EXTERNAL\r\nDATA\r\n", 22));
    if (receiveLine() != "DATA" || !receiveLine().starts_with("OK ")) return false;
    if (withDescriptors) {
      send("NEGOTIATE_UNIX_FD\r\n");
      if (receiveLine() != "AGREE_UNIX_FD") return false;
    }
    send("BEGIN\r\n");
    return true;
  }

  struct Message {
    DBusHeader header;
    Array values;
    std::string errorName;
    std::string member = {};
  };
  /// The next message; none at the end of the connection.
  std::optional<Message> receiveMessage() {
    while (true) {
      if (received_.size() >= DBusFrame::kFixedBytes) {
        const auto frame = frameDBusMessage(received_);
        if (!frame) return std::nullopt;
        if (received_.size() >= frame->totalBytes) return takeMessage(*frame);
      }
      if (!receiveSome()) return std::nullopt;
    }
  }
  void shutdownWriting() { ::shutdown(socket_.get(), SHUT_WR); }
  void close() { socket_.reset(); }

 private:
  std::optional<Message> takeMessage(const DBusFrame& frame) {
    const std::string bytes = received_.substr(0, frame.totalBytes);
    received_.erase(0, frame.totalBytes);
    const auto header = decodeDBusHeader(std::string_view(bytes).substr(0, frame.headerBytes));
    if (!header) return std::nullopt;
    const auto body = decodeDBusBody(*header, std::string_view(bytes).substr(frame.headerBytes));
    if (!body) return std::nullopt;
    Message message{*header, *body, std::string(header->errorName), std::string(header->member)};
    message.header.path = message.header.interface = message.header.signature = {};
    message.header.member = message.header.errorName = {};
    message.header.destination = message.header.sender = {};
    return message;
  }

  FileDescriptor socket_;
  bool isConnected_ = false;
  std::string received_;
};

/// A listener on a socket in a scratch folder with an EchoDelegate. An error line that
/// the test did not take fails it.
class DBusServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    options_.address = "unix:path=" + path_;
    options_.now = [this] { return clock_.monotonic(); };
    options_.connection.restAfter = std::chrono::milliseconds(0);  // whenever it may
  }
  void TearDown() override {
    listener_.reset();
    EXPECT_EQ(log_.takeErrors(), std::vector<std::string>());
  }
  void start() {
    auto created = DBusServiceListener::create(options_, entitlements_, log_);
    ASSERT_TRUE(created) << created.error().description;
    listener_ = std::move(*created);
    listener_->setDelegate(&delegate_);
    listener_->resume();
  }
  /// A client that is connected and authenticated.
  std::unique_ptr<RawClient> connect(bool withDescriptors = false) {
    auto client = std::make_unique<RawClient>(path_);
    EXPECT_TRUE(client->isConnected());
    EXPECT_TRUE(client->authenticate(withDescriptors));
    return client;
  }
  /// The error name of the next message of `client`.
  static std::string errorName(RawClient& client) {
    const auto message = client.receiveMessage();
    return message ? message->errorName : "(end)";
  }
  static std::string longTextCall(uint32_t bytes) {
    return wireCall({.member = "LongText", .signature = "u"}, WireBytes().u32(bytes));
  }
  static std::string textAnswer(RawClient& client) {
    const auto message = client.receiveMessage();
    return message ? std::string(message->values[0].stringValue()) : "(end)";
  }
  std::string peerName() const {
    return "pid " + std::to_string(::getpid()) + ", user " + std::to_string(::geteuid()) + ", " +
           std::filesystem::read_symlink("/proc/self/exe").string();
  }
  /// An error line may come a moment after what the client sees of it.
  void expectErrors(const std::vector<std::string>& lines) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (log_.linesOf(LogLevel::kError).size() < lines.size() &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
    EXPECT_EQ(log_.takeErrors(), lines);
  }
  void waitForConnections(size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (listener_->connectionCount() != count && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
    EXPECT_EQ(listener_->connectionCount(), count);
  }

  ScratchFolder scratch_;
  std::string path_ = scratch_.path("run/service");
  RecordingLog log_;
  FakeClock clock_;
  EntitlementStore entitlements_{scratch_.path("entitlements.d"), clock_, log_};
  EchoDelegate delegate_;
  DBusListenerOptions options_;
  std::unique_ptr<DBusServiceListener> listener_;
};

}  // namespace zun
