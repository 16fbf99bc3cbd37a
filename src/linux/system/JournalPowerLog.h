#pragma once

#include <memory>
#include <string_view>

#include "linux/system/JournalWriter.h"
#include "platform/PowerLog.h"
#include "platform/SystemLog.h"

namespace zun {

/// The power log beside `log`: the journal where that leads there, else lines of `log`,
/// which outlives it.
[[nodiscard]] std::unique_ptr<PowerLog> makePowerLog(SystemLog& log);

/// One line of the system log, of default level, per event. Any thread.
class LinePowerLog final : public PowerLog {
 public:
  explicit LinePowerLog(SystemLog& log) : log_(log) {}

  void writeEvent(uint32_t category, std::string_view sender, const Dictionary& event) override;

 private:
  SystemLog& log_;
};

/// One journal entry per event, with the fields ZUN_POWER_CATEGORY, ZUN_POWER_SENDER and
/// ZUN_POWER_EVENT (JSON).
///
/// Threading: any thread. Ownership: `journal` outlives it.
class JournalPowerLog final : public PowerLog {
 public:
  /// JSON beyond it is cut and ends with its length.
  static constexpr size_t kMaximumEventBytes = size_t{64} << 10;

  explicit JournalPowerLog(JournalWriter& journal) : journal_(journal) {}

  void writeEvent(uint32_t category, std::string_view sender, const Dictionary& event) override;

 private:
  JournalWriter& journal_;
};

}  // namespace zun
