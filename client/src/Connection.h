#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "zunreporting/AggregatedMessage.h"
#include "zunreporting/Outcome.h"

namespace zunreporting {

struct MessageUnref {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

/// Appends a call's arguments, or reads an answer; negative on failure, as sd-bus has it.
using MessageStep = std::function<int(sd_bus_message*)>;

/// A member of the daemon's session object.
struct Member {
  const char* interface;
  const char* name;
};

/// The socket to the daemon: calls to its session object, and the object of ours that
/// it calls. One thread at a time.
class Connection final {
 public:
  static constexpr uint64_t kCallTimeout = 60'000'000;       // microseconds
  static constexpr uint64_t kTransferTimeout = 180'000'000;  // for calls that wait for a server
  // The daemon ends a transfer that stands still; one that moves may take its time.
  static constexpr uint64_t kUploadTimeout = 86'400'000'000;

  static Outcome<std::unique_ptr<Connection>> open(const std::string& address);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Calls `member` with what `write` appends (null: no arguments) and has `read` take
  /// the answer apart (null: there is nothing in it).
  Outcome<Nothing> call(Member member, const MessageStep& write, const MessageStep& read,
                        uint64_t timeout = kCallTimeout);

  /// As `call`, of a value that `read` fills in.
  template <typename T, typename Read>
  Outcome<T> callFor(Member member, const MessageStep& write, Read read, uint64_t timeout = kCallTimeout) {
    T value{};
    auto outcome = call(
        member, write, [&](sd_bus_message* answer) { return read(answer, value); }, timeout);
    if (!outcome) return failed<T>(outcome.failure, std::move(outcome.error));
    return {std::move(value), {}};
  }

  /// Lets the daemon send messages to this process, or no longer. Negative on failure.
  int exportClientObject(bool exported);

  enum class Step { kNothing, kSomething, kLost };
  /// Handles one thing that has arrived. The next message for this process, if that was one.
  Step process(std::optional<AggregatedMessage>& message);
  /// Waits until something arrives; false when nothing did. UINT64_MAX waits for ever.
  bool wait(uint64_t microseconds);

  [[nodiscard]] int descriptor() const { return sd_bus_get_fd(bus_.get()); }

 private:
  struct BusUnref {
    // Not flushed: what was answered has been sent, and a daemon that has stopped reading
    // would hold the process for ever.
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
  };
  struct SlotUnref {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
  };

  explicit Connection(sd_bus* bus) : bus_(bus) {}
  static int takeMessage(sd_bus_message* message, void* connection, sd_bus_error* error);
  [[nodiscard]] Failure failureNow() const;

  std::unique_ptr<sd_bus, BusUnref> bus_;
  std::unique_ptr<sd_bus_slot, SlotUnref> clientObject_;
  std::optional<AggregatedMessage> arrived_;
};

}  // namespace zunreporting
