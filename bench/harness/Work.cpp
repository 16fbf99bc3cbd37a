#include "harness/Work.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace zun::bench {

namespace {
constexpr std::chrono::microseconds kPause{100};
}

uint64_t Work::take(uint64_t wanted, uint64_t& first) {
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
    std::this_thread::sleep_for(kPause);
  }
}

void Work::waitUntilDone() const {
  while (done_ && done_() - before_ < events_) std::this_thread::sleep_for(kPause);
}

}  // namespace zun::bench
