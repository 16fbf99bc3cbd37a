#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace zun::bench {

/// An HTTPS server in a process of its own that takes posts, counts them and says "{}".
/// It does no more than that, so that it is never what is measured.
class Sink final {
 public:
  /// Forks; call before the process has threads. PEM texts.
  Sink(const std::string& certificate, const std::string& key);
  ~Sink();

  [[nodiscard]] uint16_t port() const { return port_; }
  [[nodiscard]] pid_t process() const { return process_; }
  [[nodiscard]] uint64_t posts() const { return counters_->posts; }
  [[nodiscard]] uint64_t bodyBytes() const { return counters_->bodyBytes; }

 private:
  struct Counters {
    std::atomic<uint64_t> posts{0};
    std::atomic<uint64_t> bodyBytes{0};
  };

  [[noreturn]] void serve(int listener, const std::string& certificate, const std::string& key);
  void serveConnection(void* tlsContext, int socket);

  Counters* counters_ = nullptr;  // shared with the child
  uint16_t port_ = 0;
  pid_t process_ = 0;
};

}  // namespace zun::bench
