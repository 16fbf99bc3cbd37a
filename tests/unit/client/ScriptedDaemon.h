#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include "support/ScratchFolder.h"

namespace zunreporting {

inline constexpr std::chrono::seconds kDeadline{60};  // only ever met by a failure

/// The other end of a client's connection, which answers as a test says: what the real
/// daemon never says, a client has to survive all the same.
class ScriptedDaemon final {
 public:
  /// Called for each call of the client, on the daemon's thread; it replies itself, and
  /// may send more. Negative hangs up.
  using Script = std::function<int(sd_bus_message* call)>;

  explicit ScriptedDaemon(Script script);
  ~ScriptedDaemon();
  ScriptedDaemon(const ScriptedDaemon&) = delete;
  ScriptedDaemon& operator=(const ScriptedDaemon&) = delete;

  [[nodiscard]] std::string address() const { return "unix:path=" + path_; }

 private:
  void serve();
  static int answer(sd_bus_message* message, void* daemon, sd_bus_error* error);

  zun::ScratchFolder folder_;
  const std::string path_;
  const Script script_;
  int listener_ = -1;
  std::atomic<bool> hasEnded_ = false;
  std::thread thread_;
};

/// A call of the client's object, to append the arguments of.
sd_bus_message* newMessageToClient(sd_bus* bus);
/// Sends it and lets go of it.
int sendToClient(sd_bus* bus, sd_bus_message* message);

}  // namespace zunreporting
