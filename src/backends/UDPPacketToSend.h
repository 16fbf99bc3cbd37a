#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace zun {

/// One datagram that was sent and not acknowledged yet, or could not be sent yet. One
/// thread at a time; a plain value.
class UDPPacketToSend final {
 public:
  enum class State : uint8_t {
    kNotSent = 0,                  // not yet sent whole
    kAwaitingAcknowledgement = 1,  // sent
  };

  /// Copies the bytes.
  UDPPacketToSend(std::span<const std::byte> bytes, uint16_t eventNum)
      : eventNumber(eventNum), data(bytes.begin(), bytes.end()) {}

  State state = State::kNotSent;
  int numberOfChecks = 0;       // timer ticks since it was last sent
  int numberOfRetransmits = 0;  // so far
  uint16_t eventNumber;         // acknowledgements name it
  std::vector<std::byte> data;  // the whole datagram
};

}  // namespace zun
