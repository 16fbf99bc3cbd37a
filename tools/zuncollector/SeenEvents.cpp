#include "SeenEvents.h"

#include <fmt/format.h>

namespace zun {

namespace {

std::string nameOf(std::string_view sender, const DashboardDatagram& datagram) {
  return fmt::format("{} {} {} {} {}.{}", sender, datagram.deviceID, datagram.sessionID, datagram.eventNumber,
                     datagram.seconds, datagram.milliseconds);
}

}  // namespace

bool SeenEvents::contains(std::string_view sender, const DashboardDatagram& datagram) const {
  return events_.contains(nameOf(sender, datagram));
}

void SeenEvents::add(std::string_view sender, const DashboardDatagram& datagram) {
  if (!events_.insert(nameOf(sender, datagram)).second) return;
  order_.push_back(nameOf(sender, datagram));
  if (order_.size() <= capacity_) return;
  events_.erase(order_.front());
  order_.pop_front();
}

}  // namespace zun
