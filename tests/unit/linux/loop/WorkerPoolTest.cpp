#include "linux/loop/WorkerPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <future>
#include <thread>

namespace zun {
namespace {

using namespace std::chrono_literals;

TEST(WorkerPoolTest, StandsStillWhileJobsWaitAndNoThreadTakesOne) {
  WorkerPool pool(1);
  const auto standsStill = [&pool] {
    return pool.heartbeats().front()->standsStill(Heartbeat::Clock::now() + 1h, 1min);
  };
  EXPECT_FALSE(standsStill());
  std::promise<void> begun;
  std::promise<void> release;
  pool.execute([&begun, released = release.get_future().share()] {
    begun.set_value();
    released.wait();
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

TEST(WorkerPoolTest, WorkerThatIsHeldUpInAJobStandsStillThoughTheOthersGoOn) {
  WorkerPool pool(2);
  const auto stillOnes = [&pool] {
    return std::count_if(pool.heartbeats().begin(), pool.heartbeats().end(), [](const auto& heartbeat) {
      return heartbeat->standsStill(Heartbeat::Clock::now() + 1h, 1min);
    });
  };
  EXPECT_EQ(pool.heartbeats().size(), 3u);
  std::array<std::promise<void>, 2> begun;
  std::promise<void> release;
  const auto released = release.get_future().share();
  const auto holdUp = [&](std::promise<void>& hasBegun) {
    pool.execute([&hasBegun, released] {
      hasBegun.set_value();
      released.wait();
    });
    hasBegun.get_future().wait();
  };
  holdUp(begun[0]);
  for (int i = 0; i < 3; ++i) {
    std::promise<void> done;
    pool.execute([&done] { done.set_value(); });
    done.get_future().wait();
  }
  while (stillOnes() != 1) std::this_thread::yield();  // the other is back at its wait
  holdUp(begun[1]);
  EXPECT_EQ(stillOnes(), 2);
  release.set_value();
  while (stillOnes() != 0) std::this_thread::yield();
}

TEST(WorkerPoolTest, PoolThatWorksThroughAQueueMoves) {
  WorkerPool pool(1);
  std::promise<void> release;
  std::promise<void> second;
  std::promise<void> goOn;
  pool.execute([released = release.get_future().share()] { released.wait(); });
  pool.execute([&second, mayGoOn = goOn.get_future().share()] {
    second.set_value();
    mayGoOn.wait();
  });
  pool.execute([] {});
  const auto queued = Heartbeat::Clock::now();
  release.set_value();
  second.get_future().wait();
  EXPECT_FALSE(pool.heartbeats().front()->standsStill(queued + 1s, 1s));
  goOn.set_value();
}

}  // namespace
}  // namespace zun
