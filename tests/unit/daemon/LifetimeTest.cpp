#include "daemon/Lifetime.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "linux/loop/WorkerPool.h"
#include "support/Fakes.h"
#include "support/RecordingLog.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

/// What happened, in order. Any thread.
class Trace final {
 public:
  void add(const std::string& what) {
    const std::lock_guard lock(mutex_);
    steps_.push_back(what);
    changed_.notify_all();
  }
  std::vector<std::string> steps() {
    const std::lock_guard lock(mutex_);
    return steps_;
  }
  /// False if it does not happen.
  bool waitFor(const std::string& what) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 60s, [&] { return std::count(steps_.begin(), steps_.end(), what) > 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> steps_;
};

class FakeHost final : public LifetimeHost {
 public:
  FakeHost(FakeClock& clock, Trace& trace) : clock_(clock), trace_(trace) {}

  DaemonActivity activity() override {
    const std::lock_guard lock(mutex_);
    ++looks_;
    looked_.notify_all();
    return activity_;
  }
  void runAfter(std::chrono::nanoseconds wait, std::function<void()> action) override {
    timers_.emplace_back(clock_.monotonic() + wait, std::move(action));
  }
  void notifyStopping() override { trace_.add("stopping told"); }
  void quit() override { trace_.add("quit"); }
  void exitAtOnce() override { trace_.add("exit at once"); }

  void set(const DaemonActivity& activity) {
    const std::lock_guard lock(mutex_);
    activity_ = activity;
  }
  /// Waits until what it does has been looked at this often once more.
  void waitForLooks(int count) {
    std::unique_lock lock(mutex_);
    looked_.wait(lock, [&, until = looks_ + count] { return looks_ >= until; });
  }
  /// Time goes on and what is due runs.
  void advance(std::chrono::nanoseconds by) {
    clock_.advance(by);
    std::vector<std::function<void()>> due;
    std::erase_if(timers_, [&](auto& timer) {
      if (timer.first > clock_.monotonic()) return false;
      due.push_back(std::move(timer.second));
      return true;
    });
    for (const auto& action : due) action();
  }
  size_t timers() const { return timers_.size(); }

 private:
  FakeClock& clock_;
  Trace& trace_;
  std::vector<std::pair<std::chrono::nanoseconds, std::function<void()>>> timers_;
  std::mutex mutex_;
  std::condition_variable looked_;
  int looks_ = 0;
  DaemonActivity activity_;
};

class FakeListener final : public ServiceListener {
 public:
  explicit FakeListener(Trace& trace) : trace_(trace) {}
  /// A call that has not ended holds the end up.
  ~FakeListener() override { letCallsEnd(); }

  void setDelegate(ServiceListenerDelegate* /*delegate*/) override {}
  void resume() override { trace_.add("resume"); }
  void pause() override { trace_.add("pause"); }
  void stop() override { trace_.add("stop"); }
  void invalidateConnections() override {
    trace_.add("invalidate connections");
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [&] { return !hasCall_; });
  }

  size_t connectionCount() override { return connections; }
  bool hasWaitingClient() override { return hasWaiting; }

  std::atomic<size_t> connections{0};
  std::atomic<bool> hasWaiting{false};

  void beginCall() {
    const std::lock_guard lock(mutex_);
    hasCall_ = true;
  }
  void letCallsEnd() {
    const std::lock_guard lock(mutex_);
    hasCall_ = false;
    ended_.notify_all();
  }

 private:
  Trace& trace_;
  std::mutex mutex_;
  std::condition_variable ended_;
  bool hasCall_ = false;
};

class LifetimeTest : public ::testing::Test {
 protected:
  ~LifetimeTest() override {
    host_.set({});
    listener_.letCallsEnd();
  }

  void work() {
    lifetime_.transactionChanged(true);
    lifetime_.transactionChanged(false);
  }
  void expectError(const std::string& line) { EXPECT_EQ(log_.takeErrors(), std::vector<std::string>{line}); }
  void TearDown() override { EXPECT_EQ(log_.takeErrors(), std::vector<std::string>()); }

  using Steps = std::vector<std::string>;

  FakeClock clock_;
  Trace trace_;
  RecordingLog log_;
  const DaemonOptions options_ = [] {
    DaemonOptions options;
    options.idleExit = 30s;
    options.stopGrace = 20s;
    return options;
  }();
  FakeHost host_{clock_, trace_};
  FakeListener listener_{trace_};
  WorkerPool patient_{1};
  Lifetime lifetime_{options_, host_, listener_, patient_, clock_, log_};
};

