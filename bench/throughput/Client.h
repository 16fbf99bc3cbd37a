#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace zun::bench {

using Clock = std::chrono::steady_clock;

enum class Sending { kAwaited, kPipelined };

/// A client process's side of a session, as fast as the socket takes it: messages are
/// encoded once and only their serial changes.
class Client final {
 public:
  /// Connects and opens a session; `batch` as the session information has it.
  Client(const std::string& socketPath, bool batch);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// Sends `count` events and hears every reply. Adds each call's time to `latencies`.
  void send(uint64_t count, Sending sending, std::vector<Clock::duration>& latencies);
  /// Waits until what is batched has been posted.
  void flush();

  /// Bytes of one event's call.
  [[nodiscard]] size_t eventBytes() const { return event_.size(); }

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
  std::string event_;
  std::string received_;
};

}  // namespace zun::bench
