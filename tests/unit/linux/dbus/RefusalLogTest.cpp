#include "linux/dbus/RefusalLog.h"

#include <gtest/gtest.h>

#include "support/RecordingLog.h"

namespace zun {
namespace {

using namespace std::chrono_literals;
using Cause = RefusalLog::Cause;
using Lines = std::vector<std::string>;

constexpr RefusalLog::Time kStart = 5s;

TEST(RefusalLogTest, OfEachCauseOneLineASecondIsWrittenAndTheRestCounted) {
  RecordingLog log;
  RefusalLog refusals(log);
  for (int count = 0; count < 100; ++count) {
    refusals.refused(Cause::kNotEntitled, "peer " + std::to_string(count), "not entitled", kStart);
    refusals.refused(Cause::kNoPlace, "", "full", kStart + 500ms);
  }
  EXPECT_EQ(log.linesOf(LogLevel::kDefault),
            (Lines{"listener: a connection of peer 0 is refused: not entitled"}));
  EXPECT_EQ(log.takeErrors(), (Lines{"listener: a connection is refused: full"}));
  EXPECT_EQ(refusals.tellCounted(kStart + 999ms), kStart + 1s);
  EXPECT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(refusals.tellCounted(kStart + 1s), kStart + 1500ms);
  EXPECT_EQ(log.linesOf(LogLevel::kDefault)[1],
            "listener: 99 more connections are refused, the last of peer 99: not entitled");
  EXPECT_EQ(refusals.tellCounted(kStart + 1500ms), std::nullopt);
  EXPECT_EQ(log.takeErrors(), (Lines{"listener: 99 more connections are refused: full"}));
}

TEST(RefusalLogTest, ALineOfTheCountIsTheLineOfItsSecond) {
  RecordingLog log;
  RefusalLog refusals(log);
  const auto refuse = [&](RefusalLog::Time now) { refusals.refused(Cause::kNotEntitled, "x", "y", now); };
  refuse(kStart);
  refuse(kStart);
  refuse(kStart + 1s);  // counted still: nobody has told of the one before
  EXPECT_EQ(refusals.tellCounted(kStart + 1s), std::nullopt);
  refuse(kStart + 1999ms);
  EXPECT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(refusals.tellCounted(kStart + 2s), std::nullopt);
  refuse(kStart + 3s);
  EXPECT_EQ(log.linesOf(LogLevel::kDefault),
            (Lines{"listener: a connection of x is refused: y",
                   "listener: 2 more connections are refused, the last of x: y",
                   "listener: 1 more connections are refused, the last of x: y",
                   "listener: a connection of x is refused: y"}));
}

TEST(RefusalLogTest, WhatWasCountedIsToldAtTheEnd) {
  RecordingLog log;
  {
    RefusalLog refusals(log);
    refusals.refused(Cause::kShortage, "", "y", kStart);
    refusals.refused(Cause::kShortage, "", "y", kStart);
  }
  EXPECT_EQ(log.takeErrors(),
            (Lines{"listener: a connection is refused: y", "listener: 1 more connections are refused: y"}));
}

}  // namespace
}  // namespace zun
