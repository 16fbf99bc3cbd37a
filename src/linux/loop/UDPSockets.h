#pragma once

#include "linux/loop/EventLoop.h"
#include "platform/DatagramSocket.h"

namespace zun {

/// The system's UDP sockets, with their read sources on the event loop. Each session can
/// have one, so none is made (EMFILE) of the descriptors that the daemon needs itself.
///
/// Threading: any thread. Ownership: by main; `loop` outlives it and its sockets' users.
class UDPSockets final : public DatagramSocketService {
 public:
  explicit UDPSockets(EventLoop& loop) : loop_(loop) {}

  Result<std::unique_ptr<DatagramSocket>, Error> makeSocket() override;

 private:
  EventLoop& loop_;
};

}  // namespace zun
