#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_set>

#include "DashboardDatagram.h"

namespace zun {

/// Remembers which events have come, to tell a retransmission from a new event. Event
/// numbers begin anew after 65,536, so an event is known by its number together with its
/// sender, session and time; and only the last ones are remembered. One thread.
class SeenEvents final {
 public:
  explicit SeenEvents(size_t capacity = 16'384) : capacity_(capacity) {}

  [[nodiscard]] bool contains(std::string_view sender, const DashboardDatagram& datagram) const;
  /// Remembers an event that is not there yet, and forgets the oldest for it.
  void add(std::string_view sender, const DashboardDatagram& datagram);

 private:
  const size_t capacity_;
  std::unordered_set<std::string> events_;
  std::deque<std::string> order_;
};

}  // namespace zun
