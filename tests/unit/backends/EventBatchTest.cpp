#include "backends/EventBatch.h"

#include <gtest/gtest.h>

#include <string>

#include "util/MemoryUse.h"

namespace zun {
namespace {

Dictionary recordOf(size_t bytes) {
  return {{"text", std::string(bytes, 'x')}};
}

class EventBatchTest : public ::testing::Test {
 protected:
  static constexpr size_t kBudget = size_t{40} << 20;
  /// What batches took is `bytes`, or what they take ahead more.
  void expectTaken(size_t bytes) const {
    EXPECT_GE(kBudget - memory_->left(), bytes);
    EXPECT_LE(kBudget - memory_->left(), bytes + MemoryShare::kUsualStep);
  }

  const std::shared_ptr<MemoryBudget> memory_ = std::make_shared<MemoryBudget>(kBudget);
};

TEST_F(EventBatchTest, SizeIsTheSumOfItsRecordsEstimates) {
  EventBatch batch(memory_);
  EXPECT_EQ(batch.estimatedSize(), 0U);
  const Dictionary small = recordOf(100);  // the same blocks: equal ones may be larger by chance
  const Dictionary large = recordOf(5000);
  batch.append(small);
  batch.append(large);
  const auto expected =
      static_cast<uint32_t>(estimatedObjectSize(Value(small)) + estimatedObjectSize(Value(large)));
  EXPECT_EQ(batch.estimatedSize(), expected);
  expectTaken(expected);
}

TEST_F(EventBatchTest, SizeFollowsWhatIsWrittenIntoAllRecords) {
  EventBatch batch(memory_);
  batch.append(recordOf(100));
  batch.append(recordOf(5000));
  batch.setInAllRecords("_sessionID", std::string(300, 'i'));
  const uint32_t told = batch.estimatedSize();
  uint32_t expected = 0;
  for (const Dictionary& record : batch.takeRecords())
    expected += static_cast<uint32_t>(estimatedObjectSize(Value(record)));
  EXPECT_EQ(told, expected);
  EXPECT_GT(told, 5100U + 2 * 300U);
}

TEST_F(EventBatchTest, RecordsBeyondTheBoundAreDroppedAndTheFirstOneIsNoted) {
  EventBatch batch(memory_);
  size_t taken = 0;
  while (batch.append(recordOf(1 << 20)) == EventBatch::Room::kTaken) ++taken;
  EXPECT_GE(taken, 7U);
  EXPECT_LE(taken, 16U);
  EXPECT_LE(batch.estimatedSize(), EventBatch::kMaximumBytes);
  EXPECT_TRUE(batch.noteOverflow());
  EXPECT_FALSE(batch.noteOverflow());
  EXPECT_EQ(batch.append(recordOf(16)), EventBatch::Room::kTaken);  // a small one still fits
  EXPECT_EQ(batch.takeRecords().size(), taken + 1);
}

// The mark is a count of the first records: it would take filtered ones with it.
TEST_F(EventBatchTest, NoRecordIsUnfilteredBehindAFilteredOne) {
  EventBatch batch(memory_);
  batch.append(recordOf(1), EventBatch::Filtered::kNo);
  batch.append(recordOf(2), EventBatch::Filtered::kNo);
  batch.append(recordOf(3), EventBatch::Filtered::kYes);
  EXPECT_EQ(batch.unfilteredRecords(), 2U);
  EXPECT_DEATH(batch.append(recordOf(4), EventBatch::Filtered::kNo), "");
}

TEST_F(EventBatchTest, AllBatchesTogetherHaveABoundAndGiveBackWhatTheyTook) {
  const auto fill = [](EventBatch& batch) {
    EventBatch::Room room = EventBatch::Room::kTaken;
    while (room == EventBatch::Room::kTaken) room = batch.append(recordOf(1 << 20));
    return room;
  };
  {
    EventBatch first(memory_);
    EventBatch second(memory_);
    EventBatch third(memory_);
    EXPECT_EQ(fill(first), EventBatch::Room::kBatchFull);
    EXPECT_EQ(fill(second), EventBatch::Room::kBatchFull);
    EXPECT_EQ(fill(third), EventBatch::Room::kShareFull);
    EXPECT_LE(first.estimatedSize() + second.estimatedSize() + third.estimatedSize(), kBudget);
    const auto records = first.takeRecords();  // its end alone makes room, not the taking
    EXPECT_EQ(fill(third), EventBatch::Room::kShareFull);
  }
  EXPECT_EQ(memory_->left(), kBudget);
}

// However small its events are: what others find is what counts.
TEST_F(EventBatchTest, BatchIsHeldToTheShareOfItsHolder) {
  const BudgetHolder holder{1000, 1};
  EventBatch first(memory_, holder);
  EventBatch second(memory_, holder);
  const Dictionary record = recordOf(10'000);
  while (first.append(record) == EventBatch::Room::kTaken) continue;
  EXPECT_EQ(first.append(recordOf(0)), EventBatch::Room::kTaken);  // to the last of it
  EXPECT_LE(first.estimatedSize(), kBudget / 4);
  EXPECT_GT(first.estimatedSize(), kBudget / 4 - 20'000);
  EXPECT_EQ(second.append(record), EventBatch::Room::kShareFull);
  EXPECT_EQ(EventBatch(memory_, {1000, 2}).append(record), EventBatch::Room::kTaken);
}

TEST_F(EventBatchTest, SetInAllRecordsReplacesOrAdds) {
  EventBatch batch(memory_);
  batch.append({{"id", 1}});
  batch.append({{"other", 1}});
  batch.setInAllRecords("id", "new");
  for (const Dictionary& record : batch.takeRecords()) EXPECT_EQ(record["id"], Value("new"));
}

// Many small records times one long identifier must not exceed what a batch may hold.
TEST_F(EventBatchTest, WhatIsWrittenIntoAllRecordsCountsAgainstTheBoundAndDropsTheLastOnes) {
  EventBatch batch(memory_);
  for (int i = 0; i < 2'000; ++i) batch.append({{"number", i}});
  const std::string identifier(10'000, 'i');
  const size_t dropped = batch.setInAllRecords("_sessionID", identifier);
  EXPECT_LE(batch.estimatedSize(), EventBatch::kMaximumBytes);
  EXPECT_GT(batch.estimatedSize(), EventBatch::kMaximumBytes - 3 * identifier.size());
  expectTaken(batch.estimatedSize());
  const std::vector<Dictionary> records = batch.takeRecords();
  EXPECT_EQ(records.size() + dropped, 2'000U);
  for (size_t i = 0; i < records.size(); ++i) ASSERT_EQ(records[i]["number"], Value(i));
}

TEST_F(EventBatchTest, WhatIsWrittenIntoAllRecordsCountsAgainstTheBudgetOfAllBatches) {
  EventBatch batch(memory_);
  for (int i = 0; i < 10; ++i) batch.append({{"number", i}});
  const size_t others = memory_->left() - 50'000;
  ASSERT_TRUE(memory_->take(others));
  EXPECT_EQ(batch.setInAllRecords("_sessionID", std::string(10'000, 'i')), 8U);
  expectTaken(others + batch.estimatedSize());
}

TEST_F(EventBatchTest, ShorterValueInAllRecordsMakesRoom) {
  EventBatch batch(memory_);
  while (batch.append({{"_sessionID", std::string(10'000, 'i')}}) == EventBatch::Room::kTaken) continue;
  EXPECT_EQ(batch.setInAllRecords("_sessionID", "1"), 0U);
  expectTaken(batch.estimatedSize());
  EXPECT_EQ(batch.append(recordOf(1 << 20)), EventBatch::Room::kTaken);
}

TEST_F(EventBatchTest, CountsAreKeptPerMethod) {
  EventBatch batch(memory_);
  EXPECT_EQ(batch.countOfMethod(5), 0);
  batch.setCountOfMethod(5, 3);
  EXPECT_EQ(batch.countOfMethod(5), 3);
  EXPECT_EQ(batch.countOfMethod(6), 0);
}

}  // namespace
}  // namespace zun
