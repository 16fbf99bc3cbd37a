// throughput: what the real daemon takes per second, and what an event costs it.

#include <algorithm>
#include <memory>
#include <optional>
#include <thread>

#include "harness/Client.h"
#include "harness/DaemonUnderTest.h"
#include "harness/EchoServer.h"
#include "harness/ProcessFigures.h"
#include "harness/Row.h"
#include "harness/ZlibCost.h"

namespace {

using namespace zun;
using namespace zun::bench;
using ReadableCopy = DaemonSetup::ReadableCopy;
using Posting = Client::Posting;

// Posts that may wait for the sink while every event is one: of more than 1,250 of one client the daemon
// drops some.
constexpr uint64_t kMaximumPostsBehind = 1000;
// Of a dashboard that acknowledges, 50 may wait.
constexpr uint64_t kMaximumDatagramsBehind = 40;
constexpr uint64_t kDashboardWindow = 32;
constexpr uint64_t kFlood = 16 * Client::kPipelined;
constexpr uint64_t kWarmUp = 1000;

struct Scenario {
  const char* name;
  int recordsAPost;
  ReadableCopy readableCopy = ReadableCopy::kNone;
  uint64_t window = Client::kPipelined;
  size_t clients = 1;
  uint64_t firstWindow = 0;  // of the first client, when not as the others'
  bool postsAtOnce = false;
  bool hasDashboard = false;
};

constexpr Scenario kScenarios[] = {
    {"pipelined-500", 500},
    {"pipelined-50", 50},
    {"pipelined-50-copy", 50, ReadableCopy::kWritten},
    {"awaited-500", 500, ReadableCopy::kNone, 1},
    {"at-once", 1, ReadableCopy::kNone, Client::kPipelined, 1, 0, true},
    {"dashboard", 500, ReadableCopy::kNone, kDashboardWindow, 1, 0, false, true},
    {"eight-500", 500, ReadableCopy::kNone, Client::kPipelined, 8},
    {"eight-500-flood", 500, ReadableCopy::kNone, Client::kPipelined, 8, kFlood},
};

class Run final {
 public:
  Run(const Scenario& scenario, const std::string& program)
      : scenario_(scenario),
        dashboard_(scenario.hasDashboard ? std::make_optional<EchoServer>() : std::nullopt),
        daemon_({program, scenario.recordsAPost, scenario.readableCopy, 20, 0,
                 dashboard_ ? dashboard_->port() : uint16_t{0}}) {
    const Client::Session session{scenario.postsAtOnce ? Posting::kEachAtOnce : Posting::kInBatches, {}, 0};
    for (size_t i = 0; i < scenario.clients; ++i) {
      clients_.push_back(std::make_unique<Client>(daemon_.socketPath(), session));
    }
  }

  void measure(const Events& events, uint64_t count) {
    send(events, kWarmUp);
    const auto before = cpuTimeOf(daemon_.process());
    const uint64_t postsBefore = daemon_.sink().posts();
    const auto start = Clock::now();
    send(events, count);
    const std::chrono::duration<double> took = Clock::now() - start;
    const auto cpu = cpuTimeOf(daemon_.process()) - before;

    const double microseconds = static_cast<double>(cpu.count()) / 1000 / static_cast<double>(count);
    Row row(scenario_.name);
    row.add("cpu_us", microseconds);
    row.add("events_per_s", static_cast<double>(count) / took.count());
    row.add("peak_rss_mib", static_cast<double>(statusOf(daemon_.process(), "VmHWM:")) / 1024);
    row.add("posts", static_cast<double>(daemon_.sink().posts() - postsBefore));
    if (dashboard_) row.add("datagrams", static_cast<double>(dashboard_->received()));
    if (!dashboard_) addZlib(row, microseconds);
    if (scenario_.window == 1) row.addPercentiles(latencies_);
    if (scenario_.clients > 1) addShares(row, count);
  }

 private:
  /// By all clients together, until all has been posted.
  void send(const Events& events, uint64_t count) {
    std::optional<Work> work;
    if (scenario_.postsAtOnce) {
      work.emplace(count, kMaximumPostsBehind, [this] { return daemon_.sink().posts(); });
    } else if (dashboard_) {
      work.emplace(count, kMaximumDatagramsBehind, [this] { return dashboard_->received(); });
    } else {
      work.emplace(count);
    }
    shares_.assign(clients_.size(), 0);
    latencies_.clear();
    std::vector<std::thread> threads;
    for (size_t i = 0; i < clients_.size(); ++i) {
      threads.emplace_back([this, &events, &work, i] {
        const bool isOther = i == 0 && scenario_.firstWindow > 0;
        std::vector<Clock::duration> latencies;
        shares_[i] =
            clients_[i]->send(events, *work, isOther ? scenario_.firstWindow : scenario_.window, latencies);
        if (i == 0) latencies_ = std::move(latencies);
      });
    }
    for (std::thread& thread : threads) thread.join();
    if (scenario_.postsAtOnce || dashboard_) return work->waitUntilDone();
    for (const auto& client : clients_) client->flush();
  }

  void addZlib(Row& row, double microseconds) const {
    const ZlibCost cost = zlibCostOf(daemon_.sink().bodies());
    row.add("zlib_us", cost.microsecondsAnEvent);
    row.add("zlib_percent", 100 * cost.microsecondsAnEvent / microseconds);
    row.add("posted_bytes", cost.bytesAnEvent);
    row.add("compressed_bytes", cost.compressedBytesAnEvent);
  }

  /// In percent of what each would have if all had the same.
  void addShares(Row& row, uint64_t count) const {
    const double fair = static_cast<double>(count) / static_cast<double>(shares_.size());
    const auto percent = [fair](uint64_t events) { return 100 * static_cast<double>(events) / fair; };
    row.add("least_share_percent", percent(*std::min_element(shares_.begin(), shares_.end())));
    row.add("largest_share_percent", percent(*std::max_element(shares_.begin(), shares_.end())));
    for (size_t i = 0; i < shares_.size(); ++i)
      row.add(("share" + std::to_string(i + 1) + "_percent").c_str(), percent(shares_[i]));
  }

  const Scenario scenario_;
  std::optional<EchoServer> dashboard_;
  const DaemonUnderTest daemon_;
  std::vector<std::unique_ptr<Client>> clients_;
  std::vector<uint64_t> shares_;
  std::vector<Clock::duration> latencies_;
};

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> names;
  for (const Scenario& scenario : kScenarios) names.emplace_back(scenario.name);
  const Options options =
      parseOptions(argc, argv, "What an event costs the real daemon.", "events", 200'000, names);
  const Events events;
  for (const std::string& name : options.rows) {
    const auto* const scenario = std::find_if(std::begin(kScenarios), std::end(kScenarios),
                                              [&name](const Scenario& one) { return one.name == name; });
    // Each a request of its own: a tenth of them tells as much.
    Run(*scenario, options.daemon).measure(events, options.amount / (scenario->postsAtOnce ? 10 : 1));
  }
  return 0;
}
