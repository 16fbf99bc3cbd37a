#include "linux/loop/EventLoop.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "linux/loop/WorkerPool.h"
#include "linux/system/SystemClock.h"
#include "support/Fakes.h"
#include "support/NotifySocket.h"
#include "support/ScratchFolder.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

class EventLoopTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(loop_, nullptr); }

  /// Runs the loop on the test's thread until `quit` has been called.
  void run() { EXPECT_TRUE(loop_->run()); }

  std::unique_ptr<EventLoop> loop_ = EventLoop::create();
  WorkerPool pool_{2};
  std::shared_ptr<SerialQueue> queue_ = SerialQueue::create("timers", pool_);
  SystemClock clock_;
};

TEST_F(EventLoopTest, PostedFunctionsRunInOrderOnTheLoopsThread) {
  std::vector<int> order;
  const auto loopThread = std::this_thread::get_id();
  std::thread poster([&] {
    for (int i = 0; i < 100; ++i) {
      loop_->post([&, i] {
        EXPECT_EQ(std::this_thread::get_id(), loopThread);
        order.push_back(i);
      });
    }
    loop_->quit();
  });
  run();
  poster.join();
  ASSERT_EQ(order.size(), 100U);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[static_cast<size_t>(i)], i);
}

TEST_F(EventLoopTest, APostedFunctionMayPostAgain) {
  int rounds = 0;
  std::function<void()> again = [&] {
    if (++rounds == 10) {
      loop_->quit();
    } else {
      loop_->post([&] { again(); });
    }
  };
  loop_->post([&] { again(); });
  run();
  EXPECT_EQ(rounds, 10);
}

TEST_F(EventLoopTest, QuitBeforeRunEndsIt) {
  loop_->quit();
  run();
}

TEST_F(EventLoopTest, OneShotFiresOnceOnItsQueueAndNotEarly) {
  const auto start = clock_.monotonic();
  std::atomic<int> firings = 0;
  std::chrono::nanoseconds at{};
  (void)loop_->startTimer(
      {.firstFiring = 20ms}, queue_,
      [&] {
        EXPECT_TRUE(queue_->isCurrent());
        at = clock_.monotonic();
        ++firings;
        // A second timer gives a second firing of the first its chance.
        (void)loop_->startTimer(
            {.firstFiring = 20ms}, queue_, [&] { loop_->quit(); }, nullptr);
      },
      nullptr);
  run();
  EXPECT_EQ(firings, 1);
  EXPECT_GE(at - start, 20ms);
}

TEST_F(EventLoopTest, RepeatingTimerFiresUntilItIsCancelledAndThenNoMore) {
  int firings = 0;
  std::shared_ptr<TimerSource> timer;
  timer = loop_->startTimer(
      {.firstFiring = 1ms, .interval = 1ms}, queue_,
      [&] {
        ASSERT_LE(++firings, 5);
        if (firings < 5) return;
        timer->cancel();
        timer->cancel();  // once is enough
      },
      [&] {
        EXPECT_TRUE(queue_->isCurrent());
        (void)loop_->startTimer(
            {.firstFiring = 10ms}, queue_, [&] { loop_->quit(); }, nullptr);
      });
  run();
  EXPECT_EQ(firings, 5);
}

TEST_F(EventLoopTest, CancelledBeforeItsTimeATimerNeverFires) {
  std::atomic<bool> fired = false;
  std::atomic<int> cancellations = 0;
  const auto timer = loop_->startTimer(
      {.firstFiring = 5ms}, queue_, [&] { fired = true; }, [&] { ++cancellations; });
  timer->cancel();
  timer->cancel();
  (void)loop_->startTimer(
      {.firstFiring = 20ms}, queue_, [&] { loop_->quit(); }, nullptr);
  run();
  queue_->sync([] {});
  EXPECT_FALSE(fired);
  EXPECT_EQ(cancellations, 1);
}

// The firing waits in the queue when the timer is cancelled: it does not begin.
TEST_F(EventLoopTest, AFiringThatIsQueuedAtTheCancellationIsDropped) {
  ManualExecutor executor;
  const auto queue = SerialQueue::create("cranked", executor);
  bool fired = false;
  bool cancelled = false;
  const auto timer = loop_->startTimer(
      {.firstFiring = 0ms}, queue, [&] { fired = true; }, [&] { cancelled = true; });
  (void)loop_->startTimer(
      {.firstFiring = 5ms}, queue_, [&] { loop_->quit(); }, nullptr);
  run();
  ASSERT_EQ(executor.waiting(), 1U);
  timer->cancel();
  executor.runAll();
  EXPECT_FALSE(fired);
  EXPECT_TRUE(cancelled);
}

TEST_F(EventLoopTest, AOneShotThatHasFiredCanStillBeCancelled) {
  std::shared_ptr<TimerSource> timer;
  timer = loop_->startTimer(
      {.firstFiring = 1ms}, queue_, [&] { timer->cancel(); }, [&] { loop_->quit(); });
  run();
}

TEST_F(EventLoopTest, ALaggingQueueGetsOneFiringOfARepeatingTimer) {
  ManualExecutor executor;
  const auto queue = SerialQueue::create("cranked", executor);
  int firings = 0;
  const auto timer = loop_->startTimer(
      {.firstFiring = 1ms, .interval = 1ms}, queue, [&] { ++firings; }, nullptr);
  (void)loop_->startTimer(
      {.firstFiring = 20ms}, queue_, [&] { loop_->quit(); }, nullptr);
  run();
  executor.runAll();
  EXPECT_EQ(firings, 1);
  timer->cancel();
  executor.runAll();
}

