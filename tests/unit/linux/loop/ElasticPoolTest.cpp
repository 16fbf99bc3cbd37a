#include "linux/loop/ElasticPool.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "support/RecordingLog.h"

namespace zun {
namespace {

using namespace std::chrono_literals;
using Outcome = DescriptorTask::Outcome;

/// Does what a test says; its descriptors are counters that are readable once written to.
class Task final : public DescriptorTask {
 public:
  explicit Task(std::function<Outcome(Task&)> work) : work_(std::move(work)) {}

  Outcome work() override { return work_(*this); }
  std::array<int, 2> descriptors() const override {
    isAskedOf_ = true;
    return {first_.get(), second_.get()};
  }
  /// True from when the pool is about to let it rest, holding its lock.
  [[nodiscard]] bool isAskedOf() const { return isAskedOf_; }

  void call(size_t descriptor = 0) {
    ASSERT_EQ(::eventfd_write(descriptor == 0 ? first_.get() : second_.get(), 1), 0);
  }
  /// Takes what was called, through either; true if anything was.
  bool take() {
    eventfd_t count = 0;
    const bool isFirst = ::eventfd_read(first_.get(), &count) == 0;
    return ::eventfd_read(second_.get(), &count) == 0 || isFirst;
  }

 private:
  std::function<Outcome(Task&)> work_;
  FileDescriptor first_{::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)};
  FileDescriptor second_{::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)};
  mutable std::atomic<bool> isAskedOf_{false};
};

