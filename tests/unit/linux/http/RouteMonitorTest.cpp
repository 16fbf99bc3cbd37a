#include "linux/http/RouteMonitor.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_tun.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/route.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <thread>

#include "linux/http/PowerSupply.h"
#include "support/RecordingLog.h"
#include "support/ScratchFolder.h"

namespace zun {
namespace {

constexpr int kDeadlineMilliseconds = 60'000;

/// A network of the calling thread's own, which at first has a loopback device that is
/// down and nothing else.
class PrivateNetwork final {
 public:
  PrivateNetwork() : isPrivate_(::unshare(CLONE_NEWNET) == 0) {
    control_ = FileDescriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  }
  bool isPrivate() const { return isPrivate_; }

  /// Makes a device that is there until its descriptor is closed.
  FileDescriptor makeDevice(const char* name) {
    FileDescriptor device(::open("/dev/net/tun", O_RDWR | O_CLOEXEC));
    ifreq request = requestFor(name);
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    if (!device.isOpen() || ::ioctl(device.get(), TUNSETIFF, &request) != 0) return FileDescriptor();
    return device;
  }
  bool setAddress(const char* name, const char* address) {
    ifreq request = requestFor(name);
    putAddress(request.ifr_addr, address);
    if (::ioctl(control_.get(), SIOCSIFADDR, &request) != 0) return false;
    putAddress(request.ifr_netmask, "255.255.255.0");
    return ::ioctl(control_.get(), SIOCSIFNETMASK, &request) == 0;
  }
  bool setUp(const char* name, bool isUp) {
    ifreq request = requestFor(name);
    request.ifr_flags = isUp ? IFF_UP : 0;
    return ::ioctl(control_.get(), SIOCSIFFLAGS, &request) == 0;
  }
  bool addDefaultRoute(const char* name, short metric) {
    rtentry route{};
    putAddress(route.rt_dst, "0.0.0.0");
    putAddress(route.rt_genmask, "0.0.0.0");
    route.rt_flags = RTF_UP;
    route.rt_metric = metric;
    std::array<char, IFNAMSIZ> device{};
    std::strncpy(device.data(), name, device.size() - 1);
    route.rt_dev = device.data();
    return ::ioctl(control_.get(), SIOCADDRT, &route) == 0;
  }
  /// One default route that is shared by two devices.
  bool addSharedDefaultRoute(const char* first, const char* second) {
    struct {
      nlmsghdr head{sizeof(*this), RTM_NEWROUTE, NLM_F_REQUEST | NLM_F_CREATE | NLM_F_ACK, 0, 0};
      rtmsg route{AF_INET, 0, 0, 0, RT_TABLE_MAIN, RTPROT_STATIC, RT_SCOPE_LINK, RTN_UNICAST, 0};
      rtattr attribute{sizeof(rtattr) + 2 * sizeof(rtnexthop), RTA_MULTIPATH};
      std::array<rtnexthop, 2> hops{};
    } request;
    for (const char* name : {first, second}) {
      rtnexthop& hop = request.hops[name == first ? 0 : 1];
      hop.rtnh_len = sizeof hop;
      hop.rtnh_ifindex = static_cast<int>(::if_nametoindex(name));
    }
    const FileDescriptor netlink(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    struct {
      nlmsghdr head;
      nlmsgerr outcome;
    } answer{};
    return ::send(netlink.get(), &request, sizeof request, 0) == sizeof request &&
           ::recv(netlink.get(), &answer, sizeof answer, 0) >= static_cast<ssize_t>(sizeof answer) &&
           answer.outcome.error == 0;
  }

 private:
  static ifreq requestFor(const char* name) {
    ifreq request{};
    std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    return request;
  }
  static void putAddress(sockaddr& into, const char* text) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::inet_pton(AF_INET, text, &address.sin_addr);
    std::memcpy(&into, &address, sizeof address);
  }

