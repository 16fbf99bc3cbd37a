#include "util/MemoryUse.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

namespace zun {
namespace {

const std::string kLong(100, 'x');  // does not fit inline

int32_t sizeOf(const Value& value) {
  return static_cast<int32_t>(value.allocationSize());
}

TEST(EstimatedObjectSizeTest, ScalarIsItsOwnBlock) {
  const Value text(kLong);
  EXPECT_GE(sizeOf(text), 100);
  EXPECT_EQ(estimatedObjectSize(text), sizeOf(text));
  EXPECT_EQ(estimatedObjectSize(Value(5)), 0);
  EXPECT_EQ(estimatedObjectSize(Value()), 0);
}

TEST(EstimatedObjectSizeTest, ElementsOfAnArrayCountTwice) {
  const Value text(kLong);
  const Value array(Array{text, 1, text});
  EXPECT_EQ(estimatedObjectSize(array), sizeOf(array) + 4 * sizeOf(text));
}

TEST(EstimatedObjectSizeTest, KeysCountOnceAndValuesTwice) {
  const Value key(kLong);
  const Value text(kLong + kLong);
  Dictionary dictionary;
  dictionary.set(key, text);
  const Value value(dictionary);
  EXPECT_EQ(estimatedObjectSize(value), sizeOf(value) + sizeOf(key) + 2 * sizeOf(text));
}

TEST(EstimatedObjectSizeTest, NestedBlocksCountOnceMoreInTheirContainerOnly) {
  const Value text(kLong);
  const Value inner(Array{text});
  const Value outer(Array{inner});
  const int32_t innerEstimate = sizeOf(inner) + 2 * sizeOf(text);
  EXPECT_EQ(estimatedObjectSize(inner), innerEstimate);
  EXPECT_EQ(estimatedObjectSize(outer), sizeOf(outer) + innerEstimate + sizeOf(inner));
}

TEST(EstimatedObjectSizeTest, SumWrapsAtThirtyTwoBits) {
  const Value block = Value::data(std::string(size_t{1} << 20, 'd'));
  Array array;
  uint64_t expected = 0;
  for (int i = 0; i < 2500; ++i) {  // 2,500 references to one block: 5 GB as it counts
    array.append(block);
    expected += 2 * block.allocationSize();
  }
  const Value value(array);
  expected += value.allocationSize();
  ASSERT_GT(expected, uint64_t{1} << 32);
  EXPECT_EQ(estimatedObjectSize(value), static_cast<int32_t>(static_cast<uint32_t>(expected)));
}

TEST(ProcessMemoryTest, GrowsWithWhatTheProcessTouches) {
  const uint64_t before = processMemoryInUse();
  ASSERT_GT(before, 0U);
  constexpr size_t kBytes = size_t{64} << 20;
  const auto block = std::make_unique<char[]>(kBytes);
  std::memset(block.get(), 1, kBytes);
  EXPECT_GE(processMemoryInUse(), before + kBytes / 2);
  EXPECT_EQ(block[kBytes - 1], 1);
}

}  // namespace
}  // namespace zun
