#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>

namespace zun::bench {

/// A dashboard server in a process of its own: counts datagrams and sends each back.
class EchoServer final {
 public:
  /// Forks; call before the process has threads.
  EchoServer();
  ~EchoServer();
  EchoServer(const EchoServer&) = delete;
  EchoServer& operator=(const EchoServer&) = delete;

  [[nodiscard]] uint16_t port() const { return port_; }
  [[nodiscard]] uint64_t received() const { return *received_; }

 private:
  std::atomic<uint64_t>* received_ = nullptr;  // shared with the child
  uint16_t port_ = 0;
  pid_t process_ = 0;
};

}  // namespace zun::bench
