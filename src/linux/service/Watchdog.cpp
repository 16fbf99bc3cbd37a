#include "linux/service/Watchdog.h"

#include <algorithm>

namespace zun {

Watchdog::Watchdog(EventLoop& loop, SystemLog& log) : loop_(loop), log_(log) {
  loop_.setVitalSign([this](std::chrono::microseconds limit) { return doAllMove(limit); });
}

Watchdog::~Watchdog() {
  loop_.setVitalSign(nullptr);
}

bool Watchdog::doAllMove(std::chrono::microseconds limit) {
  const auto now = Heartbeat::Clock::now();
  const auto still = std::find_if(heartbeats_.begin(), heartbeats_.end(),
                                  [&](const auto& heartbeat) { return heartbeat->standsStill(now, limit); });
  const bool allMove = still == heartbeats_.end();
  if (!allMove && !isTold_) log_.error("watchdog: {} stands still", (*still)->name());
  isTold_ = !allMove;
  return allMove;
}

}  // namespace zun
