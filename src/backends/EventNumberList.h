#pragma once

#include <cstdint>
#include <vector>

#include "values/Value.h"

namespace zun {

/// The event numbers of a storebag list, made ready for one lookup per message.
/// Elements count by their integer value, so numeric strings do as well as numbers.
class EventNumberList final {
 public:
  explicit EventNumberList(const Array& elements);

  [[nodiscard]] bool contains(int32_t event) const;
  [[nodiscard]] bool empty() const { return numbers_.empty(); }

 private:
  std::vector<int32_t> numbers_;  // sorted
};

}  // namespace zun
