#include "platform/PowerLog.h"

#include <gtest/gtest.h>

#include "linux/system/JournalPowerLog.h"
#include "linux/system/SystemLogs.h"
#include "support/JournalStandIn.h"
#include "support/RecordingLog.h"
#include "support/ScratchFolder.h"
#include "values/UTF8.h"

namespace zun {
namespace {

class PowerLogTest : public ::testing::Test {
 protected:
  std::vector<std::string> lines() const { return log_.linesOf(LogLevel::kDefault); }

  ScratchFolder scratch_;
  const std::string path_ = scratch_.path("journal");
  RecordingLog log_;
  JournalWriter writer_{path_};
  JournalPowerLog powerLog_{writer_};
};

TEST_F(PowerLogTest, EventBecomesAJournalEntryWithFields) {
  JournalStandIn journal(path_);
  powerLog_.writeEvent(28, "Pallax-ZUN", {{"level", 42}, {"note", "two\nlines"}});
  const std::map<std::string, std::string> expected{
      {"MESSAGE", "power event: category 28, sender Pallax-ZUN"},
      {"PRIORITY", "6"},
      {"SYSLOG_IDENTIFIER", "zunreportingd"},
      {"ZUN_POWER_CATEGORY", "28"},
      {"ZUN_POWER_SENDER", "Pallax-ZUN"},
      {"ZUN_POWER_EVENT", R"({"level":42,"note":"two\nlines"})"}};
  EXPECT_EQ(journal.receive(), expected);
  EXPECT_TRUE(log_.lines().empty());
}

// A value can never pass for a field of its own.
TEST_F(PowerLogTest, LineEndsInASenderStayInItsField) {
  JournalStandIn journal(path_);
  powerLog_.writeEvent(28, "x\nPRIORITY=0", {{"a", 1}});
  const auto fields = journal.receive();
  EXPECT_EQ(fields.at("ZUN_POWER_SENDER"), "x\nPRIORITY=0");
  EXPECT_EQ(fields.at("PRIORITY"), "6");
}

TEST_F(PowerLogTest, LargeEventsAreCutAndEndWithTheirLength) {
  JournalStandIn journal(path_);
  powerLog_.writeEvent(28, "s", {{"text", std::string(1 << 20, 'x')}});
  const std::string text = journal.receive()["ZUN_POWER_EVENT"];
  EXPECT_EQ(text.substr(0, 12), R"({"text":"xxx)");
  EXPECT_EQ(text.substr(JournalPowerLog::kMaximumEventBytes), "... (1048587 bytes)");
}

TEST_F(PowerLogTest, LinesAreBoundedAsAllLinesAre) {
  LinePowerLog(log_).writeEvent(28, "s", {{"text", std::string(1 << 20, 'x')}});
  ASSERT_EQ(lines().size(), 1U);
  EXPECT_LT(lines()[0].size(), SystemLog::kMaximumLineBytes + 40);
}

// The system's log at standard error takes the events too.
TEST_F(PowerLogTest, LogToStandardErrorTakesPowerEventsAsLines) {
  makePowerLog(log_)->writeEvent(28, "s", {{"a", 1}});
  EXPECT_EQ(lines(), (std::vector<std::string>{R"(power event: category 28, sender s, {"a":1})"}));
}

TEST_F(PowerLogTest, LogToTheJournalTakesPowerEventsAsEntriesInOrderWithItsLines) {
  JournalStandIn journal(path_);
  JournalLog log(LogLevel::kDebug, path_);
  log.note("before");
  makePowerLog(log)->writeEvent(28, "s", {{"a", 1}});
  log.note("after");
  EXPECT_EQ(journal.receive()["MESSAGE"], "before");
  EXPECT_EQ(journal.receive()["ZUN_POWER_EVENT"], R"({"a":1})");
  EXPECT_EQ(journal.receive()["MESSAGE"], "after");
}

TEST(CutLongTextTest, TextIsCutBetweenCharacters) {
  const auto cut = [](std::string text, size_t bytes) {
    cutLongText(text, bytes);
    return text;
  };
  EXPECT_EQ(cut("abc", 3), "abc");
  EXPECT_EQ(cut("abcd", 3), "abc... (4 bytes)");
  EXPECT_EQ(cut("a\xC3\xA4x", 2), "a... (4 bytes)");
  EXPECT_EQ(cut("\xC3\xA4", 1), "... (2 bytes)");
  EXPECT_EQ(cut("abc", 0), "... (3 bytes)");
}

}  // namespace
}  // namespace zun