TEST_F(EventLoopTest, LeewayMakesATimerLateNeverEarly) {
  const auto start = clock_.monotonic();
  (void)loop_->startTimer(
      {.firstFiring = 10ms, .leeway = 10ms}, queue_, [&] { loop_->quit(); }, nullptr);
  run();
  EXPECT_GE(clock_.monotonic() - start, 10ms);
}

TEST_F(EventLoopTest, HandlersAreLetGoOfAfterTheCancellation) {
  const auto owned = std::make_shared<int>(1);
  const std::weak_ptr<int> weak = owned;
  auto timer = loop_->startTimer(
      {.firstFiring = 1h, .interval = 1h}, queue_, [keep = owned] { (void)keep; },
      [keep = owned] { (void)keep; });
  EXPECT_EQ(weak.use_count(), 3);
  timer->cancel();
  queue_->sync([] {});
  EXPECT_EQ(weak.use_count(), 1);
}

TEST_F(EventLoopTest, ATimerWhoseHolderLetGoStillFires) {
  loop_
      ->startTimer(
          {.firstFiring = 1ms}, queue_, [&] { loop_->quit(); }, nullptr)
      .reset();
  run();
}

TEST_F(EventLoopTest, TimesBeyondAllBoundsAreTaken) {
  bool fired = false;
  (void)loop_->startTimer(
      {.firstFiring = std::chrono::nanoseconds::max(),
       .interval = std::chrono::nanoseconds::max(),
       .leeway = std::chrono::nanoseconds::max()},
      queue_, [&] { fired = true; }, nullptr);
  (void)loop_->startTimer(
      {.firstFiring = -5s}, queue_, [&] { loop_->quit(); }, nullptr);
  run();
  EXPECT_FALSE(fired);
}

TEST_F(EventLoopTest, TimersMayBeStartedAndCancelledOnManyThreads) {
  std::atomic<int> cancellations = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 100; ++i) {
        const auto timer = loop_->startTimer(
            {.firstFiring = std::chrono::microseconds(i * 10), .interval = 1ms}, queue_, [] {},
            [&] {
              if (++cancellations == 400) loop_->quit();
            });
        std::this_thread::yield();
        timer->cancel();
      }
    });
  }
  run();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(cancellations, 400);
}

TEST_F(EventLoopTest, TimersAndPostsOutliveTheLoop) {
  std::promise<void> cancelled;
  const auto timer = loop_->startTimer(
      {.firstFiring = 1h}, queue_, [] {}, [&] { cancelled.set_value(); });
  const auto owned = std::make_shared<int>(1);
  loop_->post([keep = owned] { (void)keep; });
  loop_.reset();
  EXPECT_EQ(owned.use_count(), 1);
  timer->cancel();
  cancelled.get_future().get();
}

TEST_F(EventLoopTest, ASignalReachesItsHandler) {
  sigset_t before;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  int hangUps = 0;
  ASSERT_TRUE(loop_->onSignal(SIGHUP, [&] { ++hangUps; }));
  ASSERT_TRUE(loop_->onSignal(SIGTERM, [&] { loop_->quit(); }));
  // To this thread: the pool's threads were there before and do not block it.
  pthread_kill(pthread_self(), SIGHUP);
  loop_->post([] { pthread_kill(pthread_self(), SIGTERM); });
  run();
  EXPECT_EQ(hangUps, 1);
  loop_.reset();
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(EventLoopTest, BlockedSignalsStayAway) {
  sigset_t before;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  EventLoop::blockSignals({SIGUSR1, SIGUSR2});
  sigset_t now;
  pthread_sigmask(SIG_SETMASK, nullptr, &now);
  EXPECT_EQ(sigismember(&now, SIGUSR1), 1);
  EXPECT_EQ(sigismember(&now, SIGUSR2), 1);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(EventLoopWatchdogTest, SignsOfLifeGoToAServiceManagerThatAsksForThem) {
  NotifySocket manager;
  ::setenv("WATCHDOG_USEC", "20000", 1);
  const auto loop = EventLoop::create();
  ::unsetenv("WATCHDOG_USEC");
  ASSERT_NE(loop, nullptr);
  std::thread listener([&] {
    for (int i = 0; i < 3; ++i) EXPECT_EQ(manager.receive(), "WATCHDOG=1");
    loop->quit();
  });
  EXPECT_TRUE(loop->run());
  listener.join();
}

TEST(EventLoopWatchdogTest, NoSignOfLifeIsGivenWhileTheCheckRefusesIt) {
  NotifySocket manager;
  ::setenv("WATCHDOG_USEC", "2000", 1);
  const auto loop = EventLoop::create();
  ::unsetenv("WATCHDOG_USEC");
  ASSERT_NE(loop, nullptr);
  std::atomic<int> asked{0};
  loop->setVitalSign([&asked](std::chrono::microseconds longest) {
    EXPECT_EQ(longest, 2ms);
    return ++asked > 3;
  });
  std::thread listener([&] {
    EXPECT_EQ(manager.receive(), "WATCHDOG=1");
    EXPECT_GE(asked, 4);
    loop->quit();
  });
  EXPECT_TRUE(loop->run());
  listener.join();
}

}  // namespace
}  // namespace zun
