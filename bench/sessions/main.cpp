// sessions: what clients cost that are connected and report nothing.

#include <sys/resource.h>

#include <memory>
#include <thread>

#include "harness/Client.h"
#include "harness/DaemonUnderTest.h"
#include "harness/ProcessFigures.h"
#include "harness/Row.h"

namespace {

using namespace zun;
using namespace zun::bench;

// After a burst of clients a daemon gives memory back: it may take a moment.
constexpr std::chrono::seconds kSettling{2};

void raiseDescriptorLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv, "Memory, threads and wake-ups of idle sessions.",
                                       "seconds", 5, {"1", "10", "100", "1000", "4000"});
  raiseDescriptorLimit();
  for (const std::string& name : options.rows) {
    const DaemonUnderTest daemon({options.daemon});
    const pid_t process = daemon.process();
    std::this_thread::sleep_for(kSettling / 2);
    const auto alone = static_cast<double>(statusOf(process, "RssAnon:"));
    const size_t count = std::stoul(name);
    const auto cpu = cpuTimeOf(process);
    std::vector<std::unique_ptr<Client>> clients;
    for (size_t i = 0; i < count; ++i) clients.push_back(std::make_unique<Client>(daemon.socketPath()));
    const auto connecting = cpuTimeOf(process) - cpu;
    std::this_thread::sleep_for(kSettling);
    const uint64_t waits = waitsOf(process);
    std::this_thread::sleep_for(std::chrono::seconds(options.amount));

    const auto anonymous = static_cast<double>(statusOf(process, "RssAnon:"));
    Row row(name);
    row.add("anonymous_kib", anonymous);
    row.add("kib_per_session", (anonymous - alone) / static_cast<double>(count));
    row.add("threads", static_cast<double>(statusOf(process, "Threads:")));
    row.add("descriptors", static_cast<double>(descriptorsOf(process)));
    row.add("wakeups", static_cast<double>(waitsOf(process) - waits));
    row.add("open_us", static_cast<double>(connecting.count()) / 1000 / static_cast<double>(count));
  }
  return 0;
}
