#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "linux/files/FileDescriptor.h"
#include "platform/SystemLog.h"

namespace zun {

/// Knows whether the machine has a network. One thread at a time.
class RouteMonitor {
 public:
  struct Status {
    bool hasUsableRoute = false;  // a route over a link that is up and is not loopback
    bool isOverCellular = false;  // the default route goes over a WWAN device
  };

  virtual ~RouteMonitor() = default;

  /// As of now. Cheap while nothing changes.
  virtual Status status() = 0;

  /// Readable when the status may have changed, until the next `status`; -1: it never changes.
  [[nodiscard]] virtual int descriptor() const = 0;
};

/// The kernel's routes, over netlink. Where netlink is not to be had it says that there
/// is a network: a transfer that then fails says more than one that waits for ever.
class NetlinkRouteMonitor final : public RouteMonitor {
 public:
  explicit NetlinkRouteMonitor(SystemLog& log, std::string networkDevices = "/sys/class/net");

  Status status() override;
  [[nodiscard]] int descriptor() const override { return events_.get(); }

 private:
  struct Route;
  struct Tables;

  bool drainEvents();
  [[nodiscard]] Status read() const;
  [[nodiscard]] bool isCellular(int device) const;

  const std::string networkDevices_;
  FileDescriptor events_;
  Status status_;
  bool isStale_ = true;
};

}  // namespace zun
