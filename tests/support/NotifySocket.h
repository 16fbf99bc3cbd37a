#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/ScratchFolder.h"

namespace zun {

/// Stands where the service manager listens.
class NotifySocket final {
 public:
  NotifySocket() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = folder_.path("notify");
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
  }
  ~NotifySocket() {
    ::unsetenv("NOTIFY_SOCKET");
    ::close(socket_);
  }
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  bool hasMessage() const {
    char byte = 0;
    return ::recv(socket_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0;
  }
  std::string receive() {
    char text[256];
    const ssize_t size = ::recv(socket_, text, sizeof text, 0);
    return size < 0 ? std::string() : std::string(text, static_cast<size_t>(size));
  }

 private:
  ScratchFolder folder_;
  const int socket_;
};

}  // namespace zun