/// Whoever arrives waits for the last.
class Gathering final {
 public:
  explicit Gathering(int count) : missing_(count) {}
  void arriveAndWait() {
    std::unique_lock lock(mutex_);
    if (--missing_ == 0) complete_.notify_all();
    complete_.wait(lock, [this] { return missing_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable complete_;
  int missing_;
};

void waitUntil(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + 60s;
  while (!condition() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  EXPECT_TRUE(condition());
}

class ElasticPoolTest : public ::testing::Test {
 protected:
  void make() {
    auto pool = ElasticPool::create(options_, log_);
    ASSERT_TRUE(pool);
    pool_ = std::move(*pool);
  }
  std::shared_ptr<Task> add(std::function<Outcome(Task&)> work) {
    auto task = std::make_shared<Task>(std::move(work));
    EXPECT_EQ(pool_->add(task), 0);
    return task;
  }
  void TearDown() override {
    pool_ = nullptr;
    EXPECT_EQ(log_.takeErrors(), std::vector<std::string>());
  }

  RecordingLog log_;
  ElasticPool::Options options_;
  std::unique_ptr<ElasticPool> pool_;
};

TEST_F(ElasticPoolTest, ATaskIsWorkedOnAtOnceAndWhenEitherDescriptorIsReadable) {
  make();
  std::atomic<int> works{0};
  std::atomic<bool> isOver{false};
  const auto task = add([&](Task& self) {
    EXPECT_EQ(self.take(), works > 0);
    ++works;
    return isOver ? Outcome::kEnded : Outcome::kRests;
  });
  waitUntil([&] { return works == 1; });
  task->call(0);
  waitUntil([&] { return works == 2; });
  task->call(1);
  waitUntil([&] { return works == 3; });
  isOver = true;
  task->call(0);
  waitUntil([&] { return task.use_count() == 1; });
  EXPECT_EQ(works, 4);
}

// What comes between its last look and its rest would else be seen with the next call alone.
TEST_F(ElasticPoolTest, WhatIsReadableBeforeItRestsIsNotMissed) {
  make();
  std::atomic<int> works{0};
  const auto task = add([&](Task& self) {
    if (++works == 1) self.call();
    return works == 2 ? Outcome::kEnded : Outcome::kRests;
  });
  waitUntil([&] { return task.use_count() == 1; });
  EXPECT_EQ(works, 2);
}

/// One of its descriptors is a file, for which nobody can wait.
class UnwatchableTask final : public DescriptorTask {
 public:
  explicit UnwatchableTask(bool isFirst) : isFirst_(isFirst) {}
  Outcome work() override { return ++works < 3 ? Outcome::kRests : Outcome::kEnded; }
  std::array<int, 2> descriptors() const override {
    if (isFirst_) return {file_.get(), counter_.get()};
    return {counter_.get(), file_.get()};
  }

  std::atomic<int> works{0};

 private:
  const bool isFirst_;
  FileDescriptor counter_{::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)};
  FileDescriptor file_{::open("/proc/self/exe", O_RDONLY | O_CLOEXEC)};
};

// It would else never be worked on again.
TEST_F(ElasticPoolTest, ATaskThatCannotBeWaitedForKeepsItsThread) {
  make();
  for (const bool isFirst : {true, false}) {
    const auto task = std::make_shared<UnwatchableTask>(isFirst);
    EXPECT_EQ(pool_->add(task), 0);
    waitUntil([&] { return task.use_count() == 1; });
    EXPECT_EQ(task->works, 3);
  }
}

TEST_F(ElasticPoolTest, TasksThatBlockHoldUpNoOther) {
  make();
  constexpr int kTasks = 20;
  Gathering all(kTasks);
  std::vector<std::shared_ptr<Task>> tasks;
  for (int i = 0; i < kTasks; ++i) {
    tasks.push_back(add([&all](Task&) {
      all.arriveAndWait();
      return Outcome::kEnded;
    }));
  }
  for (const auto& task : tasks) waitUntil([&task] { return task.use_count() == 1; });
}

TEST_F(ElasticPoolTest, OneThatRestedAndBlocksNowHoldsUpNoOther) {
  make();
  constexpr int kTasks = 20;
  Gathering all(kTasks);
  std::atomic<int> rested{0};
  std::vector<std::shared_ptr<Task>> tasks;
  for (int i = 0; i < kTasks; ++i) {
    tasks.push_back(add([&all, &rested](Task& self) {
      if (!self.take()) {
        ++rested;
        return Outcome::kRests;
      }
      all.arriveAndWait();
      return Outcome::kEnded;
    }));
  }
  waitUntil([&] { return rested == kTasks; });
  for (const auto& task : tasks) task->call();
  for (const auto& task : tasks) waitUntil([&task] { return task.use_count() == 1; });
}

TEST_F(ElasticPoolTest, NoTaskIsWorkedOnTwiceAtATime) {
  make();
  constexpr int kCalls = 20'000;
  std::atomic<int> within{0};
  std::atomic<bool> isOver{false};
  const auto task = add([&](Task& self) {
    EXPECT_EQ(++within, 1);
    self.take();
    EXPECT_EQ(--within, 0);
    return isOver ? Outcome::kEnded : Outcome::kRests;
  });
  std::thread other([&] {
    for (int i = 0; i < kCalls; ++i) task->call(1);
  });
  for (int i = 0; i < kCalls; ++i) task->call(0);
  other.join();
  isOver = true;
  task->call();
  waitUntil([&] { return task.use_count() == 1; });
}

TEST_F(ElasticPoolTest, OnceAllRestNoMoreThreadsWaitThanMay) {
  options_.spareTime = 1h;
  make();
  constexpr int kTasks = 20;
  Gathering all(kTasks);
  std::atomic<int> rested{0};
  std::vector<std::shared_ptr<Task>> tasks;
  for (int i = 0; i < kTasks; ++i) {
    tasks.push_back(add([&](Task& self) {
      if (self.take()) return Outcome::kEnded;
      all.arriveAndWait();
      ++rested;
      return Outcome::kRests;
    }));
  }
  waitUntil([&] { return rested == kTasks; });
  waitUntil([&] { return pool_->threadCount() == options_.maximumWaiting; });
  for (const auto& task : tasks) task->call();
  for (const auto& task : tasks) waitUntil([&task] { return task.use_count() == 1; });
}

TEST_F(ElasticPoolTest, AfterTheSpareTimeOneThreadIsLeftAndServes) {
  options_.spareTime = 1ms;
  make();
  Gathering both(2);
  std::atomic<int> rested{0};
  std::vector<std::shared_ptr<Task>> tasks;
  for (int i = 0; i < 2; ++i) {
    tasks.push_back(add([&](Task& self) {
      if (self.take()) return Outcome::kEnded;
      both.arriveAndWait();
      ++rested;
      return Outcome::kRests;
    }));
  }
  waitUntil([&] { return rested == 2; });
  waitUntil([&] { return pool_->threadCount() == 1; });
  for (const auto& task : tasks) task->call();
  for (const auto& task : tasks) waitUntil([&task] { return task.use_count() == 1; });
}

TEST_F(ElasticPoolTest, WithoutAThreadATaskIsNotTaken) {
  options_.stackBytes = size_t{1} << 60;
  make();
  const auto task = std::make_shared<Task>([](Task&) { return Outcome::kEnded; });
  EXPECT_NE(pool_->add(task), 0);
  EXPECT_EQ(task.use_count(), 1);
  EXPECT_EQ(pool_->threadCount(), 0u);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
/// Of the process, in bytes.
rlim_t addressSpace() {
  rlim_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  return pages * static_cast<rlim_t>(::getpagesize());
}

// Better late than with nobody who serves at all.
TEST_F(ElasticPoolTest, WhereNoFurtherThreadCanBeMadeTasksWaitUntilOneCanAndTheLogSaysSoOnce) {
  std::atomic<int> shortages{0};
  options_.stackBytes = size_t{256} << 20;
  options_.onShortage = [&shortages] { ++shortages; };
  make();
  const auto task = add([](Task& self) { return self.take() ? Outcome::kEnded : Outcome::kRests; });
  waitUntil([&] { return task->isAskedOf() && pool_->threadCount() == 2; });  // both wait
  EXPECT_TRUE(pool_->relieve());
  std::promise<void> release;
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_AS, &before), 0);
  const rlimit full{addressSpace() + (rlim_t{64} << 20), before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_AS, &full), 0);
  std::promise<void> isBlocked;
  const auto blocking = add([&isBlocked, released = release.get_future().share()](Task&) {
    isBlocked.set_value();
    released.wait();
    return Outcome::kEnded;
  });
  isBlocked.get_future().wait();
  std::promise<void> isServed;
  const auto last = add([&isServed](Task&) {
    isServed.set_value();
    return Outcome::kEnded;
  });
  isServed.get_future().wait();
  waitUntil([&] { return last.use_count() == 1; });  // its thread waits again
  std::promise<void> isWaited;
  std::promise<void> isReleased;
  const auto another = add([&isWaited, released = isReleased.get_future().share()](Task&) {
    isWaited.set_value();
    released.wait();
    return Outcome::kEnded;
  });
  isWaited.get_future().wait();
  EXPECT_EQ(shortages, 2);  // each time: somebody may have waited in between
  EXPECT_FALSE(pool_->relieve());
  ASSERT_EQ(::setrlimit(RLIMIT_AS, &before), 0);
  EXPECT_TRUE(pool_->relieve());
  task->call();  // served though both others are still busy
  waitUntil([&] { return task.use_count() == 1; });
  isReleased.set_value();
  release.set_value();
  EXPECT_EQ(log_.takeErrors(),
            std::vector<std::string>{"threads: some clients have to wait for others: Resource temporarily "
                                     "unavailable"});
}
#endif

}  // namespace
}  // namespace zun
