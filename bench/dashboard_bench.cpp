// What one event costs in the dashboard backend: its datagram and record, and its way to
// a server on loopback, and back.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <ctime>
#include <memory>
#include <thread>
#include <vector>

#include "BenchPayload.h"
#include "BenchPlatform.h"
#include "backends/DashboardBackend.h"
#include "backends/MessageBlob.h"
#include "values/Check.h"

namespace zun {
namespace {

constexpr TimeValue kEventTime{1'700'000'010, 500'000};

double seconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// Receives datagrams on a thread of its own and sends each back where `echoes`.
class Server final {
 public:
  explicit Server(bool echoes) : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ZUN_CHECK(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), length) == 0);
    ZUN_CHECK(::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length) == 0);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this, echoes] { serve(echoes); });
  }
  ~Server() {
    stop();
    ::close(socket_);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  [[nodiscard]] uint16_t port() const { return port_; }
  void stop() {
    ::shutdown(socket_, SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
  }
  /// Once stopped.
  [[nodiscard]] int64_t received() const { return received_; }
  /// Datagrams that found the receive buffer full.
  [[nodiscard]] int64_t dropped() const {
    std::array<uint32_t, SK_MEMINFO_VARS> figures{};
    socklen_t length = sizeof figures;
    ZUN_CHECK(::getsockopt(socket_, SOL_SOCKET, SO_MEMINFO, figures.data(), &length) == 0);
    return figures[SK_MEMINFO_DROPS];
  }
  /// Until all that came is received. Over loopback what was sent has come.
  void waitUntilAllIsReceived() const {
    int waiting = 0;
    do {
      std::this_thread::yield();
      ZUN_CHECK(::ioctl(socket_, FIONREAD, &waiting) == 0);
    } while (waiting > 0);
  }
  [[nodiscard]] double cpuSeconds() {
    clockid_t clock{};
    ZUN_CHECK(pthread_getcpuclockid(thread_.native_handle(), &clock) == 0);
    return seconds(clock);
  }

 private:
  void serve(bool echoes) {
    std::array<char, 2048> buffer{};
    while (true) {
      sockaddr_in peer{};
      socklen_t length = sizeof peer;
      const ssize_t size =
          ::recvfrom(socket_, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&peer), &length);
      if (size <= 0) return;
      ++received_;
      if (echoes)
        (void)::sendto(socket_, buffer.data(), static_cast<size_t>(size), 0,
                       reinterpret_cast<const sockaddr*>(&peer), length);
    }
  }

  const int socket_;
  uint16_t port_ = 0;
  int64_t received_ = 0;
  std::thread thread_;
};

class Setup final : public BenchPlatform {
 public:
  Setup() : loopThread_([this] { (void)loop->run(); }) {}
  ~Setup() {
    loop->quit();
    loopThread_.join();
  }

  std::shared_ptr<ZunReportingBackend> backend(const Server& server, bool isReliable) {
    Dictionary profile{{"ip", "127.0.0.1"}, {"port", server.port()}};
    if (isReliable) profile.set("reliable", 500);
    auto made = ZunReportingBackend::newBackendWithName(services, "dashboard", profile, "Pallax Large", 7);
    made->setSessionID(77);
    made->setCompType(7);
    made->setUdid("00008030-001C2D223A82802E");
    made->setSelfVersion("3.2.1");
    return made;
  }

  void waitUntilNothingRuns() {
    while (!workers.activity().isIdle) std::this_thread::yield();
  }

 private:
  std::thread loopThread_;
};

void BM_Datagram(benchmark::State& state) {
  const Dictionary payload = benchPayload();
  const DashboardHeader header{.formatMajorVersion = 3,
                               .clientType = 7,
                               .timestamp = kEventTime,
                               .sessionID = 77,
                               .clientVersion = 3,
                               .method = 200,
                               .respCode = 1,
                               .deviceIdentifier = "00008030-001C2D223A82802E",
                               .eventNumber = 1,
                               .isReliable = true,
                               .isWithoutProfile = false};
  for (auto _ : state) benchmark::DoNotOptimize(DashboardDatagram::make(header, payload));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Datagram);

void BM_LocalRecord(benchmark::State& state) {
  const auto datagram = DashboardDatagram::make({}, benchPayload());
  for (auto _ : state) benchmark::DoNotOptimize(datagram->writeLocalLog("KF"));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LocalRecord);

// Whole events as fast as they go; the server's own CPU is not counted. How many of their
// datagrams arrive is up to its receive buffer: "datagrams", with retransmissions, is
// "arrived" and "dropped" together, all three per event.
void sendEvents(benchmark::State& state, bool isReliable) {
  Setup setup;
  Server server(/*echoes=*/isReliable);
  const auto backend = setup.backend(server, isReliable);
  const Dictionary message{{Value(kZunReportingMessageBlobClientData), benchPayload()}};
  const double cpuBefore = seconds(CLOCK_PROCESS_CPUTIME_ID) - server.cpuSeconds();
  for (auto _ : state) benchmark::DoNotOptimize(backend->sendMessage(message, kEventTime, 200, 1, 0));
  setup.waitUntilNothingRuns();
  server.waitUntilAllIsReceived();
  const double cpu = seconds(CLOCK_PROCESS_CPUTIME_ID) - server.cpuSeconds() - cpuBefore;
  server.stop();
  const auto events = static_cast<double>(state.iterations());
  const auto arrived = static_cast<double>(server.received());
  const auto dropped = static_cast<double>(server.dropped());
  state.SetItemsProcessed(state.iterations());
  state.counters["cpu_us_per_event"] = cpu * 1e6 / events;
  state.counters["datagrams"] = (arrived + dropped) / events;
  state.counters["arrived"] = arrived / events;
  state.counters["dropped"] = dropped / events;
  backend->cleanup();
}
void BM_PlainEvents(benchmark::State& state) {
  sendEvents(state, /*isReliable=*/false);
}
BENCHMARK(BM_PlainEvents)->UseRealTime();
void BM_ReliableEvents(benchmark::State& state) {
  sendEvents(state, /*isReliable=*/true);
}
BENCHMARK(BM_ReliableEvents)->UseRealTime();

// What a thousand sessions' backends cost while nobody reports anything.
void BM_IdleBackends(benchmark::State& state) {
  constexpr int kBackends = 1000;
  constexpr auto kSecond = std::chrono::seconds(1);
  Setup setup;
  Server server(/*echoes=*/true);
  std::vector<std::shared_ptr<ZunReportingBackend>> backends;
  for (int i = 0; i < kBackends; ++i) backends.push_back(setup.backend(server, /*isReliable=*/true));
  std::this_thread::sleep_for(kSecond);  // their first ticks
  const double cpuBefore = seconds(CLOCK_PROCESS_CPUTIME_ID);
  for (auto _ : state) std::this_thread::sleep_for(kSecond);
  const double cpu = seconds(CLOCK_PROCESS_CPUTIME_ID) - cpuBefore;
  state.counters["cpu_us_per_second"] = cpu * 1e6 / static_cast<double>(state.iterations());
  for (const auto& backend : backends) backend->cleanup();
}
BENCHMARK(BM_IdleBackends)->Iterations(3)->UseRealTime();

}  // namespace
}  // namespace zun
