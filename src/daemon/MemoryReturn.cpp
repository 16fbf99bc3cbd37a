#include "daemon/MemoryReturn.h"

namespace zun {

void MemoryReturn::connectionsChanged(size_t count) {
  connections_ = count;
  // One timer for all that come and go meanwhile.
  if (!std::exchange(hasChanged_, true)) lookIn(kAfterChange);
}

void MemoryReturn::lookIn(std::chrono::seconds wait) {
  ++waiting_;
  runAfter_(wait, [this] { look(); });
}

void MemoryReturn::look() {
  --waiting_;
  hasChanged_ = false;
  returnMemory_();
  if (connections_ > 0 && waiting_ == 0) lookIn(kBetweenLooks);
}

}  // namespace zun
