#include "linux/loop/UDPSockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "linux/files/PosixError.h"
#include "linux/files/ProcessLimits.h"

namespace zun {

namespace {

class UDPSocket final : public DatagramSocket {
 public:
  UDPSocket(EventLoop& loop, FileDescriptor descriptor)
      : loop_(loop), descriptor_(std::make_shared<const FileDescriptor>(std::move(descriptor))) {}

  std::optional<Error> bindToAnyAddress() override {
    const sockaddr_in any = socketAddress({});
    if (::bind(number(), reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0) return std::nullopt;
    return posixError(errno);
  }

  std::optional<Error> connect(const IPv4SocketAddress& peer) override {
    const sockaddr_in address = socketAddress(peer);
    if (::connect(number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
      return std::nullopt;
    return posixError(errno);
  }

  Result<size_t, Error> send(std::span<const std::byte> datagram) override {
    ssize_t sent = sendOnce(datagram);
    // The kernel tells of an earlier datagram's fate by failing the next call, once.
    if (sent < 0 && errno != EAGAIN) sent = sendOnce(datagram);
    if (sent >= 0) return static_cast<size_t>(sent);
    if (errno == ECONNREFUSED) return datagram.size();
    return Result<size_t, Error>::failure(posixError(errno));
  }

  Result<size_t, Error> receive(std::span<std::byte> buffer) override {
    ssize_t received = 0;
    do {
      received = ::recv(number(), buffer.data(), buffer.size(), 0);
    } while (received < 0 && errno == EINTR);
    if (received >= 0) return static_cast<size_t>(received);
    return Result<size_t, Error>::failure(posixError(errno));
  }

  std::shared_ptr<ReadSource> startReadSource(std::shared_ptr<SerialQueue> queue,
                                              UniqueFunction<void()> readable,
                                              UniqueFunction<void()> cancelled) override {
    if (descriptor_ == nullptr) return nullptr;
    return loop_.startReadSource(descriptor_, std::move(queue), std::move(readable), std::move(cancelled));
  }

  void close() override { descriptor_.reset(); }

 private:
  static sockaddr_in socketAddress(const IPv4SocketAddress& from) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    std::memcpy(&address.sin_addr, from.address.data(), from.address.size());
    std::memcpy(&address.sin_port, from.port.data(), from.port.size());
    return address;
  }

  [[nodiscard]] int number() const { return descriptor_ == nullptr ? -1 : descriptor_->get(); }

  ssize_t sendOnce(std::span<const std::byte> datagram) const {
    return ::send(number(), datagram.data(), datagram.size(), MSG_NOSIGNAL);
  }

  EventLoop& loop_;
  std::shared_ptr<const FileDescriptor> descriptor_;  // none once closed
};

}  // namespace

std::array<uint8_t, 4> parseDottedQuad(const std::string& text) {
  const in_addr_t parsed = inet_addr(text.c_str());
  std::array<uint8_t, 4> address{};
  std::memcpy(address.data(), &parsed, address.size());
  return address;
}

Result<std::unique_ptr<DatagramSocket>, Error> UDPSockets::makeSocket() {
  using Made = Result<std::unique_ptr<DatagramSocket>, Error>;
  FileDescriptor descriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_UDP));
  if (!descriptor.isOpen()) return Made::failure(posixError(errno));
  if (descriptor.get() >= firstReservedDescriptor()) return Made::failure(posixError(EMFILE));
  return Made(std::make_unique<UDPSocket>(loop_, std::move(descriptor)));
}

}  // namespace zun
