#include "backends/EventNumberList.h"

#include <algorithm>

namespace zun {

EventNumberList::EventNumberList(const Array& elements) {
  numbers_.reserve(elements.size());
  for (const Value& element : elements) numbers_.push_back(element.int32Value());
  std::sort(numbers_.begin(), numbers_.end());
}

bool EventNumberList::contains(int32_t event) const {
  return std::binary_search(numbers_.begin(), numbers_.end(), event);
}

}  // namespace zun
