#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/MemoryBudget.h"
#include "values/Value.h"

namespace zun {

/// Event records that wait for one post, and how many of each method there are.
///
/// Storebags bound a batch by a count per method alone. Methods are the client's to
/// choose and the count is the operator's, so a batch has a bound of its own, and all
/// batches together have one, of which each client has its share, that normal use never
/// meets: what does not fit is dropped until the batch is posted.
/// Threading: one thread at a time (its backend's state queue).
/// Ownership: shares the budget of all batches, and gives its part back at its end.
class EventBatch final {
 public:
  /// Estimated bytes of the records of one batch.
  static constexpr size_t kMaximumBytes = size_t{16} << 20;

  enum class Room { kTaken, kBatchFull, kShareFull };
  enum class Filtered : bool { kNo, kYes };

  explicit EventBatch(std::shared_ptr<MemoryBudget> memory, BudgetHolder holder = {})
      : memory_(std::move(memory), holder, MemoryShare::kUsualStep) {}

  /// Adds a record, if there is room. Those not filtered yet come first: once one was
  /// filtered, all others are.
  Room append(Dictionary record, Filtered filtered = Filtered::kYes);

  /// A method is whatever a record has under "_method", as an integer.
  [[nodiscard]] int32_t countOfMethod(int64_t method) const;
  void setCountOfMethod(int64_t method, int32_t count) { methodCounts_[method] = count; }

  /// Writes `value` under `key` into every record. The last records go where that leaves
  /// no room for them: gives how many.
  size_t setInAllRecords(const Value& key, const Value& value);

  /// Estimated bytes of the records as they are now.
  [[nodiscard]] uint32_t estimatedSize() const { return static_cast<uint32_t>(memory_.bytes()); }

  /// How many records, the first ones, are not filtered yet.
  [[nodiscard]] size_t unfilteredRecords() const { return unfilteredRecords_; }
  [[nodiscard]] std::vector<Dictionary> takeRecords() { return std::move(records_); }

  /// True once: for the first record that found no room.
  [[nodiscard]] bool noteOverflow() { return !std::exchange(overflowNoted_, true); }

 private:
  MemoryShare memory_;  // what the records take
  std::vector<Dictionary> records_;
  std::unordered_map<int64_t, int32_t> methodCounts_;
  size_t unfilteredRecords_ = 0;
  bool overflowNoted_ = false;
};

}  // namespace zun
