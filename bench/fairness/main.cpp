// fairness: what a client that awaits each reply keeps of its pace while another one floods
// the daemon, beside what it keeps while a process burns as much CPU without touching it, in
// as many threads.

#include <fmt/format.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <map>
#include <new>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "harness/Client.h"
#include "harness/DaemonUnderTest.h"
#include "values/Check.h"

namespace {

using namespace zun;
using namespace zun::bench;
using namespace std::chrono_literals;

constexpr auto kTurn = 1s;
constexpr auto kSettling = 200ms;
constexpr uint64_t kCallsASlice = 64;

constexpr double kLeastShare = 0.01;  // of a core: threads that use less are nobody's burden

/// CPU seconds of the threads of some processes, by their ids.
using ThreadTimes = std::map<std::string, double>;

double seconds(Clock::duration duration) {
  return std::chrono::duration<double>(duration).count();
}

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                   values.end());
  return values[values.size() / 2];
}

/// A child process that runs until this ends. It may count in `counter()`.
class Child final {
 public:
  template <typename Work>
  explicit Child(Work work) {
    void* const shared = mmap(nullptr, sizeof(std::atomic<uint64_t>), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ZUN_CHECK(shared != MAP_FAILED);
    counter_ = new (shared) std::atomic<uint64_t>(0);
    process_ = fork();
    ZUN_CHECK(process_ >= 0);
    if (process_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    work(*counter_);
    _exit(0);
  }
  ~Child() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
    munmap(counter_, sizeof(std::atomic<uint64_t>));
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  [[nodiscard]] uint64_t counter() const { return *counter_; }
  [[nodiscard]] pid_t process() const { return process_; }

 private:
  std::atomic<uint64_t>* counter_ = nullptr;
  pid_t process_ = 0;
};

enum class Call {
  kEvent,
  kJoin,     // of one hierarchy and another in turn
  kFlush,    // of an event each
  kRefused,  // no such member
};

/// Sent in turn.
std::vector<std::string> callsOf(Call call, const Events& events) {
  const auto join = [](const char* token) {
    return Client::sessionInfoCall({Client::Posting::kInBatches, token, 1});
  };
  switch (call) {
    case Call::kEvent: return events.calls();
    case Call::kJoin: return {join("one"), join("another")};
    case Call::kFlush: return {events.call(0), sessionCall("flushMessagesWithCompletion", "", {})};
    case Call::kRefused: return {sessionCall("noSuchMember", "", {})};
  }
  return {};
}

void keepSending(const std::string& socketPath, const std::vector<std::string>& calls, bool areRefused,
                 uint64_t window, std::atomic<uint64_t>& counter) {
  Client client(socketPath);
  if (areRefused) client.expectErrors();
  std::vector<Clock::duration> latencies;
  const uint64_t slice = window == 1 ? 1 : kCallsASlice * window;
  while (true) {
    latencies.clear();
    Work work(slice);
    counter += client.send(calls, work, window, latencies);
  }
}

/// Uses `share` of a core, as far as the scheduler gives it.
void burn(double share) {
  const auto cpuSeconds = [] {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
  };
  const auto start = Clock::now();
  while (true) {
    if (cpuSeconds() >= share * seconds(Clock::now() - start)) std::this_thread::sleep_for(500us);
  }
}

ThreadTimes threadTimesOf(std::initializer_list<pid_t> processes) {
  ThreadTimes times;
  for (const pid_t process : processes) {
    for (const auto& task : std::filesystem::directory_iterator(fmt::format("/proc/{}/task", process))) {
      double nanoseconds = 0;
      if (std::ifstream(task.path() / "schedstat") >> nanoseconds)
        times[task.path().filename()] = nanoseconds / 1e9;
    }
  }
  return times;
}

/// What one turn showed: calls of the client that awaits, and cores that each thread had.
struct Turn {
  double calls = 0;
  ThreadTimes cores;
};

/// Looks on while the client that awaits and whoever else there is go on.
Turn watch(const Child& awaiting, std::initializer_list<pid_t> processes) {
  std::this_thread::sleep_for(kSettling);
  const ThreadTimes before = threadTimesOf(processes);
  const uint64_t callsBefore = awaiting.counter();
  const auto start = Clock::now();
  std::this_thread::sleep_for(kTurn);
  const double elapsed = seconds(Clock::now() - start);
  Turn turn{static_cast<double>(awaiting.counter() - callsBefore) / elapsed, {}};
  for (const auto& [thread, time] : threadTimesOf(processes)) {
    const auto known = before.find(thread);
    turn.cores[thread] = (time - (known == before.end() ? 0 : known->second)) / elapsed;
  }
  return turn;
}

double sumOf(const ThreadTimes& times) {
  return std::accumulate(times.begin(), times.end(), 0.0,
                         [](double sum, const auto& entry) { return sum + entry.second; });
}

/// What the flood took beyond what the client that awaits did, whose calls cost what they
/// cost without it.
std::vector<double> coresOfFlood(const Turn& quiet, const Turn& loud) {
  std::vector<double> shares;
  for (const auto& [thread, cores] : loud.cores) {
    const auto known = quiet.cores.find(thread);
    const double own = known == quiet.cores.end() ? 0 : known->second * loud.calls / quiet.calls;
    if (cores - own >= kLeastShare) shares.push_back(cores - own);
  }
  return shares;
}

void run(const char* name, Call flood, int rounds, const std::string& program) {
  const DaemonUnderTest daemon({program});
  const Sink& sink = daemon.sink();
  const std::string path = daemon.socketPath();
  const Events events;
  const std::vector<std::string> calls = callsOf(flood, events);
  const Child awaiting([&](auto& counter) { keepSending(path, events.calls(), false, 1, counter); });

  std::vector<double> alone, flooded, burning, shares, floodCores, burntCores;
  for (int i = 0; i < rounds; ++i) {
    const Turn quiet = watch(awaiting, {daemon.process(), sink.process()});
    Turn loud;
    {
      const Child flooder([&](auto& counter) {
        keepSending(path, calls, flood == Call::kRefused, Client::kPipelined, counter);
      });
      loud = watch(awaiting, {daemon.process(), sink.process(), flooder.process()});
    }
    const std::vector<double> burnt = coresOfFlood(quiet, loud);
    const Child burner([&burnt](auto&) {
      std::vector<std::thread> threads;
      for (const double share : burnt) threads.emplace_back([share] { burn(share); });
      threads.front().join();
    });
    const Turn beside = watch(awaiting, {burner.process()});
    alone.push_back(quiet.calls);
    flooded.push_back(loud.calls);
    burning.push_back(beside.calls);
    shares.push_back(loud.calls / beside.calls);
    floodCores.push_back(std::accumulate(burnt.begin(), burnt.end(), 0.0));
    burntCores.push_back(sumOf(beside.cores));
  }
  fmt::print(
      "{:<9} alone {:>7.0f}/s  beside the flood {:>7.0f}/s ({:.2f} cores)  beside as much CPU {:>7.0f}/s "
      "({:.2f} "
      "cores)  share {:>4.0f} % ({:.0f} to {:.0f})\n",
      name, median(alone), median(flooded), median(floodCores), median(burning), median(burntCores),
      100 * median(shares), 100 * *std::min_element(shares.begin(), shares.end()),
      100 * *std::max_element(shares.begin(), shares.end()));
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string program = std::filesystem::canonical(argv[0]).parent_path().parent_path().parent_path() /
                              "src/daemon/zunreportingd";
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 9;
  if (rounds < 1 || access(program.c_str(), X_OK) != 0) {
    fmt::print(stderr, "usage: fairness [ROUNDS [events|joins|flushes|refusals]]   (beside a built {})\n",
               program);
    return 2;
  }
  fmt::print("{} cores, medians of {} rounds\n", std::thread::hardware_concurrency(), rounds);
  const std::string only = argc > 2 ? argv[2] : "";
  for (const auto& [name, call] :
       {std::pair("events", Call::kEvent), std::pair("joins", Call::kJoin),
        std::pair("flushes", Call::kFlush), std::pair("refusals", Call::kRefused)}) {
    if (only.empty() || only == name) run(name, call, rounds, program);
  }
  return 0;
}
