#include "storebag/AcceptedSerials.h"

#include <fmt/format.h>

#include <algorithm>

namespace zun {

namespace {

std::string keyOf(std::string_view name) {
  return fmt::format("CACHED_{}_serial", name);
}

}  // namespace

AcceptedSerials::Serial AcceptedSerials::of(std::string_view name) const {
  const MutexLock lock(mutex_);
  return highest(name);
}

AcceptedSerials::Serial AcceptedSerials::highest(std::string_view name) const {
  const auto stored = defaults_.objectIfReadable(kReportingSuite, keyOf(name));
  if (!stored) return Serial::failure(Unknown::kUnreadable);
  const auto kept = stored->isInteger() ? std::optional(stored->intValue()) : std::nullopt;
  const auto noted = noted_.find(name);
  return noted == noted_.end() ? kept : std::max(kept, std::optional(noted->second));
}

void AcceptedSerials::note(std::string_view name, int64_t serial) {
  const MutexLock lock(mutex_);
  if (const auto known = highest(name); known && *known >= serial) return;
  int64_t& noted = noted_.try_emplace(std::string(name), serial).first->second;
  noted = std::max(noted, serial);
  toBeKept_.insert(std::string(name));
}

void AcceptedSerials::keep(std::string_view name) {
  {
    const MutexLock lock(mutex_);
    if (toBeKept_.erase(std::string(name)) == 0) return;
  }
  const MutexLock turn(keeping_);
  if (write(name)) return;
  const MutexLock lock(mutex_);
  toBeKept_.insert(std::string(name));
}

bool AcceptedSerials::write(std::string_view name) {
  const Serial serial = of(name);
  if (!serial || !*serial) return false;
  defaults_.setObject(kReportingSuite, keyOf(name), **serial);
  return defaults_.objectForKey(kReportingSuite, keyOf(name)) == Value(**serial);
}

}  // namespace zun
