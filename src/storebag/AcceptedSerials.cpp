#include "storebag/AcceptedSerials.h"

#include <fmt/format.h>

#include <algorithm>

namespace zun {

namespace {

std::string keyOf(std::string_view name) {
  return fmt::format("CACHED_{}_serial", name);
}

}  // namespace

std::optional<int64_t> AcceptedSerials::of(std::string_view name) const {
  const MutexLock lock(mutex_);
  return highest(name);
}

std::optional<int64_t> AcceptedSerials::highest(std::string_view name) const {
  const Value stored = defaults_.objectForKey(kReportingSuite, keyOf(name));
  const auto kept = stored.isInteger() ? std::optional(stored.intValue()) : std::nullopt;
  const auto noted = noted_.find(name);
  return noted == noted_.end() ? kept : std::max(kept, std::optional(noted->second));
}

void AcceptedSerials::note(std::string_view name, int64_t serial) {
  const MutexLock lock(mutex_);
  if (const auto known = highest(name); known && *known >= serial) return;
  noted_.insert_or_assign(std::string(name), serial);
  toBeKept_.insert(std::string(name));
}

void AcceptedSerials::keep(std::string_view name) {
  {
    const MutexLock lock(mutex_);
    if (toBeKept_.erase(std::string(name)) == 0) return;
  }
  const MutexLock turn(keeping_);
  if (const auto serial = of(name)) defaults_.setObject(kReportingSuite, keyOf(name), *serial);
}

}  // namespace zun
