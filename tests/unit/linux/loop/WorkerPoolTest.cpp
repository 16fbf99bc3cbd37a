#include "linux/loop/WorkerPool.h"

#include <gtest/gtest.h>

#include <future>

namespace zun {
namespace {

using namespace std::chrono_literals;

TEST(WorkerPoolTest, StandsStillWhileJobsWaitAndNoThreadTakesOne) {
  WorkerPool pool(1);
  const auto standsStill = [&pool] {
    return pool.heartbeat()->standsStill(Heartbeat::Clock::now() + 1h, 1min);
  };
  EXPECT_FALSE(standsStill());
  std::promise<void> begun;
  std::promise<void> release;
  pool.execute([&] {
    begun.set_value();
    release.get_future().wait();
  });
  begun.get_future().wait();
  EXPECT_FALSE(standsStill());  // a long job, for which nobody waits
  std::promise<void> done;
  pool.execute([&done] { done.set_value(); });
  EXPECT_TRUE(standsStill());
  release.set_value();
  done.get_future().wait();
  EXPECT_FALSE(standsStill());
}

TEST(WorkerPoolTest, PoolThatWorksThroughAQueueMoves) {
  WorkerPool pool(1);
  std::promise<void> release;
  std::promise<void> second;
  std::promise<void> goOn;
  pool.execute([&release] { release.get_future().wait(); });
  pool.execute([&] {
    second.set_value();
    goOn.get_future().wait();
  });
  pool.execute([] {});
  const auto queued = Heartbeat::Clock::now();
  release.set_value();
  second.get_future().wait();
  EXPECT_FALSE(pool.heartbeat()->standsStill(queued + 1s, 1s));
  goOn.set_value();
}

}  // namespace
}  // namespace zun
