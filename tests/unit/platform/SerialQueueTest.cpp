#include "platform/SerialQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "linux/loop/WorkerPool.h"
#include "support/Fakes.h"

namespace zun {
namespace {

using Log = std::vector<std::string>;

class SerialQueueTest : public ::testing::Test {
 protected:
  ManualExecutor executor_;
  std::shared_ptr<SerialQueue> queue_ = SerialQueue::create("com.vantix.test", executor_);
};

TEST_F(SerialQueueTest, KeepsItsLabel) {
  EXPECT_EQ(queue_->label(), "com.vantix.test");
}

TEST_F(SerialQueueTest, AsyncJobsRunInOrderOnTheExecutorOnly) {
  Log log;
  for (int i = 0; i < 200; ++i) queue_->async([&log, i] { log.push_back(std::to_string(i)); });
  EXPECT_TRUE(log.empty());
  executor_.runAll();
  ASSERT_EQ(log.size(), 200U);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(log[static_cast<size_t>(i)], std::to_string(i));
}

TEST_F(SerialQueueTest, AtMostOneDrainIsScheduled) {
  for (int i = 0; i < 10; ++i) queue_->async([] {});
  EXPECT_EQ(executor_.waiting(), 1U);
  queue_->sync([] {});  // runs them all
  queue_->async([] {});
  EXPECT_EQ(executor_.waiting(), 1U) << "the drain that was on its way serves the new job";
  executor_.runAll();
}

TEST_F(SerialQueueTest, ALongBacklogLetsOtherJobsOfTheExecutorHaveTheirChance) {
  int done = 0;
  int doneWhenOtherRan = -1;
  for (int i = 0; i < 1000; ++i) queue_->async([&done] { ++done; });
  executor_.execute([&] { doneWhenOtherRan = done; });
  executor_.runAll();
  EXPECT_EQ(done, 1000);
  EXPECT_GT(doneWhenOtherRan, 0);
  EXPECT_LT(doneWhenOtherRan, 1000);
}

TEST_F(SerialQueueTest, SyncOnAnIdleQueueRunsOnTheCallersThreadAndGivesTheResult) {
  const auto caller = std::this_thread::get_id();
  EXPECT_TRUE(queue_->sync([caller] { return std::this_thread::get_id() == caller; }));
  EXPECT_EQ(executor_.waiting(), 0U);
}

TEST_F(SerialQueueTest, AJobForAnIdleQueueMayRunOnTheCallersThread) {
  std::thread::id ranOn;
  queue_->runOrQueue([&] {
    EXPECT_TRUE(queue_->isCurrent());
    ranOn = std::this_thread::get_id();
  });
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_FALSE(queue_->isCurrent());
  EXPECT_EQ(executor_.waiting(), 0U);
}

TEST_F(SerialQueueTest, AJobForAQueueThatIsNotIdleKeepsItsPlace) {
  Log log;
  queue_->async([&log] { log.emplace_back("queued"); });
  queue_->runOrQueue([&] {
    log.emplace_back("behind it");
    queue_->runOrQueue([&log] { log.emplace_back("from within"); });
    log.emplace_back("its end");
  });
  EXPECT_TRUE(log.empty());
  executor_.runAll();
  EXPECT_EQ(log, (Log{"queued", "behind it", "its end", "from within"}));
}

TEST_F(SerialQueueTest, WhatAJobOnAnIdleQueueQueuesRunsAfterIt) {
  Log log;
  queue_->runOrQueue([&] {
    queue_->async([&log] { log.emplace_back("queued"); });
    queue_->runOrQueue([&log] { log.emplace_back("too"); });
    log.emplace_back("first");
  });
  EXPECT_EQ(log, Log{"first"});
  executor_.runAll();
  EXPECT_EQ(log, (Log{"first", "queued", "too"}));
}

TEST_F(SerialQueueTest, TheLastReferenceMayGoDuringAJobOnAnIdleQueue) {
  bool ran = false;
  SerialQueue& queue = *queue_;
  queue.runOrQueue([&] {
    queue_ = nullptr;
    ran = true;
  });
  EXPECT_TRUE(ran);
}

TEST_F(SerialQueueTest, SyncCanGiveAReference) {
  int number = 1;
  queue_->sync([&number]() -> int& { return number; }) = 2;
  EXPECT_EQ(number, 2);
}

// The executor never gets to run anything here: a busy pool must not hold up a caller.
TEST_F(SerialQueueTest, SyncRunsWhatIsAheadOfItItself) {
  Log log;
  queue_->async([&log] { log.push_back("first"); });
  queue_->async([&log] { log.push_back("second"); });
  queue_->sync([&log] { log.push_back("sync"); });
  EXPECT_EQ(log, (Log{"first", "second", "sync"}));
  executor_.runAll();
  EXPECT_EQ(log.size(), 3U);
}

TEST_F(SerialQueueTest, JobsThatAJobAheadQueuesRunAfterTheSyncFunction) {
  Log log;
  queue_->async([&] {
    log.push_back("ahead");
    queue_->async([&log] { log.push_back("later"); });
  });
  queue_->sync([&log] { log.push_back("sync"); });
  EXPECT_EQ(log, (Log{"ahead", "sync"}));
  executor_.runAll();
  EXPECT_EQ(log, (Log{"ahead", "sync", "later"}));
}

TEST_F(SerialQueueTest, AsyncWithinSyncRunsAfterItOnTheExecutor) {
  Log log;
  queue_->sync([&] {
    queue_->async([&log] { log.push_back("async"); });
    log.push_back("sync");
  });
  EXPECT_EQ(log, (Log{"sync"}));
  executor_.runAll();
  EXPECT_EQ(log, (Log{"sync", "async"}));
}

TEST_F(SerialQueueTest, SyncOnTheQueueItselfRunsInline) {
  Log log;
  queue_->async([&] {
    queue_->sync([&] {
      queue_->sync([&log] { log.push_back("inner"); });
      log.push_back("middle");
    });
    log.push_back("outer");
  });
  executor_.runAll();
  EXPECT_EQ(log, (Log{"inner", "middle", "outer"}));
}

TEST_F(SerialQueueTest, SyncRunsInlineWhereTheThreadHoldsTheQueueFurtherUp) {
  const auto other = SerialQueue::create("other", executor_);
  bool ran = false;
  queue_->sync([&] { other->sync([&] { queue_->sync([&] { ran = true; }); }); });
  EXPECT_TRUE(ran);

  // The same where the caller runs another queue's job on its way.
  ran = false;
  other->async([&] { queue_->sync([&] { ran = true; }); });
  queue_->sync([&] { other->sync([] {}); });
  EXPECT_TRUE(ran);
  executor_.runAll();
}

TEST_F(SerialQueueTest, IsCurrentOnlyDuringAJobAndOnlyOnItsThread) {
  EXPECT_FALSE(queue_->isCurrent());
  queue_->sync([&] {
    EXPECT_TRUE(queue_->isCurrent());
    EXPECT_FALSE(std::async(std::launch::async, [&] { return queue_->isCurrent(); }).get());
  });
  EXPECT_FALSE(queue_->isCurrent());
  bool inJob = false;
  queue_->async([&] { inJob = queue_->isCurrent(); });
  executor_.runAll();
  EXPECT_TRUE(inJob);
}

TEST_F(SerialQueueTest, AnExceptionOfASyncFunctionReachesTheCallerAndEndsTheTurn) {
  EXPECT_THROW(queue_->sync([] { throw std::runtime_error("no"); }), std::runtime_error);
  EXPECT_FALSE(queue_->isCurrent());
  EXPECT_EQ(std::async(std::launch::async, [&] { return queue_->sync([] { return 7; }); }).get(), 7);
}

// What a job owns may use the queue when it goes: it must go outside the lock.
TEST_F(SerialQueueTest, WhatAJobOwnsIsLetGoOfOnTheQueueAndOutsideItsLock) {
  struct Owned {
    explicit Owned(std::shared_ptr<SerialQueue> queueToUse, Log& logToUse)
        : queue(std::move(queueToUse)), log(logToUse) {}
    ~Owned() {
      log.push_back(queue->isCurrent() ? "on the queue" : "elsewhere");
      queue->async([&target = log] { target.push_back("queued by the end"); });
      queue->sync([] {});
    }
    std::shared_ptr<SerialQueue> queue;
    Log& log;
  };
  Log log;
  queue_->async([owned = std::make_unique<Owned>(queue_, log)] {});
  queue_->async([&log] { log.push_back("next"); });
  executor_.runAll();
  EXPECT_EQ(log, (Log{"on the queue", "next", "queued by the end"}));
}

TEST_F(SerialQueueTest, AQueuedJobKeepsTheQueueAlive) {
  bool ran = false;
  const std::weak_ptr<SerialQueue> weak = queue_;
  queue_->async([&ran] { ran = true; });
  queue_.reset();
  EXPECT_FALSE(weak.expired());
  executor_.runAll();
  EXPECT_TRUE(ran);
  EXPECT_TRUE(weak.expired());
}

TEST_F(SerialQueueTest, TheLastReferenceMayGoDuringAJob) {
  const std::weak_ptr<SerialQueue> weak = queue_;
  SerialQueue& queue = *queue_;
  queue.sync([this] { queue_.reset(); });
  EXPECT_TRUE(weak.expired());
}

TEST_F(SerialQueueTest, TheLastReferenceMayGoDuringASyncFunctionThatQueuedAJob) {
  const std::weak_ptr<SerialQueue> weak = queue_;
  bool ran = false;
  SerialQueue& queue = *queue_;
  queue.sync([&] {
    queue.async([&ran] { ran = true; });
    queue_.reset();
  });
  EXPECT_FALSE(weak.expired());
  executor_.runAll();
  EXPECT_TRUE(ran);
  EXPECT_TRUE(weak.expired());
}

TEST_F(SerialQueueTest, TheLastReferenceMayGoWithAJobThatASyncCallerRan) {
  const std::weak_ptr<SerialQueue> weak = queue_;
  SerialQueue& queue = *queue_;
  queue.async([this] { queue_.reset(); });
  queue.sync([] {});
  executor_.runAll();  // the drain that came too late
  EXPECT_TRUE(weak.expired());
}

// One worker, blocked for as long as the test likes: sync callers go on without it.
TEST(SerialQueueThreadsTest, SyncGoesOnWhileTheOnlyWorkerIsBlocked) {
  WorkerPool pool(1);
  const auto queue = SerialQueue::create("queue", pool);
  std::latch blocked(1);
  std::latch release(1);
  pool.execute([&] {
    blocked.count_down();
    release.wait();
  });
  blocked.wait();
  int sum = 0;
  for (int i = 1; i <= 100; ++i) queue->async([&sum, i] { sum += i; });
  EXPECT_EQ(queue->sync([&sum] { return sum; }), 5050);
  release.count_down();
}

TEST(SerialQueueThreadsTest, SyncWaitsForAJobThatRunsOnAnotherThread) {
  WorkerPool pool(1);
  const auto queue = SerialQueue::create("queue", pool);
  std::latch started(1);
  std::latch release(1);
  bool finished = false;
  queue->async([&] {
    started.count_down();
    release.wait();
    finished = true;
  });
  started.wait();
  std::atomic<bool> callerDone = false;
  std::thread caller([&] {
    EXPECT_TRUE(queue->sync([&finished] { return finished; }));
    callerDone = true;
  });
  EXPECT_FALSE(callerDone);
  release.count_down();
  caller.join();
}

// Two callers, each behind a job, behind one that is under way.
TEST(SerialQueueThreadsTest, WaitingSyncCallersKeepTheirPlaceAmongJobs) {
  ManualExecutor executor;
  const auto queue = SerialQueue::create("queue", executor);
  Log log;
  std::latch inside(1);
  std::latch release(1);
  std::thread holder([&] {
    queue->sync([&] {
      inside.count_down();
      release.wait();
    });
  });
  inside.wait();
  queue->async([&log] { log.push_back("job"); });
  std::thread caller([&] { queue->sync([&log] { log.push_back("caller"); }); });
  release.count_down();
  holder.join();
  caller.join();
  executor.runAll();
  EXPECT_EQ(log, (Log{"job", "caller"}));
}

TEST(SerialQueueThreadsTest, ManyThreadsNeverRunTwoJobsAtOnceAndLoseNone) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 2000;
  WorkerPool pool(2);
  const auto queue = SerialQueue::create("queue", pool);
  int counter = 0;  // unguarded: the queue is its guard, which ThreadSanitizer sees
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        queue->async([&counter] { ++counter; });
        queue->sync([&counter] { ++counter; });
        queue->async([&queue, &counter] { queue->sync([&counter] { ++counter; }); });
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(queue->sync([&counter] { return counter; }), kThreads * kRounds * 3);
}

TEST(SerialQueueThreadsTest, EachThreadsJobsKeepTheirOrder) {
  static constexpr int kRounds = 3000;
  WorkerPool pool(2);
  const auto queue = SerialQueue::create("queue", pool);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&queue] {
      int next = 0;
      for (int i = 0; i < kRounds; ++i) {
        const auto step = [&next, i] {
          EXPECT_EQ(next, i);
          ++next;
        };
        if (i % 3 == 0) {
          queue->sync(step);
        } else {
          queue->async(step);
        }
      }
      EXPECT_EQ(queue->sync([&next] { return next; }), kRounds);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(SerialQueueThreadsTest, QueuesThatComeAndGoUnderLoadLoseNoJob) {
  WorkerPool pool(2);
  std::atomic<int> ran = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        const auto queue = SerialQueue::create("short-lived", pool);
        queue->async([&ran] { ++ran; });
        if (i % 2 == 0) queue->sync([&ran] { ++ran; });
        queue->async([&ran] { ++ran; });
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  while (ran != 4 * 500 * 2 + 4 * 250) std::this_thread::yield();
  EXPECT_EQ(ran, 5000);
}

TEST(WorkerPoolTest, RunsJobsOnThreadsOfItsOwn) {
  WorkerPool pool(2);
  std::promise<std::thread::id> thread;
  pool.execute([&thread] { thread.set_value(std::this_thread::get_id()); });
  EXPECT_NE(thread.get_future().get(), std::this_thread::get_id());
}

TEST(WorkerPoolTest, OneThreadKeepsTheOrder) {
  std::vector<int> order;
  {
    WorkerPool pool(1);
    for (int i = 0; i < 100; ++i) pool.execute([&order, i] { order.push_back(i); });
  }
  ASSERT_EQ(order.size(), 100U);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[static_cast<size_t>(i)], i);
}

TEST(WorkerPoolTest, TheEndRunsWhatIsQueuedAndWhatThatQueues) {
  std::atomic<int> ran = 0;
  {
    WorkerPool pool(2);
    for (int i = 0; i < 100; ++i) {
      pool.execute([&pool, &ran] {
        ++ran;
        pool.execute([&ran] { ++ran; });
      });
    }
  }
  EXPECT_EQ(ran, 200);
}

TEST(WorkerPoolTest, APoolOfNoThreadsHasOne) {
  std::atomic<int> ran = 0;
  {
    WorkerPool pool(0);
    pool.execute([&ran] { ++ran; });
  }
  EXPECT_EQ(ran, 1);
}

TEST(WorkerPoolTest, ThreadsWorkSideBySide) {
  WorkerPool pool(2);
  std::latch both(2);
  std::latch done(2);
  for (int i = 0; i < 2; ++i) {
    pool.execute([&] {
      both.arrive_and_wait();  // never comes back on a single thread
      done.count_down();
    });
  }
  done.wait();
}

}  // namespace
}  // namespace zun