TEST_F(LifetimeTest, ASignalClosesTheDoorEndsTheConnectionsAndThenTheLoop) {
  lifetime_.terminationRequested();
  EXPECT_TRUE(trace_.waitFor("quit"));
  EXPECT_EQ(trace_.steps(), (Steps{"stopping told", "stop", "invalidate connections", "quit"}));
  EXPECT_TRUE(lifetime_.hasEndedCleanly());
}

TEST_F(LifetimeTest, ASecondSignalEndsTheProcessAtOnce) {
  listener_.beginCall();
  lifetime_.terminationRequested();
  lifetime_.terminationRequested();
  EXPECT_TRUE(trace_.waitFor("exit at once"));
}

TEST_F(LifetimeTest, TheLoopEndsOnceNothingIsInFlightAnyMore) {
  host_.set({.isTransactionOpen = true, .transfersInFlight = 1});
  lifetime_.terminationRequested();
  EXPECT_TRUE(trace_.waitFor("invalidate connections"));
  EXPECT_FALSE(lifetime_.hasEndedCleanly());
  host_.set({.isTransactionOpen = true, .transfersInFlight = 0});
  EXPECT_TRUE(trace_.waitFor("quit"));
  EXPECT_TRUE(lifetime_.hasEndedCleanly());
}

TEST_F(LifetimeTest, TheGraceBoundsTheWait) {
  listener_.beginCall();
  listener_.connections = 2;
  host_.set({.isTransactionOpen = true, .jobsUnfinished = 5, .transfersInFlight = 3, .dashboards = 4});
  lifetime_.terminationRequested();
  EXPECT_TRUE(trace_.waitFor("invalidate connections"));
  host_.advance(20s - 1ns);
  EXPECT_EQ(trace_.steps().back(), "invalidate connections");
  host_.advance(1ns);
  EXPECT_EQ(trace_.steps().back(), "quit");
  EXPECT_FALSE(lifetime_.hasEndedCleanly());
  expectError("main: stopped with 2 connections, 3 transfers, 4 dashboards and 5 jobs unfinished");
}

TEST_F(LifetimeTest, AGraceThatWasNotNeededSaysNothing) {
  lifetime_.terminationRequested();
  EXPECT_TRUE(trace_.waitFor("quit"));
  host_.advance(20s);
  EXPECT_EQ(trace_.steps().size(), 4u);
}

TEST_F(LifetimeTest, DashboardsThatWaitArePartOfWhatTheGraceIsFor) {
  host_.set({.dashboards = 1});
  lifetime_.terminationRequested();
  EXPECT_TRUE(trace_.waitFor("invalidate connections"));
  host_.advance(20s);
  EXPECT_FALSE(lifetime_.hasEndedCleanly());
  expectError("main: stopped with 0 connections, 0 transfers, 1 dashboards and 0 jobs unfinished");
}

TEST_F(LifetimeTest, OnceNoDashboardWaitsTheLoopEnds) {
  host_.set({.dashboards = 1});
  lifetime_.terminationRequested();
  EXPECT_TRUE(trace_.waitFor("invalidate connections"));
  host_.set({.dashboards = 0});
  EXPECT_TRUE(trace_.waitFor("quit"));
  EXPECT_TRUE(lifetime_.hasEndedCleanly());
}

TEST_F(LifetimeTest, ALoopThatEndsByItselfHasEndedCleanly) {
  EXPECT_TRUE(lifetime_.hasEndedCleanly());
}

TEST_F(LifetimeTest, AnIdleDaemonStopsWhenItsTimeIsOver) {
  work();
  host_.advance(30s - 1ns);
  EXPECT_EQ(trace_.steps(), Steps{});
  host_.advance(1ns);
  EXPECT_TRUE(trace_.waitFor("quit"));
  EXPECT_TRUE(lifetime_.hasEndedCleanly());
  // The door that was closed to look once more stays closed.
  EXPECT_EQ(trace_.steps(), (Steps{"pause", "stopping told", "stop", "invalidate connections", "quit"}));
}

TEST_F(LifetimeTest, WorkBeforeTheTimeIsOverStartsItAnew) {
  work();
  host_.advance(29s);
  work();
  host_.advance(29s);
  EXPECT_EQ(trace_.steps(), Steps{});
  host_.advance(1s);
  EXPECT_TRUE(trace_.waitFor("stop"));
}

