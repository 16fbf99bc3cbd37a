// idle: what a daemon costs that has nothing to do, and how fast it is there.

#include <thread>

#include "harness/DaemonUnderTest.h"
#include "harness/ProcessFigures.h"
#include "harness/Row.h"

namespace {

using namespace zun;
using namespace zun::bench;

constexpr std::chrono::seconds kSettling{1};

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(
      argc, argv, "Memory, threads, wake-ups and start of a daemon that idles.", "seconds", 20, {"idle"});
  const DaemonUnderTest daemon({options.daemon});
  std::this_thread::sleep_for(kSettling);
  const uint64_t waits = waitsOf(daemon.process());
  const auto cpu = cpuTimeOf(daemon.process());
  std::this_thread::sleep_for(std::chrono::seconds(options.amount));

  Row row("idle");
  row.add("anonymous_kib", static_cast<double>(statusOf(daemon.process(), "RssAnon:")));
  row.add("resident_kib", static_cast<double>(statusOf(daemon.process(), "VmRSS:")));
  row.add("threads", static_cast<double>(statusOf(daemon.process(), "Threads:")));
  row.add("wakeups", static_cast<double>(waitsOf(daemon.process()) - waits));
  row.add("cpu_us", static_cast<double>((cpuTimeOf(daemon.process()) - cpu).count()) / 1000);
  row.add("start_ms", static_cast<double>(daemon.startTime().count()) / 1e6);
  return 0;
}
