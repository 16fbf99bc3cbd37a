// latency: how long a client waits for its answer while it reports at a fixed rate.

#include "harness/Client.h"
#include "harness/DaemonUnderTest.h"
#include "harness/ProcessFigures.h"
#include "harness/Row.h"

namespace {

using namespace zun;
using namespace zun::bench;

constexpr uint64_t kRate = 10'000;  // events a second
constexpr Clock::duration kInterval = std::chrono::seconds(1) / kRate;
constexpr uint64_t kWarmUp = kRate / 10;

}  // namespace

int main(int argc, char** argv) {
  const Options options =
      parseOptions(argc, argv, "From a call to its answer, at 10,000 events a second and 500 a post.",
                   "seconds", 10, {"rate-10000"});
  const Events events;
  const DaemonUnderTest daemon({options.daemon});
  Client client(daemon.socketPath());
  (void)client.sendAtRate(events, kWarmUp, kInterval);
  const auto before = cpuTimeOf(daemon.process());
  const uint64_t count = options.amount * kRate;
  const auto told = client.sendAtRate(events, count, kInterval);
  const auto cpu = cpuTimeOf(daemon.process()) - before;

  Row row("rate-10000");
  row.addPercentiles(told.latencies);
  // How late the client itself was tells how quiet the machine is.
  row.addPercentiles(told.delays, "sent_late_");
  row.add("cpu_us", static_cast<double>(cpu.count()) / 1000 / static_cast<double>(count));
  return 0;
}
