#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zun::bench {

/// An HTTPS server in a process of its own that takes posts, counts them, keeps the first of
/// them and says "{}". It does no more than that, so that it is never what is measured.
class Sink final {
 public:
  /// Forks; call before the process has threads. PEM texts.
  Sink(const std::string& certificate, const std::string& key);
  ~Sink();
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;

  [[nodiscard]] uint16_t port() const { return port_; }
  [[nodiscard]] pid_t process() const { return process_; }
  [[nodiscard]] uint64_t posts() const { return counters_->posts; }
  /// Of the bodies that are plain text.
  [[nodiscard]] uint64_t lines() const { return counters_->lines; }
  /// The bodies that were kept.
  [[nodiscard]] std::vector<std::string> bodies() const;

 private:
  static constexpr size_t kKeptBytes = size_t{4} << 20;
  static constexpr size_t kKeptBodies = 2'000;

  struct Counters {
    std::atomic<uint64_t> posts{0};
    std::atomic<uint64_t> lines{0};
    std::atomic<uint32_t> kept{0};
    uint32_t ends[kKeptBodies];  // of the bodies kept
    char bytes[kKeptBytes];
  };

  [[noreturn]] void serve(int listener, const std::string& certificate, const std::string& key);
  void serveConnection(void* tlsContext, int socket);
  void take(std::string_view head, std::string_view body);
  void keep(std::string_view body);

  Counters* counters_ = nullptr;  // shared with the child
  uint16_t port_ = 0;
  pid_t process_ = 0;
};

}  // namespace zun::bench
