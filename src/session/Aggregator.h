#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "platform/Mutex.h"
#include "platform/ServiceConnection.h"
#include "platform/SystemLog.h"
#include "session/ClientSessionReplyInterface.h"

namespace zun {

/// The client's end of a session's aggregation: it gets copies while it is open.
///
/// Threading: any thread. The lock is held while the client is called, so that nothing follows
/// the end. Ownership: its session's; keeps the connection, uses the log.
class Aggregator {
 public:
  Aggregator(std::shared_ptr<ServiceConnection> connection, SystemLog& log);

  [[nodiscard]] bool isOpen() const { return isOpen_; }
  /// Without telling the client; only `shutdown` does.
  void setOpen(bool isOpen) { isOpen_ = isOpen; }

  /// Calls the client, if it is open still.
  void send(const MessageToClient& message) EXCLUDES(mutex_);
  /// The last call, which says that nothing follows. Once.
  void shutdown() EXCLUDES(mutex_);

 private:
  void deliver(const MessageToClient& message) REQUIRES(mutex_);

  const std::shared_ptr<ServiceConnection> connection_;
  SystemLog& log_;
  std::atomic<bool> isOpen_{false};
  Mutex mutex_;
  std::optional<std::string> failure_ GUARDED_BY(mutex_);  // of the last call
};

}  // namespace zun
