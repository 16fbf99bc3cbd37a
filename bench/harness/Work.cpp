#include "harness/Work.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace zun::bench {

namespace {

constexpr std::chrono::microseconds kPause{100};
constexpr std::chrono::seconds kLongest{60};

/// Waits for progress of what is counted elsewhere, and ends the benchmark where none comes: something was
/// lost.
class Patience final {
 public:
  void wait(uint64_t done) {
    const auto now = std::chrono::steady_clock::now();
    if (done != done_) {
      done_ = done;
      since_ = now;
    } else if (now - since_ > kLongest) {
      std::fprintf(stderr, "after %llu nothing has arrived for a minute\n",
                   static_cast<unsigned long long>(done));
      std::exit(1);
    }
    std::this_thread::sleep_for(kPause);
  }

 private:
  uint64_t done_ = 0;
  std::chrono::steady_clock::time_point since_ = std::chrono::steady_clock::now();
};

}  // namespace

uint64_t Work::take(uint64_t wanted, uint64_t& first) {
  Patience patience;
  while (true) {
    {
      const MutexLock lock(mutex_);
      uint64_t granted = std::min(wanted, events_ - given_);
      if (done_) {
        // A datagram that is sent twice counts twice.
        const uint64_t done = std::min(done_() - before_, given_);
        granted = std::min(granted, most_ - std::min(most_, given_ - done));
      }
      if (granted > 0 || given_ == events_) {
        first = given_;
        given_ += granted;
        return granted;
      }
    }
    patience.wait(done_());
  }
}

void Work::waitUntilDone() const {
  if (!done_) return;
  Patience patience;
  for (uint64_t done = done_(); done - before_ < events_; done = done_()) patience.wait(done);
}

}  // namespace zun::bench
