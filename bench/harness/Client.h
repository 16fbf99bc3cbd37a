#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "harness/Events.h"
#include "harness/Work.h"
#include "linux/dbus/DBusMessage.h"

namespace zun::bench {

using Clock = std::chrono::steady_clock;

/// A client's side of a session, as fast as the socket takes it: calls are encoded before
/// and only their serial changes. One thread.
class Client final {
 public:
  enum class Posting : bool { kEachAtOnce, kInBatches };

  struct Session {
    Posting posting = Posting::kInBatches;
    std::string hierarchyToken;  // empty: in no hierarchy
    int hierarchyLevel = 0;
  };

  static constexpr uint64_t kPipelined = 256;  // calls in flight

  explicit Client(const std::string& socketPath) : Client(socketPath, Session()) {}
  /// Connects and opens a session.
  Client(const std::string& socketPath, const Session& session);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// Sends of `calls` what `work` hands out until there is no more, at most `window` calls in
  /// flight, and hears every answer. Adds each call's time to `latencies`; gives how many it sent.
  uint64_t send(const std::vector<std::string>& calls, Work& work, uint64_t window,
                std::vector<Clock::duration>& latencies);
  uint64_t send(const Events& events, Work& work, uint64_t window, std::vector<Clock::duration>& latencies) {
    return send(events.calls(), work, window, latencies);
  }
  /// From now on every call is answered with an error.
  void expectErrors() { expected_ = DBusMessageType::kError; }

  /// The call that makes a session what it is, or changes it.
  [[nodiscard]] static std::string sessionInfoCall(const Session& session);

  struct AtRate {
    std::vector<Clock::duration> latencies;  // from a call to its answer
    std::vector<Clock::duration> delays;     // from when a call was due until it was sent
  };
  /// Sends one event each `interval`, whether or not the one before is answered.
  AtRate sendAtRate(const Events& events, uint64_t count, Clock::duration interval);

  /// Waits until what is batched has been posted.
  void flush();

 private:
  void authenticate();
  /// Sends a call and waits for its reply.
  void call(std::string message);
  void append(const std::string& call, std::string& block);
  void writeAll(const std::string& bytes);
  /// Until `time` or something can be read; whether it can.
  [[nodiscard]] bool canReadBefore(Clock::time_point time) const;
  /// Reads what there is, at least one reply. Gives the number of replies.
  uint64_t readReplies();

  int socket_ = -1;
  uint32_t serial_ = 0;
  DBusMessageType expected_ = DBusMessageType::kMethodReturn;
  std::string received_;
};

}  // namespace zun::bench
