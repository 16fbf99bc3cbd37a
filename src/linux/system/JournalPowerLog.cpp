#include "linux/system/JournalPowerLog.h"

#include <fmt/format.h>

#include <exception>
#include <string>
#include <utility>

#include "linux/system/SystemLogs.h"
#include "values/JSONWriter.h"
#include "values/UTF8.h"

namespace zun {

namespace {

std::string jsonOf(const Dictionary& event) {
  return writeJSON(Value(event), JSONFormat::kCompact);
}

std::string journalEntry(uint32_t category, std::string_view sender, const Dictionary& event) {
  std::string json = jsonOf(event);
  cutLongText(json, JournalPowerLog::kMaximumEventBytes);
  std::string entry;
  entry.reserve(json.size() + 256);
  appendJournalField(entry, "MESSAGE", fmt::format("power event: category {}, sender {}", category, sender));
  appendJournalField(entry, "PRIORITY", "6");
  appendJournalField(entry, "SYSLOG_IDENTIFIER", "zunreportingd");
  appendJournalField(entry, "ZUN_POWER_CATEGORY", fmt::format("{}", category));
  appendJournalField(entry, "ZUN_POWER_SENDER", sender);
  appendJournalField(entry, "ZUN_POWER_EVENT", json);
  return entry;
}

}  // namespace

std::unique_ptr<PowerLog> makePowerLog(SystemLog& log) {
  auto* const journalLog = dynamic_cast<JournalLog*>(&log);
  if (journalLog != nullptr) return std::make_unique<JournalPowerLog>(journalLog->journal());
  return std::make_unique<LinePowerLog>(log);
}

void LinePowerLog::writeEvent(uint32_t category, std::string_view sender, const Dictionary& event) {
  if (!log_.isEnabled(LogLevel::kDefault)) return;
  log_.note("power event: category {}, sender {}, {}", category, sender, jsonOf(event));
}

void JournalPowerLog::writeEvent(uint32_t category, std::string_view sender, const Dictionary& event) {
  try {
    journal_.write(journalEntry(category, sender, event));
  } catch (const std::exception&) {
    // No memory for the entry: the caller's work is worth more.
  }
}

}  // namespace zun
