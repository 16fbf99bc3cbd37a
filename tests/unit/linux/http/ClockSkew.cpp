#include "unit/linux/http/ClockSkew.h"

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string_view>

namespace {

std::atomic<time_t> skew{0};

bool isTransferThread() {
  char name[16] = "";
  return ::prctl(PR_GET_NAME, name) == 0 && std::string_view(name) == "zun-transfers";
}

}  // namespace

// In the place of the C library's, which every library of this process asks.
extern "C" int clock_gettime(clockid_t clock, struct timespec* time) noexcept {
  const long outcome = ::syscall(SYS_clock_gettime, clock, time);
  const time_t ahead = skew.load();
  if (outcome == 0 && ahead != 0 && clock == CLOCK_MONOTONIC && isTransferThread()) time->tv_sec += ahead;
  return static_cast<int>(outcome);
}

namespace zun {

ClockSkew::~ClockSkew() {
  skew = 0;
}

void ClockSkew::advance(std::chrono::seconds by) {
  skew += by.count();
}

}  // namespace zun
