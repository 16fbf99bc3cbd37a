// Sessions of hierarchies on the threads of their clients. What matters here is what a
// thread sanitizer says, that nobody waits for ever, and that nothing is left over.

#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "HierarchyTest.h"

namespace zun {
namespace {

using namespace zunreporting;

class HierarchyConcurrencyTest : public HierarchyTest {
 protected:
  static constexpr int kThreads = 4;

  template <typename Work>
  static void onThreads(Work work) {
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number) threads.emplace_back([&work, number] { work(number); });
    for (std::thread& thread : threads) thread.join();
  }

  /// Lets connectivity helpers come to their end: release timers, then what these start.
  void settle() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (platform_.transactions.begins != platform_.transactions.ends ||
           !platform_.workers.activity().isIdle) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "still busy at the end of the test";
      platform_.clock.advance(std::chrono::hours(1));
      platform_.timers.fireDue();
      std::this_thread::yield();
    }
  }
  void expectNothingLeft() {
    EXPECT_EQ(agent_->sessionCount(), 0U);
    EXPECT_EQ(platform_.transactions.begins, platform_.transactions.ends);
    const ReportingAgentState state = agent_->copyReportingAgentState();
    EXPECT_TRUE(state.sessions.empty());
  }

  /// One thing that a client may do, whichever comes.
  void act(Client& client, std::mt19937& random) {
    const auto pick = [&random](uint32_t below) { return static_cast<uint32_t>(random() % below); };
    const std::string token = pick(5) == 0 ? "" : "token" + std::to_string(pick(2));
    const Dictionary user{{kZunReportingUserInfoClientName, "C" + std::to_string(pick(3))},
                          {kZunReportingUserInfoServiceName, "S"}};
    switch (pick(10)) {
      case 0: client->startConfigWithCompletionHandler(nullptr); break;
      case 1:
        configure(client, pick(100), token, pick(4), pick(2) == 0 ? Aggregates::kYes : Aggregates::kNo);
        break;
      case 2: client->syncReportingStates(); break;
      case 3: agent_->updateDownstreamSessions(*client.session); break;
      case 4:
        client->updateSharedDataForKey("key" + std::to_string(pick(3)), pick(2) == 0 ? Value(1) : Value());
        break;
      case 5: client->fetchStatesWithUserInfo(user, nullptr); break;
      case 6:
        client->sendMessageWithSessionInfo(info(pick(100), token, pick(4)), user, 5, 6,
                                           Dictionary{{"key", 1}}, nullptr);
        break;
      default: send(client, pick(3)); break;
    }
    client.connection->takeRemoteCalls();
  }
};

TEST_F(HierarchyConcurrencyTest, ParentsAndChildrenComeSendSyncMoveAndEndAtRandom) {
  constexpr int kSteps = 5000;
  platform_.log.muteBelow(LogLevel::kError);
  onThreads([this](int number) {
    std::mt19937 random(static_cast<uint32_t>(number));
    std::vector<Client> clients;
    for (int step = 0; step < kSteps; ++step) {
      if (clients.size() < 3 || (clients.size() < 12 && random() % 8 == 0)) {
        clients.push_back(start(static_cast<uint32_t>(step), "token" + std::to_string(random() % 2),
                                static_cast<int64_t>(random() % 4),
                                random() % 2 == 0 ? Aggregates::kYes : Aggregates::kNo));
      }
      const size_t chosen = random() % clients.size();
      if (random() % 10 == 0) {
        end(clients[chosen]);
        clients.erase(clients.begin() + static_cast<std::ptrdiff_t>(chosen));
      } else {
        act(clients[chosen], random);
      }
    }
    for (Client& client : clients) end(client);
  });
  // A session that is just moving between lists is missed there.
  for (const std::string& line : platform_.log.takeErrors())
    EXPECT_TRUE(line.starts_with("parentSession")) << line;
  settle();
  expectNothingLeft();
}

TEST_F(HierarchyConcurrencyTest, AThousandSessionsOfOneTokenEndAtOnce) {
  constexpr uint32_t kSessions = 1000;
  std::vector<Client> clients;
  for (uint32_t number = 0; number < kSessions; ++number)
    clients.push_back(start(number, "family", number == 0 ? 0 : 1));
  onThreads([&](int number) {
    for (size_t i = static_cast<size_t>(number); i < kSessions; i += kThreads) end(clients[i]);
  });
  expectNothingLeft();
  int tornDown = 0;
  for (const std::string& line : platform_.log.linesOf(LogLevel::kDebug)) {
    if (line.starts_with("dealloc: ReportingdSession dealloc: ")) ++tornDown;
  }
  EXPECT_EQ(tornDown, static_cast<int>(kSessions));
}

// Nothing may follow the end of aggregation: a client stops to listen with it.
TEST_F(HierarchyConcurrencyTest, NoCopyFollowsTheEndOfAggregation) {
  platform_.log.muteBelow(LogLevel::kError);
  for (int round = 0; round < 50; ++round) {
    Client middle = start(2, "family", 1, Aggregates::kYes);
    Client child = start(3, "family", 2);
    std::atomic<bool> begun{false};
    std::thread sender([&] {
      for (int i = 0; i < 20; ++i) {
        send(child, 5);
        begun = true;
      }
    });
    std::thread owner([&] {
      for (int i = 0; i < 20; ++i) send(middle, 6);
    });
    while (!begun) std::this_thread::yield();
    Client top = start(1, "family", 0, Aggregates::kYes);
    sender.join();
    owner.join();
    const Copies received = copies(middle);
    ASSERT_FALSE(received.empty());
    EXPECT_EQ(received.back(), "end");
    end(child, middle, top);
  }
}

}  // namespace
}  // namespace zun
