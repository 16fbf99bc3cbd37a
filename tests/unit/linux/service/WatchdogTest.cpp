#include "linux/service/Watchdog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "support/NotifySocket.h"
#include "support/RecordingLog.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

TEST(HeartbeatTest, StandsStillOnceItWorksForTheLimit) {
  Heartbeat heartbeat("a thread");
  const auto now = Heartbeat::Clock::now();
  EXPECT_FALSE(heartbeat.standsStill(now + 24h, 1s));
  heartbeat.works();
  EXPECT_FALSE(heartbeat.standsStill(now + 999ms, 1s));
  EXPECT_TRUE(heartbeat.standsStill(now + 1h, 1s));
  heartbeat.rests();
  EXPECT_FALSE(heartbeat.standsStill(now + 24h, 1s));
}

TEST(WatchdogTest, ThreadThatStandsStillIsNamedOnceAndThereIsASignOfLifeWhenItMovesAgain) {
  NotifySocket manager;
  RecordingLog log;
  ::setenv("WATCHDOG_USEC", "2000", 1);
  const auto loop = EventLoop::create();
  ::unsetenv("WATCHDOG_USEC");
  ASSERT_NE(loop, nullptr);
  const auto good = std::make_shared<Heartbeat>("good");
  const auto bad = std::make_shared<Heartbeat>("bad");
  Watchdog watchdog(*loop, log);
  watchdog.watch(good);
  watchdog.watch(bad);
  bad->works();  // before the loop: signs of life that nobody takes would hold it up
  std::thread other([&] {
    while (!log.contains(LogLevel::kError, "watchdog: bad stands still")) std::this_thread::yield();
    while (manager.hasMessage()) (void)manager.receive();
    bad->rests();
    EXPECT_EQ(manager.receive(), "WATCHDOG=1");
    loop->quit();
  });
  EXPECT_TRUE(loop->run());
  other.join();
  EXPECT_EQ(log.takeErrors(), std::vector<std::string>{"watchdog: bad stands still"});
}

}  // namespace
}  // namespace zun
