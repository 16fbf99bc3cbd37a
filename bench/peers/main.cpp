// peers: what the same events cost another agent that posts them to the same kind of server.

#include <fmt/format.h>

#include <algorithm>
#include <thread>

#include "SyslogNG.h"
#include "harness/Client.h"
#include "harness/ProcessFigures.h"
#include "harness/Row.h"
#include "values/JSONWriter.h"

namespace {

using namespace zun;
using namespace zun::bench;

constexpr uint64_t kWarmUp = 2000;
constexpr uint64_t kBlock = 64;  // events in one write

struct Scenario {
  const char* name;
  int recordsAPost;
  SyslogNG::Keys keys;
};

constexpr Scenario kScenarios[] = {
    {"syslog-ng-50", 50, SyslogNG::Keys::kMerged},
    {"syslog-ng-500", 500, SyslogNG::Keys::kMerged},
    {"syslog-ng-50-text", 50, SyslogNG::Keys::kPrefixed},
};

std::vector<std::string> linesOf(const Events& events, uint64_t count) {
  std::vector<std::string> lines;
  for (uint64_t i = 0; i < count; ++i)
    lines.push_back(writeJSON(Value(events.payload(i)), JSONFormat::kCompact) + '\n');
  return lines;
}

void send(SyslogNG& agent, const std::vector<std::string>& lines, uint64_t count) {
  const uint64_t before = agent.sink().lines();
  std::string block;
  for (uint64_t sent = 0; sent < count; sent += kBlock) {
    block.clear();
    for (uint64_t i = sent; i < std::min(sent + kBlock, count); ++i) block += lines[i % lines.size()];
    agent.write(block);
  }
  while (agent.sink().lines() - before < count) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void measure(const Scenario& scenario, const std::vector<std::string>& lines, uint64_t count) {
  SyslogNG agent(scenario.recordsAPost, scenario.keys);
  send(agent, lines, kWarmUp);
  const auto before = cpuTimeOf(agent.process());
  const uint64_t postsBefore = agent.sink().posts();
  const auto start = Clock::now();
  send(agent, lines, count);
  const std::chrono::duration<double> took = Clock::now() - start;
  const auto cpu = cpuTimeOf(agent.process()) - before;

  Row row(scenario.name);
  row.add("cpu_us", static_cast<double>(cpu.count()) / 1000 / static_cast<double>(count));
  row.add("events_per_s", static_cast<double>(count) / took.count());
  row.add("peak_rss_mib", static_cast<double>(statusOf(agent.process(), "VmHWM:")) / 1024);
  row.add("posts", static_cast<double>(agent.sink().posts() - postsBefore));
  row.add("posted_bytes", agent.bytesAnEvent());
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> names;
  for (const Scenario& scenario : kScenarios) names.emplace_back(scenario.name);
  const Options options =
      parseOptions(argc, argv, "What an event costs syslog-ng.", "events", 200'000, names);
  if (!SyslogNG::isInstalled()) {
    fmt::print(stderr, "peers: no syslog-ng here; scripts/install-deps bench installs it\n");
    return 3;
  }
  const auto lines = linesOf(Events(), 20'000);
  for (const std::string& name : options.rows) {
    measure(*std::find_if(std::begin(kScenarios), std::end(kScenarios),
                          [&name](const Scenario& one) { return one.name == name; }),
            lines, options.amount);
  }
  return 0;
}
