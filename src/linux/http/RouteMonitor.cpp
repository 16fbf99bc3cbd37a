#include "linux/http/RouteMonitor.h"

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <optional>
#include <system_error>
#include <vector>

namespace zun {
namespace {

/// NLMSG_OK without its comparison of signed with unsigned.
bool isWholeMessage(const nlmsghdr* message, int left) {
  return left >= static_cast<int>(sizeof *message) && message->nlmsg_len >= sizeof *message &&
         message->nlmsg_len <= static_cast<uint32_t>(left);
}

constexpr size_t kMessageBytes = 65536;

FileDescriptor openNetlink(uint32_t groups, int flags) {
  FileDescriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | flags, NETLINK_ROUTE));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = groups;
  if (!socket.isOpen() ||
      ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return FileDescriptor();
  return socket;
}

/// Asks for a whole table and hands over each of its messages; false when that fails.
bool dump(uint16_t type, const std::function<void(const nlmsghdr&)>& take) {
  const FileDescriptor socket = openNetlink(0, 0);
  if (!socket.isOpen()) return false;
  const timeval patience{2, 0};
  ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  struct {
    nlmsghdr header;
    rtgenmsg message;
  } request{};
  request.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtgenmsg));
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.message.rtgen_family = AF_UNSPEC;
  if (::send(socket.get(), &request, request.header.nlmsg_len, 0) < 0) return false;

  std::vector<uint32_t> buffer(kMessageBytes / sizeof(uint32_t));
  while (true) {
    const ssize_t count = ::recv(socket.get(), buffer.data(), kMessageBytes, 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    int left = static_cast<int>(count);
    for (auto* message = reinterpret_cast<nlmsghdr*>(buffer.data()); isWholeMessage(message, left);
         message = NLMSG_NEXT(message, left)) {
      if (message->nlmsg_type == NLMSG_DONE) return true;
      if (message->nlmsg_type == NLMSG_ERROR) return false;
      take(*message);
    }
  }
}

bool isLinkLocal(int family, const void* address) {
  const auto* bytes = static_cast<const uint8_t*>(address);
  if (family == AF_INET) return bytes[0] == 169 && bytes[1] == 254;
  return (bytes[0] == 0xfe && (bytes[1] & 0xc0) == 0x80) || bytes[0] == 0xff;
}

}  // namespace

struct NetlinkRouteMonitor::Route {
  int device = 0;
  bool isDefault = false;
  uint32_t metric = 0;

  /// None for routes that lead nowhere a server could be.
  static std::optional<Route> parse(const nlmsghdr& message) {
    if (message.nlmsg_type != RTM_NEWROUTE) return std::nullopt;
    const auto* head = static_cast<const rtmsg*>(NLMSG_DATA(&message));
    if ((head->rtm_family != AF_INET && head->rtm_family != AF_INET6) || head->rtm_type != RTN_UNICAST ||
        (head->rtm_flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) != 0)
      return std::nullopt;
    Route route;
    route.isDefault = head->rtm_dst_len == 0;
    auto left = static_cast<int>(RTM_PAYLOAD(&message));
    for (const rtattr* attribute = RTM_RTA(head); RTA_OK(attribute, left);
         attribute = RTA_NEXT(attribute, left)) {
      const void* data = RTA_DATA(attribute);
      switch (attribute->rta_type) {
        case RTA_OIF: std::memcpy(&route.device, data, sizeof route.device); break;
        case RTA_PRIORITY: std::memcpy(&route.metric, data, sizeof route.metric); break;
        case RTA_DST:
          if (isLinkLocal(head->rtm_family, data)) return std::nullopt;
          break;
        case RTA_MULTIPATH:
          if (RTA_PAYLOAD(attribute) >= sizeof(rtnexthop))
            route.device = static_cast<const rtnexthop*>(data)->rtnh_ifindex;
          break;
        default: break;
      }
    }
    return route.device == 0 ? std::nullopt : std::optional(route);
  }
};

struct NetlinkRouteMonitor::Tables {
  std::set<int> devicesUp;  // without loopback
  std::vector<Route> routes;

  static std::optional<Tables> read() {
    Tables tables;
    const bool good = dump(RTM_GETLINK,
                           [&tables](const nlmsghdr& message) {
                             if (message.nlmsg_type != RTM_NEWLINK) return;
                             const auto* link = static_cast<const ifinfomsg*>(NLMSG_DATA(&message));
                             const bool up =
                                 (link->ifi_flags & IFF_UP) != 0 && (link->ifi_flags & IFF_RUNNING) != 0;
                             if (up && (link->ifi_flags & IFF_LOOPBACK) == 0)
                               tables.devicesUp.insert(link->ifi_index);
                           }) &&
                      dump(RTM_GETROUTE, [&tables](const nlmsghdr& message) {
                        if (const auto route = Route::parse(message)) tables.routes.push_back(*route);
                      });
    return good ? std::optional(std::move(tables)) : std::nullopt;
  }
};

NetlinkRouteMonitor::NetlinkRouteMonitor(SystemLog& log, std::string networkDevices)
    : networkDevices_(std::move(networkDevices)),
      events_(openNetlink(
          RTMGRP_LINK | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR,
          SOCK_NONBLOCK)) {
  if (!events_.isOpen())
    log.note("NetlinkRouteMonitor: no netlink ({}), the network counts as up",
             std::generic_category().message(errno));
}

RouteMonitor::Status NetlinkRouteMonitor::status() {
  if (!events_.isOpen()) return {.hasUsableRoute = true, .isOverCellular = false};
  if (drainEvents()) isStale_ = true;
  if (isStale_) {
    status_ = read();
    isStale_ = false;
  }
  return status_;
}

// What changed does not matter: the tables are read anew, so lost events (ENOBUFS) do no harm.
bool NetlinkRouteMonitor::drainEvents() {
  bool came = false;
  std::array<char, 8192> event{};
  while (true) {
    const ssize_t count = ::recv(events_.get(), event.data(), event.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno != ENOBUFS) return came;
    if (count == 0) return came;
    came = true;
  }
}

RouteMonitor::Status NetlinkRouteMonitor::read() const {
  const std::optional<Tables> tables = Tables::read();
  if (!tables) return {.hasUsableRoute = true, .isOverCellular = false};
  Status status;
  std::optional<Route> best;
  for (const Route& route : tables->routes) {
    if (!tables->devicesUp.contains(route.device)) continue;
    status.hasUsableRoute = true;
    if (route.isDefault && (!best || route.metric < best->metric)) best = route;
  }
  status.isOverCellular = best && isCellular(best->device);
  return status;
}

bool NetlinkRouteMonitor::isCellular(int device) const {
  std::array<char, IF_NAMESIZE> name{};
  if (::if_indextoname(static_cast<unsigned>(device), name.data()) == nullptr) return false;
  std::ifstream properties(networkDevices_ + "/" + name.data() + "/uevent");
  std::string line;
  while (std::getline(properties, line)) {
    if (line == "DEVTYPE=wwan") return true;
  }
  return false;
}

}  // namespace zun
