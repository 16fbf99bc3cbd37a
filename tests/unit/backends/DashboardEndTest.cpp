#include <sys/resource.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <thread>
#include <vector>

#include "DashboardTest.h"
#include "linux/system/SystemClock.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

/// The process's open sockets.
size_t openSockets() {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    const auto target = std::filesystem::read_symlink(entry.path(), error);
    if (!error && target.string().starts_with("socket:")) ++count;
  }
  return count;
}

class DashboardEndTest : public DashboardTest {
 protected:
  // The read source's own end is told of by its loop's thread.
  void expectSocketsClosed() {
    const auto deadline = std::chrono::steady_clock::now() + 1min;
    while (openSockets() > before_ && std::chrono::steady_clock::now() < deadline) executor_.runAll();
    EXPECT_EQ(openSockets(), before_);
    EXPECT_EQ(platform_.timers.running(), 0U);
  }

  const size_t before_ = openSockets();
};

TEST_F(DashboardEndTest, CleanupClosesTheSocketInBothModes) {
  for (const Dictionary& of : {profile(), reliableProfile()}) {
    const auto backend = make(of);
    EXPECT_EQ(openSockets(), before_ + 1);
    backend->cleanup();
    expectSocketsClosed();
  }
}

TEST_F(DashboardEndTest, CleanupClosesTheSocketOfABackendThatHasBeenIdle) {
  for (const Dictionary& of : {profile(), reliableProfile()}) {
    const auto backend = make(of);
    tick();
    EXPECT_EQ(platform_.timers.running(), 0U);
    EXPECT_EQ(openSockets(), before_ + 1);
    backend->cleanup();
    backend->cleanup();
    expectSocketsClosed();
  }
}

// A session that makes its backends anew drops the old ones as they are.
TEST_F(DashboardEndTest, ABackendThatIsDroppedWithoutCleanupLeavesNothingBehind) {
  for (const Dictionary& of : {profile(), reliableProfile()}) {
    auto backend = make(of);
    sendEvent(*backend);
    backend.reset();
    expectSocketsClosed();
  }
}

TEST_F(DashboardEndTest, WhatWasSentBeforeTheEndStillGoesOut) {
  auto backend = make(profile());
  for (int i = 0; i < 5; ++i) backend->sendMessage(Dictionary{}, kEventTime, 1, 2, 0);
  backend->cleanup();
  backend.reset();
  executor_.runAll();
  EXPECT_EQ(eventsAtServer(), (std::vector{1, 2, 3, 4, 5}));
  expectSocketsClosed();
}

/// Sessions that come and go, each with an event that is not acknowledged.
class DashboardChurnTest : public DashboardEndTest {
 protected:
  static constexpr size_t kMaximum = DashboardLink::kMaximumOutliving;

  void SetUp() override {
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit_), 0);
    if (limit_.rlim_max < 2 * kMaximum) GTEST_SKIP() << "needs " << 2 * kMaximum << " descriptors";
    const ::rlimit all{limit_.rlim_max, limit_.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &all), 0);
  }
  void TearDown() override {
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit_), 0);
    DashboardEndTest::TearDown();
  }

  static std::string overflowOf(size_t waiting) {
    return fmt::format(
        "DashboardBackend(cleanup): {} ended backends wait for acknowledgements, further ones beyond their "
        "share do not",
        waiting);
  }
  void comeAndGo(size_t sessions) {
    for (size_t i = 0; i < sessions; ++i) {
      const auto backend = make(reliableProfile());
      ASSERT_NE(backend, nullptr) << "descriptors: " << openSockets();
      sendEvent(*backend);
      server_.receiveAllThere();
      backend->cleanup();
      executor_.runAll();
    }
  }

  ::rlimit limit_{};
};

TEST_F(DashboardChurnTest, SessionsThatComeAndGoDoNotPileUpTheirPackets) {
  comeAndGo(kMaximum + 500);
  EXPECT_EQ(platform_.timers.running(), kMaximum);
  EXPECT_EQ(openSockets(), before_ + kMaximum);
  expectErrors({overflowOf(kMaximum)});
  for (int i = 0; i < 30; ++i) tick();
  expectSocketsClosed();
  comeAndGo(kMaximum + 2);
  expectErrors({overflowOf(kMaximum)});
  for (int i = 0; i < 30; ++i) tick();
  comeAndGo(10);
  EXPECT_EQ(platform_.timers.running(), 10U) << "those that have ended do not count any more";
}

TEST_F(DashboardChurnTest, ProgramsThatComeAndGoLeaveOthersTheirShares) {
  services_.program = {1, 1};
  comeAndGo(kMaximum / 2);
  const size_t share = platform_.timers.running();
  EXPECT_EQ(share, kMaximum / 4);
  expectErrors({overflowOf(share)});
  for (const BudgetHolder other : {BudgetHolder{1, 2}, BudgetHolder{2, 1}}) {
    services_.program = other;
    comeAndGo(100);
  }
  EXPECT_EQ(platform_.timers.running(), share + 200);
  for (int i = 0; i < 30; ++i) tick();
  expectSocketsClosed();
}

// Else each one that ends makes room for one, and the next has a line again.
TEST_F(DashboardChurnTest, OverflowIsToldOnceUntilAllOfThemHaveEnded) {
  for (int i = 0; i < 3; ++i) {  // will end one by one, before all others
    comeAndGo(1);
    tick();
  }
  comeAndGo(kMaximum - 2);
  expectErrors({overflowOf(kMaximum)});
  for (int i = 0; i < 30; ++i) {
    tick();
    comeAndGo(2);
  }
  expectErrors({});
  for (int i = 0; i < 30; ++i) tick();
  expectSocketsClosed();
}

