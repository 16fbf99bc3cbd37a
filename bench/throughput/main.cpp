// throughput: what the real daemon takes per second, and what an event costs it.

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Client.h"
#include "DaemonUnderTest.h"
#include "Sink.h"
#include "support/ScratchFolder.h"
#include "support/TestCertificates.h"
#include "values/Check.h"

namespace {

using namespace zun;
using namespace zun::bench;

constexpr int kEventThreshold = 499;  // 500 records a post

// Posts that may wait for the sink while every event is one: more than a daemon keeps, it
// drops. Clients go on when the sink has caught up.
constexpr uint64_t kMaximumBehind = 4000;
constexpr uint64_t kEventsASlice = 500;

struct Scenario {
  const char* name;
  bool batch;
  Sending sending;
  int clients;
  uint64_t events;  // of all clients together
};

double microseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

double percentile(std::vector<Clock::duration>& latencies, double part) {
  const auto place =
      latencies.begin() + static_cast<std::ptrdiff_t>(part * static_cast<double>(latencies.size() - 1));
  std::nth_element(latencies.begin(), place, latencies.end());
  return microseconds(*place);
}

void run(const Scenario& scenario, const std::string& program) {
  const ScratchFolder folder;
  const auto& certificates = TestCertificates::shared();
  Sink sink(certificates.trusted().certificate, certificates.trusted().key);
  DaemonUnderTest daemon(program, folder.path(), fmt::format("https://localhost:{}/post", sink.port()),
                         certificates.caFile(), kEventThreshold);

  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < scenario.clients; ++i) {
    clients.push_back(std::make_unique<Client>(daemon.socketPath(), scenario.batch));
  }
  std::vector<std::vector<Clock::duration>> latencies(clients.size());
  const uint64_t eventsEach = scenario.events / clients.size();
  const auto daemonBefore = cpuTimeOf(daemon.process());
  const auto sinkBefore = cpuTimeOf(sink.process());
  const uint64_t postsBefore = sink.posts();
  const auto start = Clock::now();
  std::atomic<uint64_t> sent{0};
  std::vector<std::thread> threads;
  for (size_t i = 0; i < clients.size(); ++i) {
    threads.emplace_back([&, i] {
      if (scenario.batch) {
        clients[i]->send(eventsEach, scenario.sending, latencies[i]);
        clients[i]->flush();
        return;
      }
      for (uint64_t left = eventsEach; left > 0; left -= std::min(left, kEventsASlice)) {
        const uint64_t slice = std::min(left, kEventsASlice);
        sent += slice;
        clients[i]->send(slice, scenario.sending, latencies[i]);
        while (sent - (sink.posts() - postsBefore) > kMaximumBehind)
          std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const uint64_t events = eventsEach * clients.size();
  while (!scenario.batch && sink.posts() - postsBefore < events)
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const auto count = static_cast<double>(events);
  const double daemonCPU = static_cast<double>((cpuTimeOf(daemon.process()) - daemonBefore).count());
  const double sinkCPU = static_cast<double>((cpuTimeOf(sink.process()) - sinkBefore).count());

  std::vector<Clock::duration> all;
  for (const auto& some : latencies) all.insert(all.end(), some.begin(), some.end());
  fmt::print(
      "{:<28} {:>2} clients {:>9.0f} events/s {:>6.2f} us daemon CPU/event {:>6.2f} us sink CPU/event  "
      "p50 {:>7.1f} us  p99 {:>8.1f} us  {:>7} posts  RSS {:>6} KiB\n",
      scenario.name, scenario.clients, count / seconds, daemonCPU / count, sinkCPU / count,
      percentile(all, 0.5), percentile(all, 0.99), sink.posts() - postsBefore, daemon.residentKilobytes());
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string program = std::filesystem::canonical(argv[0]).parent_path().parent_path().parent_path() /
                              "src/daemon/zunreportingd";
  const uint64_t scale = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 400'000;
  if (scale == 0 || access(program.c_str(), X_OK) != 0) {
    fmt::print(stderr, "usage: throughput [EVENTS]   (beside a built {})\n", program);
    return 2;
  }
  fmt::print("{} cores, {} events a scenario\n", std::thread::hardware_concurrency(), scale);
  for (const int clients : {1, 8}) {
    run({"batching, replies awaited", true, Sending::kAwaited, clients, scale / 2}, program);
    run({"batching, pipelined", true, Sending::kPipelined, clients, scale}, program);
    run({"every event posted at once", false, Sending::kPipelined, clients, scale / 8}, program);
  }
  return 0;
}
