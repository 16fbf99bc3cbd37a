#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "harness/Sink.h"
#include "support/ScratchFolder.h"
#include "values/Value.h"

namespace zun::bench {

struct DaemonSetup {
  /// With the readable copy the user allows diagnostics: answers carry the text of what was
  /// posted and the message log is written. Without it the storebag overrides the choice.
  enum class ReadableCopy : bool { kNone, kWritten };

  std::string program;
  int recordsAPost = 500;
  ReadableCopy readableCopy = ReadableCopy::kNone;
  size_t filters = 20;
  size_t storebagBytes = 0;    // filled up with entries of other clients, which come first
  uint16_t dashboardPort = 0;  // not 0: events go there alone
};

/// The real daemon in a scratch root, with every rule of the storebag in use and its posts
/// going to a real HTTPS server.
class DaemonUnderTest final {
 public:
  explicit DaemonUnderTest(const DaemonSetup& setup);
  ~DaemonUnderTest();
  DaemonUnderTest(const DaemonUnderTest&) = delete;
  DaemonUnderTest& operator=(const DaemonUnderTest&) = delete;

  [[nodiscard]] const std::string& socketPath() const { return socketPath_; }
  [[nodiscard]] pid_t process() const { return process_; }
  [[nodiscard]] const Sink& sink() const { return sink_; }
  /// From exec until it took a connection.
  [[nodiscard]] std::chrono::nanoseconds startTime() const { return startTime_; }

 private:
  void prepare(const DaemonSetup& setup) const;
  [[nodiscard]] Array clients(const DaemonSetup& setup) const;
  void start(const std::string& program);
  [[nodiscard]] bool connects() const;

  const ScratchFolder folder_;
  const std::string root_;
  const std::string socketPath_;
  const Sink sink_;
  std::chrono::nanoseconds startTime_{0};
  pid_t process_ = 0;
};

}  // namespace zun::bench
