#include "session/Aggregator.h"

#include <utility>

namespace zun {

Aggregator::Aggregator(std::shared_ptr<ServiceConnection> connection, SystemLog& log)
    : connection_(std::move(connection)), log_(log) {}

void Aggregator::send(const MessageToClient& message) {
  const MutexLock lock(mutex_);
  if (isOpen_) deliver(message);
}

void Aggregator::shutdown() {
  const MutexLock lock(mutex_);
  if (!isOpen_) return;
  deliver(encodeMessageToClient(*connection_, std::nullopt, /*timestamp=*/0.0, /*category=*/0,
                                /*type=*/0, std::nullopt));
  isOpen_ = false;
}

void Aggregator::deliver(const MessageToClient& message) {
  std::optional<std::string> failure =
      message ? connection_->callRemote(**message) : std::optional(message.error());
  // One line each time that a client is lost, not one for every message that others send.
  if (failure && failure != failure_)
    log_.error("sendMessageWithDictionary: Failed to get remote object proxy: {}", *failure);
  failure_ = std::move(failure);
}

}  // namespace zun
