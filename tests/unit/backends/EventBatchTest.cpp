#include "backends/EventBatch.h"

#include <gtest/gtest.h>

#include <string>

#include "util/MemoryUse.h"

namespace zun {
namespace {

Dictionary recordOf(size_t bytes) {
  return {{"text", std::string(bytes, 'x')}};
}

TEST(EventBatchTest, SizeIsTheSumOfItsRecordsEstimates) {
  EventBatch batch;
  EXPECT_EQ(batch.estimatedSize(), 0U);
  batch.append(recordOf(100));
  batch.append(recordOf(5000));
  const auto expected = static_cast<uint32_t>(estimatedObjectSize(Value(recordOf(100))) +
                                              estimatedObjectSize(Value(recordOf(5000))));
  EXPECT_EQ(batch.estimatedSize(), expected);
}

TEST(EventBatchTest, RecordsBeyondTheBoundAreDroppedAndTheFirstOneIsNoted) {
  EventBatch batch;
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

TEST(EventBatchTest, SetInAllRecordsReplacesOrAdds) {
  EventBatch batch;
  batch.append({{"id", 1}});
  batch.append({{"other", 1}});
  batch.setInAllRecords("id", "new");
  for (const Dictionary& record : batch.takeRecords()) EXPECT_EQ(record["id"], Value("new"));
}

TEST(EventBatchTest, CountsAreKeptPerMethod) {
  EventBatch batch;
  EXPECT_EQ(batch.countOfMethod(5), 0);
  batch.setCountOfMethod(5, 3);
  EXPECT_EQ(batch.countOfMethod(5), 3);
  EXPECT_EQ(batch.countOfMethod(6), 0);
}

}  // namespace
}  // namespace zun
