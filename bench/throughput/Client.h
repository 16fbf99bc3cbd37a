#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "linux/dbus/DBusMessage.h"

namespace zun::bench {

using Clock = std::chrono::steady_clock;

enum class Sending { kAwaited, kPipelined };
enum class Call {
  kEvent,
  kJoin,     // of one hierarchy and another in turn
  kFlush,    // of an event each
  kRefused,  // no such member
};

/// A client process's side of a session, as fast as the socket takes it: messages are
/// encoded once and only their serial changes.
class Client final {
 public:
  /// Connects and opens a session; `batch` as the session information has it.
  Client(const std::string& socketPath, bool batch);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// What `send` sends from now on; events at first.
  void use(Call call);
  /// Sends `count` calls and hears every reply. Adds each call's time to `latencies`.
  void send(uint64_t count, Sending sending, std::vector<Clock::duration>& latencies);
  /// Waits until what is batched has been posted.
  void flush();

 private:
  void authenticate();
  /// Sends a call and waits for its reply.
  void call(std::string message);
  void writeAll(const char* bytes, size_t count);
  /// Reads what there is, at least one reply. Gives the number of replies.
  uint64_t readReplies();
  static void setSerial(char* message, uint32_t serial);

  int socket_ = -1;
  uint32_t serial_ = 0;
  std::vector<std::string> messages_;  // sent in turn
  DBusMessageType expected_ = DBusMessageType::kMethodReturn;
  std::string received_;
};

}  // namespace zun::bench