TEST_F(DashboardEndTest, EventsAfterTheCleanupAreDropped) {
  const auto backend = make(reliableProfile());
  backend->cleanup();
  executor_.runAll();
  EXPECT_TRUE(sendEvent(*backend));
  EXPECT_EQ(eventsAtServer(), std::vector<int>{});
}

TEST_F(DashboardEndTest, AServerThatCannotBeConnectedToLeavesNothingBehind) {
  EXPECT_EQ(make(Dictionary{{"ip", "nonsense"}, {"port", 80}, {"reliable", 500}}), nullptr);
  expectErrors({"DashboardBackend(initWithName): socket connect() failed."});
  expectSocketsClosed();
}

/// On real threads: sends, ticks, acknowledgements and ends at the same time.
class DashboardConcurrencyTest : public PlatformTest {
 protected:
  DeviceIdentity identity_{platform_.services};
  MessageLog messageLog_{platform_.services};
  ReportingServices services_{platform_.services, identity_, messageLog_};
};

TEST_F(DashboardConcurrencyTest, BackendsMayBeUsedAndEndedWhileTheirPacketsAreAcknowledged) {
  UDPTestServer server;
  std::atomic<bool> isDone = false;
  std::thread echo([&] {
    while (!isDone) {
      if (const auto datagram = server.receiveIfThere()) server.reply(*datagram);
    }
  });
  std::thread ticks([&] {
    while (!isDone) {
      platform_.clock.advance(500ms);
      platform_.timers.fireDue();
      std::this_thread::yield();
    }
  });
  std::vector<std::thread> sessions;
  for (int session = 0; session < 4; ++session) {
    sessions.emplace_back([&, session] {
      for (int round = 0; round < 20; ++round) {
        const auto backend = ZunReportingBackend::newBackendWithName(
            services_, "dashboard",
            Dictionary{{"ip", "127.0.0.1"}, {"port", server.port()}, {"reliable", 500}}, "Pallax", 7);
        for (int i = 0; i < 20; ++i) {
          EXPECT_TRUE(backend->sendMessage(Dictionary{{"i", i}}, {1000, 0}, 1, 2, 0));
        }
        if ((round + session) % 2 == 0) backend->cleanup();
      }
    });
  }
  for (std::thread& session : sessions) session.join();
  // What was cleaned up ends by itself: acknowledged, given up, or by the last resort.
  // Once nothing is queued, whatever has not ended has its timer running.
  const auto deadline = std::chrono::steady_clock::now() + 1min;
  while ((!platform_.workers.activity().isIdle || platform_.timers.running() > 0) &&
         std::chrono::steady_clock::now() < deadline)
    std::this_thread::yield();
  EXPECT_EQ(platform_.timers.running(), 0U);
  isDone = true;
  echo.join();
  ticks.join();
}

/// As in the daemon: real time, timers and threads.
class DashboardRealTimeTest : public PlatformTest {
 protected:
  std::shared_ptr<ZunReportingBackend> make(const UDPTestServer& server, const Value& reliable) {
    Dictionary profile{{"ip", "127.0.0.1"}, {"port", server.port()}};
    if (!reliable.isNone()) profile.set("reliable", reliable);
    return ZunReportingBackend::newBackendWithName(services_, "dashboard", profile, "Pallax", 7);
  }
  static void send(ZunReportingBackend& backend) {
    EXPECT_TRUE(backend.sendMessage(Dictionary{{"k", "v"}}, {1000, 0}, 1, 2, 0));
  }

  SystemClock clock_;
  const PlatformServices& fake_ = platform_.services;
  PlatformServices real_{fake_.log,         clock_,
                         fake_.random,      fake_.files,
                         fake_.defaults,    fake_.device,
                         fake_.locale,      fake_.bundle,
                         fake_.executor,    platform_.loopThread.loop(),
                         fake_.urlSessions, fake_.transactions,
                         fake_.sockets,     fake_.modules,
                         fake_.powerLog};
  DeviceIdentity identity_{real_};
  MessageLog messageLog_{real_};
  ReportingServices services_{real_, identity_, messageLog_};
};

// Whether a server listens or not, and in whatever order a backend is cleaned up, used
// and let go of: its socket is closed in the end.
TEST_F(DashboardRealTimeTest, EveryOrderOfTheEndClosesTheSocket) {
  UDPTestServer silent;
  UDPTestServer away;
  const std::vector<std::function<void(ZunReportingBackend&)>> ends{
      [](auto&) {},
      [](auto& backend) { backend.cleanup(); },
      [](auto& backend) {
        backend.cleanup();
        backend.cleanup();
      },
      [](auto& backend) {
        backend.cleanup();
        send(backend);
      },
      [](auto& backend) { std::thread([&backend] { backend.cleanup(); }).join(); },
  };
  const size_t before = openSockets();
  away.close();
  for (int round = 0; round < 10; ++round) {
    for (const auto& end : ends) {
      for (const UDPTestServer* const server : {&silent, &away}) {
        for (const Value& reliable : {Value(), Value(10)}) {
          const auto unused = make(*server, reliable);
          end(*unused);
          const auto used = make(*server, reliable);
          for (int i = 0; i < 3; ++i) send(*used);
          end(*used);
        }
      }
    }
  }
  const auto deadline = std::chrono::steady_clock::now() + 1min;
  while ((!platform_.workers.activity().isIdle || openSockets() >= before) &&
         std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(10ms);  // looking at all descriptors is not for a spin
  EXPECT_EQ(openSockets(), before - 1) << "less the server that went away";
}

}  // namespace
}  // namespace zun
