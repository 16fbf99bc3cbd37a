// curves: what an event costs with ever more of what could make it cost more.

#include <fmt/format.h>
#include <sys/resource.h>

#include <algorithm>
#include <memory>

#include "harness/Client.h"
#include "harness/DaemonUnderTest.h"
#include "harness/ProcessFigures.h"
#include "harness/Row.h"
#include "values/Check.h"

namespace {

using namespace zun;
using namespace zun::bench;

constexpr int kRecordsAPost = 50;
constexpr uint64_t kTurn = kRecordsAPost;  // of each session, one after the other
constexpr uint64_t kWarmUp = 1000;

struct Curve {
  const char* name;
  std::vector<size_t> values;
};

const std::vector<Curve>& curves() {
  static const std::vector<Curve> all{
      {"sessions", {1, 10, 100, 1000, 4000}},    // that report in turns
      {"filters", {0, 5, 20, 100, 500}},         // of which two fit
      {"keys", {1, 2, 4, 8, 20, 50, 100, 200}},  // of a payload
      {"storebag", {10, 100, 1'000, 10'000}},    // KB, in entries of other clients
      {"hierarchy", {1, 10, 100, 300, 1000}},    // sessions below the one that reports
  };
  return all;
}

void raiseDescriptorLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

/// The sessions that report, and those that are only there.
struct Sessions {
  std::vector<std::unique_ptr<Client>> reporting;
  std::vector<std::unique_ptr<Client>> silent;
};

Sessions openSessions(const DaemonUnderTest& daemon, const std::string& curve, size_t value) {
  Sessions sessions;
  const auto add = [&daemon](auto& to, const Client::Session& session) {
    to.push_back(std::make_unique<Client>(daemon.socketPath(), session));
  };
  if (curve == "hierarchy") {
    add(sessions.silent, {Client::Posting::kInBatches, "family", 0});
    for (size_t i = 2; i < value; ++i) add(sessions.silent, {Client::Posting::kInBatches, "family", 1});
    add(sessions.reporting, {Client::Posting::kInBatches, "family", 1});
  } else {
    for (size_t i = 0; i < (curve == "sessions" ? value : 1); ++i) add(sessions.reporting, {});
  }
  return sessions;
}

void send(Sessions& sessions, const Events& events, uint64_t count) {
  std::vector<Clock::duration> latencies;
  const uint64_t turn = sessions.reporting.size() == 1 ? count : kTurn;
  for (uint64_t sent = 0; sent < count;) {
    for (const auto& client : sessions.reporting) {
      Work work(turn);
      sent += client->send(events, work, Client::kPipelined, latencies);
      if (sent >= count) break;
    }
    latencies.clear();
  }
  for (const auto& client : sessions.reporting) client->flush();
}

void measure(const std::string& curve, size_t value, const Options& options) {
  DaemonSetup setup{options.daemon, kRecordsAPost};
  if (curve == "filters") setup.filters = value;
  if (curve == "storebag") setup.storebagBytes = value * 1000;
  const Events events(curve == "keys" ? value : Events::kKeys);
  const DaemonUnderTest daemon(setup);
  const auto beforeSessions = cpuTimeOf(daemon.process());
  Sessions sessions = openSessions(daemon, curve, value);
  const auto opening = cpuTimeOf(daemon.process()) - beforeSessions;
  // Each session at least once, and long payloads fewer times.
  const uint64_t scaled =
      curve == "keys" ? options.amount * Events::kKeys / std::max(value, Events::kKeys) : options.amount;
  const uint64_t count = std::max<uint64_t>(scaled, kTurn * sessions.reporting.size());
  send(sessions, events, kWarmUp);
  const uint64_t postsBefore = daemon.sink().posts();
  const auto before = cpuTimeOf(daemon.process());
  send(sessions, events, count);
  const auto cpu = cpuTimeOf(daemon.process()) - before;

  ZUN_CHECK(daemon.sink().posts() - postsBefore >= count / kRecordsAPost);

  Row row(fmt::format("{}-{}", curve, value));
  row.add("cpu_us", static_cast<double>(cpu.count()) / 1000 / static_cast<double>(count));
  row.add("open_us", static_cast<double>(opening.count()) / 1000 /
                         static_cast<double>(sessions.reporting.size() + sessions.silent.size()));
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> names;
  for (const Curve& curve : curves()) {
    for (const size_t value : curve.values) names.push_back(fmt::format("{}-{}", curve.name, value));
  }
  const Options options = parseOptions(
      argc, argv, "What an event costs with ever more of something, 50 a post.", "events", 50'000, names);
  raiseDescriptorLimit();
  for (const std::string& name : options.rows) {
    const size_t dash = name.find('-');
    measure(name.substr(0, dash), std::stoul(name.substr(dash + 1)), options);
  }
  return 0;
}