  const bool isPrivate_;
  FileDescriptor control_;
};

class RouteMonitorTest : public ::testing::Test {
 protected:
  /// Runs `test` on a thread that has a network of its own.
  void onPrivateNetwork(const std::function<void(PrivateNetwork&)>& test) {
    bool isPrivate = false;
    std::thread([&] {
      PrivateNetwork network;
      isPrivate = network.isPrivate();
      if (isPrivate) test(network);
    }).join();
    if (!isPrivate) GTEST_SKIP() << "needs the right to make a network namespace";
  }
  void describeDevice(const std::string& name, const std::string& uevent) {
    std::filesystem::create_directories(scratch_.path(name));
    std::ofstream(scratch_.path(name + "/uevent")) << uevent;
  }
  static bool waitForChange(const RouteMonitor& monitor) {
    pollfd change{monitor.descriptor(), POLLIN, 0};
    return ::poll(&change, 1, kDeadlineMilliseconds) == 1;
  }
  /// Reads until the route is there or gone; false when the deadline passed.
  static bool becomes(RouteMonitor& monitor, bool hasRoute) {
    while (monitor.status().hasUsableRoute != hasRoute) {
      if (!waitForChange(monitor)) return false;
    }
    return true;
  }

  RecordingLog log_;
  ScratchFolder scratch_;
};

TEST_F(RouteMonitorTest, MachineWithLoopbackOnlyHasNoUsableRoute) {
  onPrivateNetwork([&](PrivateNetwork& network) {
    NetlinkRouteMonitor monitor(log_, scratch_.path());
    EXPECT_FALSE(monitor.status().hasUsableRoute);
    ASSERT_TRUE(network.setUp("lo", true));
    EXPECT_FALSE(monitor.status().hasUsableRoute);
  });
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(RouteMonitorTest, RouteThatComesAndGoesIsReported) {
  onPrivateNetwork([&](PrivateNetwork& network) {
    NetlinkRouteMonitor monitor(log_, scratch_.path());
    ASSERT_FALSE(monitor.status().hasUsableRoute);
    FileDescriptor device = network.makeDevice("tun0");
    if (!device.isOpen()) GTEST_SKIP() << "needs /dev/net/tun";
    ASSERT_TRUE(network.setAddress("tun0", "10.9.9.1"));
    EXPECT_FALSE(monitor.status().hasUsableRoute);
    ASSERT_TRUE(network.setUp("tun0", true));
    EXPECT_TRUE(becomes(monitor, true));
    EXPECT_FALSE(monitor.status().isOverCellular);
    ASSERT_TRUE(network.setUp("tun0", false));
    EXPECT_TRUE(becomes(monitor, false));
    ASSERT_TRUE(network.setUp("tun0", true));
    EXPECT_TRUE(becomes(monitor, true));
    device.reset();
    EXPECT_TRUE(becomes(monitor, false));
  });
}

TEST_F(RouteMonitorTest, DefaultRouteOverAWWANDeviceIsCellularUntilABetterOneComes) {
  describeDevice("wwan0", "INTERFACE=wwan0\nDEVTYPE=wwan\nIFINDEX=2\n");
  describeDevice("wlan0", "DEVTYPE=wlan\nINTERFACE=wlan0\n");
  onPrivateNetwork([&](PrivateNetwork& network) {
    NetlinkRouteMonitor monitor(log_, scratch_.path());
    const FileDescriptor cellular = network.makeDevice("wwan0");
    if (!cellular.isOpen()) GTEST_SKIP() << "needs /dev/net/tun";
    ASSERT_TRUE(network.setAddress("wwan0", "10.9.9.1") && network.setUp("wwan0", true));
    EXPECT_TRUE(monitor.status().hasUsableRoute);
    EXPECT_FALSE(monitor.status().isOverCellular);  // no default route yet
    ASSERT_TRUE(network.addDefaultRoute("wwan0", 101));
    EXPECT_TRUE(monitor.status().isOverCellular);

    const FileDescriptor wireless = network.makeDevice("wlan0");
    ASSERT_TRUE(network.setAddress("wlan0", "10.9.8.1") && network.setUp("wlan0", true));
    EXPECT_TRUE(monitor.status().isOverCellular);
    ASSERT_TRUE(network.addDefaultRoute("wlan0", 11));
    EXPECT_FALSE(monitor.status().isOverCellular);
  });
}

TEST_F(RouteMonitorTest, SharedDefaultRouteIsItsFirstDevices) {
  describeDevice("wwan0", "INTERFACE=wwan0\nDEVTYPE=wwan\n");
  onPrivateNetwork([&](PrivateNetwork& network) {
    NetlinkRouteMonitor monitor(log_, scratch_.path());
    const FileDescriptor cellular = network.makeDevice("wwan0");
    const FileDescriptor wired = network.makeDevice("tun0");
    if (!cellular.isOpen()) GTEST_SKIP() << "needs /dev/net/tun";
    ASSERT_TRUE(network.setAddress("wwan0", "10.9.9.1") && network.setUp("wwan0", true));
    ASSERT_TRUE(network.setAddress("tun0", "10.9.8.1") && network.setUp("tun0", true));
    EXPECT_FALSE(monitor.status().isOverCellular);
    ASSERT_TRUE(network.addSharedDefaultRoute("wwan0", "tun0"));
    EXPECT_TRUE(monitor.status().isOverCellular);
  });
}

TEST_F(RouteMonitorTest, WithoutNetlinkTheNetworkCountsAsUp) {
  onPrivateNetwork([&](PrivateNetwork&) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    NetlinkRouteMonitor monitor(log_, scratch_.path());
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_TRUE(monitor.status().hasUsableRoute);
  });
  EXPECT_TRUE(log_.contains(
      LogLevel::kDefault, "NetlinkRouteMonitor: no netlink (Too many open files), the network counts as up"));
}

TEST_F(RouteMonitorTest, LinkLocalAddressesAreNoNetwork) {
  onPrivateNetwork([&](PrivateNetwork& network) {
    NetlinkRouteMonitor monitor(log_, scratch_.path());
    const FileDescriptor device = network.makeDevice("tun0");
    if (!device.isOpen()) GTEST_SKIP() << "needs /dev/net/tun";
    ASSERT_TRUE(network.setAddress("tun0", "169.254.7.1") && network.setUp("tun0", true));
    EXPECT_FALSE(monitor.status().hasUsableRoute);
  });
}

class PowerSupplyTest : public ::testing::Test {
 protected:
  void write(const std::string& supply, const std::string& file, const std::string& text) {
    std::filesystem::create_directories(scratch_.path(supply));
    std::ofstream(scratch_.path(supply + "/" + file)) << text << "\n";
  }
  bool isConnected() { return SysfsPowerSupply(scratch_.path()).isExternalPowerConnected(); }