TEST_F(LifetimeTest, AConnectionKeepsAnIdleDaemon) {
  work();
  lifetime_.connectionsChanged(1);
  host_.advance(1h);
  EXPECT_EQ(trace_.steps(), Steps{});
  lifetime_.connectionsChanged(0);
  host_.advance(30s);
  EXPECT_TRUE(trace_.waitFor("stop"));
}

// What has come in is told by way of the loop, and may not have been told yet.
TEST_F(LifetimeTest, WhoCameInBeforeTheDoorWasClosedKeepsAnIdleDaemon) {
  work();
  listener_.connections = 1;
  host_.advance(30s);
  EXPECT_EQ(trace_.steps(), (Steps{"pause", "resume"}));
  listener_.connections = 0;
  listener_.hasWaiting = true;
  host_.advance(1s);
  EXPECT_EQ(trace_.steps(), (Steps{"pause", "resume", "pause", "resume"}));
  listener_.hasWaiting = false;
  host_.set({.isTransactionOpen = true});
  host_.advance(1s);
  EXPECT_EQ(trace_.steps().size(), 6u);
  host_.set({.isTransactionOpen = false});
  host_.advance(1s - 1ns);
  EXPECT_EQ(trace_.steps().size(), 6u);
  host_.advance(1ns);
  EXPECT_TRUE(trace_.waitFor("quit"));
  EXPECT_EQ(trace_.steps()[6], "pause");
  EXPECT_EQ(trace_.steps()[8], "stop");
}

TEST_F(LifetimeTest, WhoCameInStartsTheIdleTimeAnew) {
  work();
  listener_.connections = 1;
  host_.advance(30s);
  lifetime_.connectionsChanged(1);
  lifetime_.connectionsChanged(0);
  listener_.connections = 0;
  host_.advance(29s);
  EXPECT_EQ(trace_.steps(), (Steps{"pause", "resume"}));
  host_.advance(1s);
  EXPECT_TRUE(trace_.waitFor("quit"));
}

TEST_F(LifetimeTest, AnIdleDaemonServesOnUntilNoDashboardWaits) {
  work();
  host_.set({.dashboards = 1});
  host_.advance(30s);
  host_.advance(9s);
  EXPECT_EQ(trace_.steps(), Steps{});
  host_.set({.dashboards = 0});
  host_.advance(1s - 1ns);
  EXPECT_EQ(trace_.steps(), Steps{});
  host_.advance(1ns);
  EXPECT_TRUE(trace_.waitFor("quit"));
}

TEST_F(LifetimeTest, AnIdleDaemonWaitsTenSecondsForDashboardsAndNoLonger) {
  work();
  host_.set({.dashboards = 7});
  for (int second = 0; second < 39; ++second) host_.advance(1s);
  EXPECT_EQ(trace_.steps(), Steps{});
  host_.advance(1s);
  EXPECT_TRUE(trace_.waitFor("quit"));
  EXPECT_TRUE(lifetime_.hasEndedCleanly());
  expectError("main: stopped with 0 connections, 0 transfers, 7 dashboards and 0 jobs unfinished");
}

// The stop goes on to wait for the rest, which is told only where it does not end.
TEST_F(LifetimeTest, AnIdleDaemonTellsOfItsDashboardsWhenAllElseHasEnded) {
  work();
  host_.set({.jobsUnfinished = 5, .transfersInFlight = 3, .dashboards = 7});
  for (int second = 0; second < 40; ++second) host_.advance(1s);
  EXPECT_TRUE(trace_.waitFor("invalidate connections"));
  host_.waitForLooks(4);
  host_.set({.dashboards = 7});
  EXPECT_TRUE(trace_.waitFor("quit"));
  expectError("main: stopped with 0 connections, 0 transfers, 7 dashboards and 0 jobs unfinished");
}

TEST_F(LifetimeTest, HoweverOftenItFallsIdleOneTimerIsEnough) {
  for (int i = 0; i < 100; ++i) work();
  EXPECT_EQ(host_.timers(), 1u);
}

TEST_F(LifetimeTest, ADaemonThatIsStoppingIsNotStoppedAgainWhenItsIdleTimeIsOver) {
  listener_.beginCall();
  work();
  lifetime_.terminationRequested();
  EXPECT_TRUE(trace_.waitFor("invalidate connections"));
  host_.advance(30s);
  EXPECT_EQ(trace_.steps(), (Steps{"stopping told", "stop", "invalidate connections", "quit"}));
  expectError("main: stopped with 0 connections, 0 transfers, 0 dashboards and 0 jobs unfinished");
}

}  // namespace
}  // namespace zun
