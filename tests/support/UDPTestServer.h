#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/DatagramSocket.h"

namespace zun {

/// A UDP socket on a free loopback port, read by the test's thread when it wants to.
class UDPTestServer final {
 public:
  /// On the given port, or any.
  explicit UDPTestServer(uint16_t port = 0);
  ~UDPTestServer();
  UDPTestServer(const UDPTestServer&) = delete;
  UDPTestServer& operator=(const UDPTestServer&) = delete;

  [[nodiscard]] uint16_t port() const { return port_; }
  [[nodiscard]] IPv4SocketAddress address() const;

  /// The next datagram; none, and a failure of the test, if none comes for very long.
  std::optional<std::string> receive();
  /// The next datagram if it is there already. Over loopback what a send has returned
  /// from is.
  std::optional<std::string> receiveIfThere();
  /// All that are there already.
  std::vector<std::string> receiveAllThere();

  /// Sends to where the last datagram came from, or from `other` to there.
  void reply(std::string_view bytes) { replyFrom(*this, bytes); }
  void replyFrom(UDPTestServer& other, std::string_view bytes);

  /// Goes away: what is sent here from now on is refused.
  void close();

 private:
  std::optional<std::string> receive(int flags);

  int socket_;
  uint16_t port_;
  uint16_t peerPort_ = 0;
};

}  // namespace zun
