#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace zun::bench {

/// CPU time of a process so far, all its threads.
[[nodiscard]] std::chrono::microseconds cpuTimeOf(pid_t process);

/// The real daemon in a scratch root, with a signed storebag in its disk cache.
class DaemonUnderTest final {
 public:
  /// `postURL`: where its storebag sends events; `caFile` vouches for it.
  DaemonUnderTest(const std::string& program, const std::string& folder, const std::string& postURL,
                  const std::string& caFile, int eventThreshold);
  ~DaemonUnderTest();

  [[nodiscard]] const std::string& socketPath() const { return socketPath_; }
  [[nodiscard]] pid_t process() const { return process_; }
  [[nodiscard]] uint64_t residentKilobytes() const;

 private:
  void prepare(const std::string& postURL, int eventThreshold) const;

  const std::string root_;
  const std::string socketPath_;
  pid_t process_ = 0;
};

}  // namespace zun::bench
