#include "backends/EventBatch.h"

#include <utility>

#include "util/MemoryUse.h"

namespace zun {

EventBatch::Room EventBatch::append(Dictionary record) {
  const auto bytes = static_cast<uint32_t>(estimatedObjectSize(Value(record)));
  if (bytes > kMaximumBytes - bytes_) return Room::kBatchFull;
  if (!memory_->take(bytes)) return Room::kAllFull;
  bytes_ += bytes;
  records_.push_back(std::move(record));
  return Room::kTaken;
}

int32_t EventBatch::countOfMethod(int64_t method) const {
  const auto found = methodCounts_.find(method);
  return found == methodCounts_.end() ? 0 : found->second;
}

void EventBatch::setInAllRecords(const Value& key, const Value& value) {
  for (Dictionary& record : records_) record.set(key, value);
}

uint32_t EventBatch::estimatedSize() const {
  uint32_t bytes = 0;
  for (const Dictionary& record : records_) {
    bytes += static_cast<uint32_t>(estimatedObjectSize(Value(record)));
  }
  return bytes;
}

}  // namespace zun
