#pragma once

namespace zun {

/// Holds SIGINT and SIGTERM back as long as it lives, and makes them something to wait for.
class EndingSignals final {
 public:
  EndingSignals();
  ~EndingSignals();
  EndingSignals(const EndingSignals&) = delete;
  EndingSignals& operator=(const EndingSignals&) = delete;

  enum class Event { kSignal, kReadable, kTimeout };
  /// Waits for a signal, for `descriptor` to be readable or at its end, or for as many
  /// milliseconds; -1 sets no limit. A signal comes first.
  [[nodiscard]] Event wait(int descriptor, int milliseconds) const;

 private:
  int signals_ = -1;
};

}  // namespace zun
