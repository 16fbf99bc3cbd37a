#include "linux/dbus/RefusalLog.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace zun {

namespace {

/// Strangers are turned away every day; the others would have been served.
void tell(SystemLog& log, RefusalLog::Cause cause, const std::string& line) {
  if (cause == RefusalLog::Cause::kNotEntitled) {
    log.note("listener: {}", line);
  } else {
    log.error("listener: {}", line);
  }
}

}  // namespace

void RefusalLog::refused(Cause cause, std::string connection, std::string reason, Time now) {
  const MutexLock lock(mutex_);
  Counted& counted = causes_[static_cast<size_t>(cause)];
  if (tellsAtOnce(counted, now)) {
    tell(log_, cause,
         connection.empty() ? fmt::format("a connection is refused: {}", reason)
                            : fmt::format("a connection of {} is refused: {}", connection, reason));
    counted.told = now;
    return;
  }
  ++counted.untold;
  counted.connection = std::move(connection);
  counted.reason = std::move(reason);
}

bool RefusalLog::tellsAtOnce(Cause cause, Time now) {
  const MutexLock lock(mutex_);
  return tellsAtOnce(causes_[static_cast<size_t>(cause)], now);
}

std::optional<RefusalLog::Time> RefusalLog::tellCounted(Time now) {
  std::optional<Time> next;
  const MutexLock lock(mutex_);
  for (size_t cause = 0; cause < kCauses; ++cause) {
    Counted& counted = causes_[cause];
    if (counted.untold == 0) continue;
    const Time due = *counted.told + kInterval;
    if (now < due) {
      next = std::min(next.value_or(due), due);
      continue;
    }
    const std::string last = counted.connection.empty() ? "" : ", the last of " + counted.connection;
    tell(log_, static_cast<Cause>(cause),
         fmt::format("{} more connections are refused{}: {}", counted.untold, last, counted.reason));
    counted.told = now;
    counted.untold = 0;
  }
  return next;
}

}  // namespace zun
