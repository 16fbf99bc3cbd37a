#pragma once

#include <sys/types.h>

#include <string>

#include "harness/Sink.h"
#include "support/ScratchFolder.h"

namespace zun::bench {

/// syslog-ng in a scratch folder: takes lines of JSON on a Unix stream socket, adds constant
/// keys as many as our context has, and posts them in batches over HTTPS. It compresses nothing.
class SyslogNG final {
 public:
  /// How the constant keys come in: the line is parsed and written anew, or they are text put
  /// before the line as it is, which is the least that it could do.
  enum class Keys { kMerged, kPrefixed };

  SyslogNG(int recordsAPost, Keys keys);
  ~SyslogNG();
  SyslogNG(const SyslogNG&) = delete;
  SyslogNG& operator=(const SyslogNG&) = delete;

  [[nodiscard]] static bool isInstalled();

  [[nodiscard]] pid_t process() const { return process_; }
  [[nodiscard]] const Sink& sink() const { return sink_; }
  [[nodiscard]] double bytesAnEvent() const;
  void write(const std::string& lines) const;

 private:
  [[nodiscard]] std::string configuration(int recordsAPost, Keys keys) const;
  [[nodiscard]] std::string socketPath() const { return folder_.path("socket"); }
  void start();

  const ScratchFolder folder_;
  const Sink sink_;
  pid_t process_ = 0;
  int socket_ = -1;
};

}  // namespace zun::bench
