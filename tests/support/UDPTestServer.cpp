#include "support/UDPTestServer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

namespace zun {

namespace {

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

constexpr int kGenerousMilliseconds = 60'000;

}  // namespace

UDPTestServer::UDPTestServer(uint16_t port) : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  constexpr int kRoomBytes = 4 << 20;
  (void)::setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &kRoomBytes, sizeof kRoomBytes);
  sockaddr_in address = loopback(port);
  EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  socklen_t length = sizeof address;
  EXPECT_EQ(::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length), 0);
  port_ = ntohs(address.sin_port);
}

UDPTestServer::~UDPTestServer() {
  close();
}

IPv4SocketAddress UDPTestServer::address() const {
  return {{127, 0, 0, 1}, {static_cast<uint8_t>(port_ >> 8), static_cast<uint8_t>(port_)}};
}

std::optional<std::string> UDPTestServer::receive(int flags) {
  char buffer[2048];
  sockaddr_in peer{};
  socklen_t length = sizeof peer;
  const ssize_t size =
      ::recvfrom(socket_, buffer, sizeof buffer, flags, reinterpret_cast<sockaddr*>(&peer), &length);
  if (size < 0) return std::nullopt;
  peerPort_ = ntohs(peer.sin_port);
  return std::string(buffer, static_cast<size_t>(size));
}

std::optional<std::string> UDPTestServer::receive() {
  pollfd readable{socket_, POLLIN, 0};
  if (::poll(&readable, 1, kGenerousMilliseconds) != 1) {
    ADD_FAILURE() << "no datagram came";
    return std::nullopt;
  }
  return receive(0);
}

std::optional<std::string> UDPTestServer::receiveIfThere() {
  return receive(MSG_DONTWAIT);
}

std::vector<std::string> UDPTestServer::receiveAllThere() {
  std::vector<std::string> datagrams;
  while (auto datagram = receiveIfThere()) datagrams.push_back(*std::move(datagram));
  return datagrams;
}

void UDPTestServer::replyFrom(UDPTestServer& other, std::string_view bytes) {
  const sockaddr_in peer = loopback(peerPort_);
  EXPECT_EQ(::sendto(other.socket_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&peer),
                     sizeof peer),
            static_cast<ssize_t>(bytes.size()));
}

void UDPTestServer::close() {
  if (socket_ >= 0) ::close(std::exchange(socket_, -1));
}

}  // namespace zun
