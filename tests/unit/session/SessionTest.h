#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FakeAgent.h"
#include "TestBackend.h"
#include "session/ReportingdSession.h"
#include "support/FakeConnection.h"
#include "support/TestPlatform.h"
#include "zunreporting/Keys.h"

namespace zun {

using namespace zunreporting;

inline Dictionary sessionInfo(int64_t sessionID, const Dictionary& more = {}) {
  Dictionary info = {{kZunReportingSessionInfoSessionID, sessionID},
                     {kZunReportingSessionInfoClientType, 5},
                     {kZunReportingSessionInfoClientVersion, 3},
                     {kZunReportingSessionInfoRequireUserInfo, true}};
  info.addEntries(more);
  return info;
}

inline Dictionary inHierarchy(const std::string& token, int64_t level) {
  return {{kZunReportingSessionInfoHierarchyToken, Dictionary{{kZunReportingHierarchyTokenTokenID, token},
                                                              {kZunReportingHierarchyTokenLevel, level}}}};
}

inline Dictionary userInfo(const std::string& client, const std::string& service) {
  return {{kZunReportingUserInfoClientName, client}, {kZunReportingUserInfoServiceName, service}};
}

inline Dictionary message(int64_t category, int64_t type, const Dictionary& more = {}) {
  Dictionary dictionary = {{kZunReportingMessageParametersCategory, category},
                           {kZunReportingMessageParametersType, type}};
  dictionary.addEntries(more);
  return dictionary;
}

inline Dictionary withPayload(Dictionary payload) {
  return {{kZunReportingMessageParametersPayload, std::move(payload)}};
}

// Optional values as they come over the wire.
inline Value nothing() {
  return Array();
}
inline Value just(Value value) {
  return Array{std::move(value)};
}

/// A fake agent, and sessions whose backends are TestBackends but for `realBackends`.
class SessionWorld final {
 public:
  explicit SessionWorld(TestPlatform& platform) : platform_(platform) {}

  std::shared_ptr<ReportingdSession> makeSession() {
    return makeSession(std::make_shared<FakeConnection>(std::map<std::string, bool>{}));
  }
  std::shared_ptr<ReportingdSession> makeSession(std::shared_ptr<FakeConnection> connectionToUse) {
    ++sessionsMade_;
    const auto factory = [this](const ReportingServices& all, std::string_view name, const Value& profile,
                                const std::optional<std::string>& productFamily,
                                int32_t clientType) -> std::shared_ptr<ZunReportingBackend> {
      if (realBackends || !profile.isDictionary())
        return ZunReportingBackend::newBackendWithName(all, name, profile, productFamily, clientType);
      auto backend = TestBackend::create(all, name, profile, productFamily, clientType);
      backends[std::string(name)] = backend;
      return backend;
    };
    connection = std::move(connectionToUse);
    return ReportingdSession::create(services, agent, connection, factory);
  }

  /// Waits for what ended sessions left running: posts, and jobs of helpers and backends.
  /// A test that does not would take its platform from under them. `executor`: the
  /// test's own, to be cranked.
  void waitUntilQuiet(ManualExecutor* executor = nullptr) {
    const auto jobsEnd = [this, executor] {
      if (executor != nullptr) executor->runAll();
      return platform_.workers.activity().isIdle;
    };
    agent->invalidateHelpers();
    // A helper hands its references back when its last post has ended.
    waitUntil([&] { return jobsEnd() && agent->releasedTransactions() >= sessionsMade_; });
    // A release timer keeps its helper until it has fired.
    platform_.clock.advance(std::chrono::hours(24));
    platform_.timers.fireDue();
    waitUntil(jobsEnd);
  }

  /// Entries of the message log, without their dates.
  std::vector<std::string> messageLogEntries() const {
    std::vector<std::string> entries;
    const std::string folder = platform_.scratch.path() + std::string(MessageLog::kDirectory);
    if (!std::filesystem::exists(folder)) return entries;
    for (const auto& file : std::filesystem::directory_iterator(folder)) {
      std::ifstream stream(file.path());
      for (std::string line; std::getline(stream, line);) {
        const size_t end = line.find(") ");
        entries.push_back(end == std::string::npos ? line : line.substr(end + 2));
      }
    }
    return entries;
  }

  TestPlatform& platform_;
  DeviceIdentity identity{platform_.services};
  MessageLog messageLog{platform_.services};
  ReportingServices services{platform_.services, identity, messageLog};
  std::shared_ptr<FakeAgent> agent = std::make_shared<FakeAgent>(platform_.services);
  bool realBackends = false;
  /// The latest session's.
  std::shared_ptr<FakeConnection> connection;
  /// The latest of each name.
  std::map<std::string, std::shared_ptr<TestBackend>> backends;

 private:
  template <typename Condition>
  static void waitUntil(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) FAIL() << "still busy at the end of the test";
      std::this_thread::yield();
    }
  }

  uint32_t sessionsMade_ = 0;
};

struct OwnsManualExecutor {
  ManualExecutor executor_;
};

/// One client's session with the agent and its backends, on the test's own thread.
class SessionTest : protected OwnsManualExecutor, public PlatformTest {
 protected:
  using States = std::optional<std::vector<std::string>>;

  SessionTest() : PlatformTest(&executor_), world_(platform_), agent_(*world_.agent) {
    session_ = world_.makeSession();
  }
  void TearDown() override {
    session_.reset();
    world_.waitUntilQuiet(&executor_);
    PlatformTest::TearDown();
  }

  TestBackend& backend(const std::string& name) { return *world_.backends.at(name); }

  States start() {
    States states;
    bool replied = false;
    session_->startConfigWithCompletionHandler([&](const States& active) {
      EXPECT_FALSE(std::exchange(replied, true));
      states = active;
    });
    EXPECT_TRUE(replied);
    executor_.runAll();
    return states;
  }
  /// Configures the session with `info` and user information, and starts it.
  States startWith(const Dictionary& storebag, const Dictionary& info = sessionInfo(7)) {
    agent_.storebag = storebag;
    session_->setSessionInfo(info, userInfo("Client", "Service"), {}, false);
    return start();
  }
  States fetchStates(const std::optional<Dictionary>& info) {
    States states;
    session_->fetchStatesWithUserInfo(info, [&](const States& active) { states = active; });
    executor_.runAll();
    return states;
  }
  std::optional<std::string> send(const Dictionary& dictionary) {
    std::optional<std::string> response;
    int replies = 0;
    session_->sendMessageWithDictionary(dictionary, [&](const std::optional<std::string>& answer) {
      response = answer;
      ++replies;
    });
    EXPECT_EQ(replies, 1);
    return response;
  }

  SessionWorld world_;
  FakeAgent& agent_;
  std::shared_ptr<ReportingdSession> session_;
};

}  // namespace zun
