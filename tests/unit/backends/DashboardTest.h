#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "backends/DashboardBackend.h"
#include "support/TestPlatform.h"
#include "support/UDPTestServer.h"

namespace zun {

/// Outlives the platform that runs its jobs on it.
struct ManualExecutorHolder {
  ManualExecutor executor_;
};

/// A dashboard server on loopback, and a platform whose jobs and timers run when the
/// test says so. Over loopback what was sent is there at once.
class DashboardTest : protected ManualExecutorHolder, public PlatformTest {
 protected:
  explicit DashboardTest(std::string caFile = {}) : PlatformTest(&executor_, std::move(caFile)) {}

  void TearDown() override {
    executor_.runAll();
    PlatformTest::TearDown();
  }

  Dictionary profile() const { return {{"ip", "127.0.0.1"}, {"port", server_.port()}}; }
  Dictionary reliableProfile(Value period = 500) const {
    return {{"ip", "127.0.0.1"}, {"port", server_.port()}, {"reliable", std::move(period)}};
  }

  /// As the session makes it and sets it up.
  std::shared_ptr<ZunReportingBackend> make(const Value& profile) {
    auto backend =
        ZunReportingBackend::newBackendWithName(services_, "dashboard", profile, "Pallax Large", 7);
    if (backend != nullptr) setUp(*backend);
    return backend;
  }
  static void setUp(ZunReportingBackend& backend) {
    backend.setSessionID(77);
    backend.setCompType(7);
    backend.setClientVersion(3);
    backend.setUdid("00008030-001C2D223A82802E");
    backend.setSelfVersion("3.2.1");
  }

  std::optional<std::string> sendEvent(ZunReportingBackend& backend, Dictionary payload = {{"k", "v"}}) {
    auto record = backend.sendMessage(Dictionary{{"ClientData", std::move(payload)}}, kEventTime,
                                      /*method=*/200, /*respCode=*/9, /*flag=*/0);
    executor_.runAll();
    return record;
  }

  /// One firing of the backends' timers, `period` later.
  void tick(std::chrono::milliseconds period = std::chrono::milliseconds(500)) {
    platform_.clock.advance(period);
    platform_.timers.fireDue();
    executor_.runAll();
  }

  /// Has the server send `bytes` to the backend, which handles them.
  void acknowledge(std::string_view bytes) {
    server_.reply(bytes);
    runNextJobs();
  }
  /// Waits for jobs of another thread's and runs them.
  void runNextJobs() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (executor_.waiting() == 0) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "nothing happened";
      std::this_thread::yield();
    }
    executor_.runAll();
  }

  static uint16_t eventNumberOf(std::string_view datagram) {
    const auto number = acknowledgedEventNumber(std::as_bytes(std::span(datagram.data(), datagram.size())));
    return number.value_or(0);
  }
  /// Event numbers of the datagrams that have come since the last look.
  std::vector<int> eventsAtServer() {
    std::vector<int> numbers;
    for (const std::string& datagram : server_.receiveAllThere()) numbers.push_back(eventNumberOf(datagram));
    return numbers;
  }

  static constexpr TimeValue kEventTime{1000, 123456};

  UDPTestServer server_;
  DeviceIdentity identity_{platform_.services};
  MessageLog messageLog_{platform_.services};
  ReportingServices services_{platform_.services, identity_, messageLog_};
};

}  // namespace zun
