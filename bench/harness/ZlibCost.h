#pragma once

#include <string>
#include <vector>

namespace zun::bench {

/// What compressing takes of an event's cost: the same bodies once more on this thread, with
/// the daemon's parameters and a stream set up for each.
struct ZlibCost {
  double microsecondsAnEvent = 0;
  double bytesAnEvent = 0;  // of JSON
  double compressedBytesAnEvent = 0;
};

/// `bodies`: posts as they came, compressed.
[[nodiscard]] ZlibCost zlibCostOf(const std::vector<std::string>& bodies);

}  // namespace zun::bench
