// What happens when the last reference to a session goes.

#include <condition_variable>
#include <mutex>
#include <thread>

#include "SessionTest.h"
#include "support/LockProbe.h"

namespace zun {
namespace {

class SessionTeardownTest : public SessionTest {
 protected:
  void endSession() {
    session_.reset();
    executor_.runAll();
  }

  /// False when the lock did not come free within a deadline that only a failure reaches.
  bool otherThreadCanLockTheAgent() {
    locker_ = std::thread([this] {
      const RecursiveMutexLock lock(agent_.objectLock());
      const std::lock_guard guard(mutex_);
      locked_ = true;
      changed_.notify_all();
    });
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(30), [this] { return locked_; });
  }

  /// The end message's payload without the one figure that a test cannot know.
  static std::string endPayload(const TestBackend& backend) {
    const Value& sent = backend.sent.back().message["ClientData"];
    Dictionary payload = sent.isDictionary() ? *sent.dictionary() : Dictionary();
    EXPECT_GT(payload["ProcessMemoryUsage"].intValue(), 0);
    payload.remove("ProcessMemoryUsage");
    return Value(payload).description();
  }
  /// What an agent without sessions and storebags leads to, after `first`.
  static std::string withHealth(Dictionary first) {
    first.addEntries({{"SessionsCount_tessel", 1},
                      {"BatchSize_tessel", 0},
                      {"StorebagsCount", 0},
                      {"StorebagsSize", 0},
                      {"CalculatedMemoryUsage", 0}});
    return Value(first).description();
  }

