#include "platform/PowerLog.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>

#include "linux/system/JournalPowerLog.h"
#include "support/JournalStandIn.h"
#include "support/RecordingLog.h"
#include "support/ScratchFolder.h"
#include "values/UTF8.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

class PowerLogTest : public ::testing::Test {
 protected:
  std::vector<std::string> lines() const { return log_.linesOf(LogLevel::kDefault); }

  ScratchFolder scratch_;
  const std::string path_ = scratch_.path("journal");
  RecordingLog log_;
  /// Patience of a test that does not stall is not used up.
  JournalPowerLog powerLog_{log_, path_, 1ms};
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

TEST_F(PowerLogTest, WithoutAJournalEventsBecomeLinesOfTheSystemLog) {
  powerLog_.writeEvent(28, "Pallax-ZUN", {{"level", 42}});
  EXPECT_EQ(lines(),
            (std::vector<std::string>{R"(power event: category 28, sender Pallax-ZUN, {"level":42})"}));
}

TEST_F(PowerLogTest, JournalThatIsStartedAnewIsFoundAgain) {
  auto journal = std::make_unique<JournalStandIn>(path_);
  powerLog_.writeEvent(1, "s", {{"a", 1}});
  EXPECT_EQ(journal->receive()["ZUN_POWER_EVENT"], R"({"a":1})");
  journal.reset();
  powerLog_.writeEvent(1, "s", {{"a", 2}});
  EXPECT_EQ(lines(), (std::vector<std::string>{R"(power event: category 1, sender s, {"a":2})"}));
  journal = std::make_unique<JournalStandIn>(path_);
  powerLog_.writeEvent(1, "s", {{"a", 3}});
  EXPECT_EQ(journal->receive()["ZUN_POWER_EVENT"], R"({"a":3})");
}

TEST_F(PowerLogTest, JournalThatDoesNotReadLosesEventsAndTheirNumberIsTold) {
  JournalStandIn journal(path_);
  constexpr int kMany = 2000;  // more than any system lets wait
  for (int i = 0; i < kMany; ++i) powerLog_.writeEvent(28, "s", {{"number", i}});
  EXPECT_TRUE(lines().empty());
  int waiting = 0;
  while (!journal.isEmpty()) {
    EXPECT_EQ(journal.receive()["ZUN_POWER_EVENT"], fmt::format(R"({{"number":{}}})", waiting));
    ++waiting;
  }
  ASSERT_LT(waiting, kMany);
  powerLog_.writeEvent(28, "s", {{"number", -1}});
  EXPECT_EQ(journal.receive()["ZUN_POWER_EVENT"], R"({"number":-1})");
  EXPECT_EQ(lines(),
            (std::vector<std::string>{fmt::format(
                "power event: {} of them were dropped while the journal did not read", kMany - waiting)}));
}

TEST_F(PowerLogTest, PathThatIsTooLongForASocketIsNoJournal) {
  JournalPowerLog powerLog(log_, std::string(200, 'x'));
  powerLog.writeEvent(1, "s", {{"a", 1}});
  EXPECT_EQ(lines().size(), 1U);
}

TEST_F(PowerLogTest, LinesAreBoundedAsAllLinesAre) {
  LinePowerLog(log_).writeEvent(28, "s", {{"text", std::string(1 << 20, 'x')}});
  ASSERT_EQ(lines().size(), 1U);
  EXPECT_LT(lines()[0].size(), SystemLog::kMaximumLineBytes + 40);
}

// The system's log at standard error takes the events too.
TEST_F(PowerLogTest, LogToStandardErrorTakesPowerEventsAsLines) {
  makePowerLog(LogTarget::kStderr, log_)->writeEvent(28, "s", {{"a", 1}});
  EXPECT_EQ(lines(), (std::vector<std::string>{R"(power event: category 28, sender s, {"a":1})"}));
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
