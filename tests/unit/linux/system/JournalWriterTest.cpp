#include "linux/system/JournalWriter.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "linux/system/SystemLogs.h"
#include "support/JournalStandIn.h"
#include "support/ScratchFolder.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

class JournalWriterTest : public ::testing::Test {
 protected:
  static std::string entryOf(const std::string& message) {
    std::string entry;
    appendJournalField(entry, "MESSAGE", message);
    return entry;
  }

  ScratchFolder scratch_;
  const std::string path_ = scratch_.path("journal");
};

TEST_F(JournalWriterTest, LinesOfTheLogAreEntriesWithTheirPriority) {
  JournalStandIn journal(path_);
  JournalLog log(LogLevel::kDebug, path_);
  log.debug("one");
  log.note("two\nlines, PRIORITY=0");
  log.error("three");
  for (const auto& [message, priority] :
       {std::pair("one", "7"), {"two\nlines, PRIORITY=0", "5"}, {"three", "3"}}) {
    const std::map<std::string, std::string> expected{
        {"MESSAGE", message}, {"PRIORITY", priority}, {"SYSLOG_IDENTIFIER", "zunreportingd"}};
    EXPECT_EQ(journal.receive(), expected);
  }
}

// Log lines are written under locks that everybody needs.
TEST_F(JournalWriterTest, JournalThatDoesNotReadHoldsNobodyUpAndWhatItLosesIsCounted) {
  JournalStandIn journal(path_);
  JournalWriter writer(path_);
  constexpr int kMany = 400;
  const std::string padding(8192, 'x');  // three times what may wait
  for (int i = 0; i < kMany; ++i) writer.write(entryOf(std::to_string(i) + " " + padding));

  int next = 0;
  int dropped = 0;
  while (next + dropped < kMany) {
    const auto fields = journal.receive();
    const std::string message = fields.at("MESSAGE");
    int count = 0;
    if (std::sscanf(message.c_str(), "log: %d entries were dropped while the journal did not read", &count) ==
        1) {
      EXPECT_EQ(fields.at("PRIORITY"), "3");
      dropped += count;
    } else {
      EXPECT_EQ(message, std::to_string(next + dropped) + " " + padding);
      ++next;
    }
    if (journal.isEmpty()) writer.writeOut();  // so that the last count comes
  }
  EXPECT_GT(dropped, 0);
  EXPECT_GT(next, static_cast<int>(JournalWriter::kMaximumWaitingBytes / 8300));
}

TEST_F(JournalWriterTest, WhatWaitsIsWrittenOutAtTheEnd) {
  JournalStandIn journal(path_);
  auto writer = std::make_unique<JournalWriter>(path_, 1h);
  constexpr int kMany = 1000;  // more than a socket takes
  for (int i = 0; i < kMany; ++i) writer->write(entryOf(std::to_string(i)));
  std::thread ending([&writer] { writer.reset(); });
  for (int i = 0; i < kMany; ++i) EXPECT_EQ(journal.receive()["MESSAGE"], std::to_string(i));
  ending.join();
  EXPECT_TRUE(journal.isEmpty());
}

TEST_F(JournalWriterTest, LossesAreToldAtTheEndToo) {
  JournalStandIn journal(path_);
  auto writer = std::make_unique<JournalWriter>(path_, 1h);
  writer->write(std::string(JournalWriter::kMaximumWaitingBytes + 1, 'x'));
  writer.reset();
  EXPECT_EQ(journal.receive()["MESSAGE"], "log: 1 entries were dropped while the journal did not read");
}

TEST_F(JournalWriterTest, LossIsToldOnceBeforeWhatCameAfterIt) {
  JournalStandIn journal(path_);
  JournalWriter writer(path_);
  writer.write(std::string(JournalWriter::kMaximumWaitingBytes + 1, 'x'));
  for (const char* const message : {"one", "two"}) writer.write(entryOf(message));
  EXPECT_EQ(journal.receive()["MESSAGE"], "log: 1 entries were dropped while the journal did not read");
  EXPECT_EQ(journal.receive()["MESSAGE"], "one");
  EXPECT_EQ(journal.receive()["MESSAGE"], "two");
}

TEST_F(JournalWriterTest, OnlyWhatWaitsIsBounded) {
  JournalStandIn journal(path_);
  JournalWriter writer(path_, std::chrono::hours(1));
  const std::string message(100'000, 'x');
  for (size_t written = 0; written < 3 * JournalWriter::kMaximumWaitingBytes; written += message.size()) {
    writer.write(entryOf(message));
    EXPECT_EQ(journal.receive()["MESSAGE"], message);
    writer.writeOut();
  }
}

TEST_F(JournalWriterTest, EndWaitsNoLongerThanItsPatienceForAJournalThatDoesNotRead) {
  const JournalStandIn journal(path_);
  JournalWriter writer(path_, 1ms);
  for (int i = 0; i < 1000; ++i) writer.write(entryOf(std::to_string(i)));
}

TEST_F(JournalWriterTest, JournalThatIsStartedAnewIsFoundAgain) {
  JournalWriter writer(path_);
  writer.write(entryOf("nobody is there"));
  writer.writeOut();
  auto journal = std::make_unique<JournalStandIn>(path_);
  writer.write(entryOf("one"));
  EXPECT_EQ(journal->receive()["MESSAGE"], "one");
  journal = nullptr;
  journal = std::make_unique<JournalStandIn>(path_);
  writer.write(entryOf("two"));
  EXPECT_EQ(journal->receive()["MESSAGE"], "two");
}

TEST_F(JournalWriterTest, PathThatIsTooLongForASocketIsNoJournal) {
  JournalWriter writer(std::string(200, 'x'), 1h);
  writer.write(entryOf("lost"));
  writer.writeOut();
}

}  // namespace
}  // namespace zun