  ScratchFolder scratch_;
};

TEST_F(PowerSupplyTest, MachineThatListsNoSupplyHangsOnTheMains) {
  EXPECT_TRUE(isConnected());
  EXPECT_TRUE(SysfsPowerSupply(scratch_.path("missing")).isExternalPowerConnected());
}

TEST_F(PowerSupplyTest, AdapterCountsWhenItIsOnline) {
  write("BAT0", "type", "Battery");
  write("BAT0", "status", "Discharging");
  write("AC", "type", "Mains");
  write("AC", "online", "0");
  EXPECT_FALSE(isConnected());
  write("AC", "online", "1");
  EXPECT_TRUE(isConnected());
  write("AC", "online", "0");
  write("ucsi", "type", "USB");
  write("ucsi", "online", "2");
  EXPECT_TRUE(isConnected());
}

TEST_F(PowerSupplyTest, BatteriesAloneMeanPowerUnlessOneDischarges) {
  write("BAT0", "type", "Battery");
  write("BAT0", "status", "Charging");
  EXPECT_TRUE(isConnected());
  write("BAT1", "type", "Battery");
  write("BAT1", "status", "Discharging");
  EXPECT_FALSE(isConnected());
}

TEST_F(PowerSupplyTest, BatteryOfAPeripheralSaysNothing) {
  write("mouse", "type", "Battery");
  write("mouse", "scope", "Device");
  write("mouse", "status", "Discharging");
  EXPECT_TRUE(isConnected());
}

}  // namespace
}  // namespace zun