  std::thread locker_;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool locked_ = false;
};

TEST_F(SessionTeardownTest, EndMessageCarriesVersionAndHowTheSessionEnded) {
  startWith({{"test", Dictionary{}}});
  const auto test = world_.backends.at("test");
  endSession();

  expectDebugLine("dealloc: ReportingdSession dealloc: 7");
  ASSERT_EQ(test->sent.size(), 2U);
  EXPECT_EQ(test->sent[1].method, 0);
  EXPECT_EQ(test->sent[1].respCode, 1);
  EXPECT_EQ(endPayload(*test), withHealth({{"StorebagVersion", "41"}, {"GracefulTermination", false}}));
  EXPECT_EQ(test->flushes, 1);
  EXPECT_EQ(test->cleanups, 1);
  expectDebugLine("internalSendMessage: Sent internal message (method:0 respCode:1)");
  expectDebugLine("flushMessagesWithCompletion: Flushing messages for session 7");
  expectDebugLine("internalFlushMessagesWithCompletion: test");
}

TEST_F(SessionTeardownTest, StatesAndThoseBelowComeBeforeTheStartMessageAndCleanupAfterAllElse) {
  agent_.onDownstream = [this] { backend("test").trace.emplace_back("downstream"); };
  startWith({{"test", Dictionary{}}});
  const auto test = world_.backends.at("test");
  EXPECT_EQ(test->trace, (std::vector<std::string>{"updateState", "downstream", "send 0 0"}));
  test->trace.clear();
  agent_.onHelperRelease = [test] { test->trace.emplace_back("helper released"); };
  endSession();
  agent_.onHelperRelease = nullptr;
  EXPECT_EQ(test->trace, (std::vector<std::string>{"send 0 1", "flush", "helper released", "cleanup"}));
}

TEST_F(SessionTeardownTest, EndMessageCarriesTheVersionOfTheLatestStart) {
  startWith({{"test", Dictionary{}}});
  agent_.version = "42";
  start();
  const auto test = world_.backends.at("test");
  endSession();
  EXPECT_EQ(endPayload(*test), withHealth({{"StorebagVersion", "42"}, {"GracefulTermination", false}}));
}

TEST_F(SessionTeardownTest, GracefulFinishShowsInTheEndMessage) {
  startWith({{"test", Dictionary{}}});
  session_->finishSessionGracefully();
  expectDebugLine("finishSessionGracefully: Session 7 has been finished gracefully");
  const auto test = world_.backends.at("test");
  EXPECT_EQ(test->sent.size(), 1U);  // nothing else happens before the end
  endSession();
  ASSERT_EQ(test->sent.size(), 2U);
  EXPECT_EQ(endPayload(*test), withHealth({{"StorebagVersion", "41"}, {"GracefulTermination", true}}));
}

TEST_F(SessionTeardownTest, EndMessageWithoutStorebagVersionOmitsBothKeys) {
  agent_.version = std::nullopt;
  startWith({{"test", Dictionary{}}});
  const auto test = world_.backends.at("test");
  session_->finishSessionGracefully();
  endSession();
  ASSERT_EQ(test->sent.size(), 2U);
  EXPECT_EQ(endPayload(*test), withHealth({}));
}

TEST_F(SessionTeardownTest, WithoutBackendsThereIsNoEndMessageAndNoFlush) {
  session_->setSessionInfo(sessionInfo(7), std::nullopt, {}, false);
  endSession();
  expectDebugLine("dealloc: ReportingdSession dealloc: 7");
  EXPECT_FALSE(platform_.log.contains(LogLevel::kDebug,
                                      "internalSendMessage: Sent internal message (method:0 respCode:1)"));
  EXPECT_FALSE(platform_.log.contains(LogLevel::kDebug,
                                      "flushMessagesWithCompletion: Flushing messages for session 7"));
}

TEST_F(SessionTeardownTest, SessionWithoutHelperReleasesOneTransactionThroughTheAgent) {
  session_->setSessionInfo(sessionInfo(7), std::nullopt, {}, false);
  endSession();
  EXPECT_EQ(agent_.releasedTransactions(), 1U);
  expectDebugLine(
      "ReportingdSession dealloc: release Quorx transaction for session without connectivity helper for "
      "session 7");
}

TEST_F(SessionTeardownTest, SessionWithHelperHandsItsTransactionToTheHelper) {
  session_->setSessionInfo(sessionInfo(7), userInfo("Client", "Service"), {}, false);
  endSession();
  expectDebugLine("ReportingdSession dealloc: incrementing total sessions count for session 7");
  EXPECT_EQ(agent_.releasedTransactions(), 0U);
  EXPECT_EQ(agent_.countOfCalls("releaseSharedConnectivityHelper client:service"), 1);

  // The helper has it now, and hands it back at its end.
  agent_.helper("client:service")->invalidate();
  executor_.runAll();
  EXPECT_EQ(agent_.releasedTransactions(), 1U);
}

TEST_F(SessionTeardownTest, SessionThatLostItsUserReleasesItsTransactionThroughTheAgent) {
  session_->setSessionInfo(sessionInfo(7), userInfo("Client", "Service"), {}, false);
  session_->setSessionInfo(sessionInfo(7), std::nullopt, {}, false);
  EXPECT_EQ(session_->userInfo(), std::nullopt);
  EXPECT_EQ(agent_.countOfCalls("releaseSharedConnectivityHelper client:service"), 1);
  endSession();
  EXPECT_EQ(agent_.countOfCalls("releaseSharedConnectivityHelper client:service"), 1);
  EXPECT_EQ(agent_.releasedTransactions(), 1U);
}

TEST_F(SessionTeardownTest, TeardownRunsOnceOnTheThreadThatDropsTheLastReference) {
  startWith({{"test", Dictionary{}}});
  std::thread::id tornDownOn;
  int releases = 0;
  agent_.onHelperRelease = [&] {
    tornDownOn = std::this_thread::get_id();
    ++releases;
  };
  auto second = session_;
  session_.reset();
  EXPECT_EQ(releases, 0);
  std::thread::id dropper;
  std::thread([&second, &dropper] {
    dropper = std::this_thread::get_id();
    second.reset();
  }).join();
  EXPECT_EQ(releases, 1);
  EXPECT_EQ(tornDownOn, dropper);
}

// The agent tells a session of a change just when that replaces its backends: what the agent
// still holds of them must not be the last.
TEST_F(SessionTeardownTest, BackendsThatAreReplacedWhileTheAgentTellsThemEndWithoutItsLock) {
  agent_.storebag = Dictionary{{"test", Dictionary{}}};
  const auto parent = world_.makeSession();
  parent->setSessionInfo(sessionInfo(1, inHierarchy("t", 0)), std::nullopt, {}, false);
  startWith({{"test", Dictionary{}}}, sessionInfo(7, inHierarchy("t", 1)));
  std::thread replacer;
  std::thread prober;
  std::optional<bool> wasFree;
  TestBackend& old = *world_.backends.extract("test").mapped();
  old.onEnd = [&] { wasFree = isFree(agent_.objectLock(), prober); };
  old.onCorrelatedSessionID = [&] {
    // It has made its new backends, and comes to the agent for its lock or, without that, later.
    std::atomic<bool> isThere{false};
    agent_.onObjectLock = agent_.onDownstream = [&isThere] { isThere = true; };
    replacer = std::thread([this] { session_->startConfigWithCompletionHandler(nullptr); });
    while (!isThere) std::this_thread::yield();
    agent_.onObjectLock = agent_.onDownstream = nullptr;
  };
  {
    const RecursiveMutexLock lock(agent_.objectLock());
    session_->updateCombinedSessionID();
  }
  replacer.join();
  ASSERT_TRUE(prober.joinable());
  prober.join();
  EXPECT_EQ(wasFree, true);
}

// A child looks at its parent just when the parent's connection ends: the child then holds
// the last reference, while it has the agent's lock.
TEST_F(SessionTeardownTest, ParentThatOnlyItsChildHeldIsTornDownWithoutTheAgentsLock) {
  agent_.storebag = Dictionary{{"test", Dictionary{}}};
  auto parent = world_.makeSession();
  parent->setSessionInfo(sessionInfo(1, inHierarchy("t", 0)), userInfo("Parent", "S"), {}, false);
  startWith({{"test", Dictionary{}}}, sessionInfo(7, inHierarchy("t", 1)));

  agent_.onParentFound = [&parent] { parent.reset(); };
  bool couldLock = false;
  agent_.onHelperRelease = [this, &couldLock] { couldLock = otherThreadCanLockTheAgent(); };
  session_->syncReportingStates();
  EXPECT_TRUE(couldLock);
  locker_.join();
  agent_.onHelperRelease = nullptr;
  expectDebugLine("dealloc: ReportingdSession dealloc: 1");
}

}  // namespace
}  // namespace zun
