#include "backends/EventBatch.h"

#include <algorithm>
#include <utility>

#include "util/MemoryUse.h"
#include "values/Check.h"

namespace zun {

EventBatch::Room EventBatch::append(Dictionary record, Filtered filtered) {
  ZUN_CHECK(filtered == Filtered::kYes || unfilteredRecords_ == records_.size());
  const auto bytes = static_cast<uint32_t>(estimatedObjectSize(Value(record)));
  if (bytes > kMaximumBytes - memory_.bytes()) return Room::kBatchFull;
  if (!memory_.grow(bytes)) return Room::kShareFull;
  records_.push_back(std::move(record));
  if (filtered == Filtered::kNo) unfilteredRecords_ = records_.size();
  return Room::kTaken;
}

int32_t EventBatch::countOfMethod(int64_t method) const {
  const auto found = methodCounts_.find(method);
  return found == methodCounts_.end() ? 0 : found->second;
}

size_t EventBatch::setInAllRecords(const Value& key, const Value& value) {
  size_t bytes = 0;
  size_t kept = 0;
  for (Dictionary& record : records_) {
    record.set(key, value);
    const size_t grown = bytes + static_cast<uint32_t>(estimatedObjectSize(Value(record)));
    if (grown > kMaximumBytes) break;
    if (grown > memory_.bytes() && !memory_.grow(grown - memory_.bytes())) break;
    bytes = grown;
    ++kept;
  }
  memory_.shrink(memory_.bytes() - bytes);
  const size_t dropped = records_.size() - kept;
  records_.resize(kept);
  unfilteredRecords_ = std::min(unfilteredRecords_, kept);
  return dropped;
}

}  // namespace zun
