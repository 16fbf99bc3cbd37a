#include "backends/EventBatch.h"

#include <utility>

#include "util/MemoryUse.h"

namespace zun {

EventBatch::Room EventBatch::append(Dictionary record) {
  const auto bytes = static_cast<uint32_t>(estimatedObjectSize(Value(record)));
  if (bytes > kMaximumBytes - bytes_) return Room::kBatchFull;
  if (!memory_->take(bytes)) return Room::kAllFull;
  bytes_ += bytes;
  estimatedSize_ += bytes;
  records_.push_back(std::move(record));
  return Room::kTaken;
}

int32_t EventBatch::countOfMethod(int64_t method) const {
  const auto found = methodCounts_.find(method);
  return found == methodCounts_.end() ? 0 : found->second;
}

void EventBatch::setInAllRecords(const Value& key, const Value& value) {
  estimatedSize_ = 0;
  for (Dictionary& record : records_) {
    record.set(key, value);
    estimatedSize_ += static_cast<uint32_t>(estimatedObjectSize(Value(record)));
  }
}

}  // namespace zun
