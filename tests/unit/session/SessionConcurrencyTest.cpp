// Sessions of one hierarchy on their own threads. What matters here is what a thread
// sanitizer says about it, and that nobody waits for ever.

#include <atomic>
#include <thread>

#include "SessionTest.h"

namespace zun {
namespace {

class SessionConcurrencyTest : public PlatformTest {
 protected:
  SessionConcurrencyTest() : world_(platform_) {
    world_.agent->storebag =
        Dictionary{{"httpPost", Dictionary{{"response", "sent"}}}, {"qrs", Dictionary{}}};
  }

  void TearDown() override {
    world_.waitUntilQuiet();
    PlatformTest::TearDown();
  }

  std::shared_ptr<ReportingdSession> startSession(int64_t number, int64_t level) {
    auto session = world_.makeSession();
    session->setSessionInfo(sessionInfo(number, inHierarchy("token", level)), userInfo("C", "S"), {}, false);
    session->startConfigWithCompletionHandler(nullptr);
    return session;
  }

  SessionWorld world_;
};

TEST_F(SessionConcurrencyTest, OneSessionSendsWhileAnotherSyncsItsStatesAndReplacesItsUser) {
  auto parent = startSession(1, 0);
  auto child = startSession(2, 1);
  std::atomic<bool> done{false};
  std::atomic<int> answered{0};
  const auto countAnswer = [&answered](const std::optional<std::string>& response) {
    if (response == "sent") ++answered;
  };
  constexpr int kRounds = 60;

  std::thread reader([&] {
    while (!done) {
      for (const auto& session : {parent, child}) {
        EXPECT_FALSE(session->description().empty());
        EXPECT_FALSE(session->sessionInfo().empty());
        EXPECT_LE(session->hierarchyLevel(), 1U);
        EXPECT_EQ(session->hierarchyToken(), "token");
        const auto info = session->userInfo();
        EXPECT_TRUE(!info || !info->empty());
      }
    }
  });
  std::thread sender([&] {
    for (int round = 0; round < kRounds; ++round) {
      child->sendMessageWithDictionary(message(5, 6, withPayload({{"round", round}})), countAnswer);
      child->updateSharedDataForKey("round", round % 2 == 0 ? Value(round) : Value());
      if (round % 20 == 0) child->startConfigWithCompletionHandler(nullptr);
    }
  });
  for (int round = 0; round < kRounds; ++round) {
    parent->sendMessageWithDictionary(message(5, 6), countAnswer);
    parent->updateSharedDataWithDictionary({{"parent", round}});
    parent->fetchStatesWithUserInfo(userInfo("C" + std::to_string(round % 3), "S"), nullptr);
  }
  sender.join();
  done = true;
  reader.join();
  EXPECT_EQ(answered, 2 * kRounds);
}

TEST_F(SessionConcurrencyTest, SessionsEndOnTheirOwnThreadsAtOnce) {
  constexpr int kSessions = 8;
  std::vector<std::thread> threads;
  for (int number = 0; number < kSessions; ++number) {
    threads.emplace_back([this, number, session = world_.makeSession()]() mutable {
      session->setSessionInfo(sessionInfo(number, inHierarchy("token", number)), std::nullopt, {}, false);
      session.reset();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(world_.agent->releasedTransactions(), static_cast<uint32_t>(kSessions));
}

TEST_F(SessionConcurrencyTest, FlushCompletionsFromManyThreadsAnswerOnce) {
  Dictionary storebag;
  for (int number = 0; number < 8; ++number)
    storebag.set("backend" + std::to_string(number), Dictionary{{"flush", "later"}});
  world_.agent->storebag = storebag;
  auto session = startSession(1, 0);
  std::atomic<int> answers{0};
  session->flushMessagesWithCompletion(
      [&answers](const std::optional<std::string>&, const std::optional<Error>&) { ++answers; });
  std::vector<std::thread> threads;
  for (const auto& [name, backend] : world_.backends) {
    threads.emplace_back([completion = std::move(backend->heldFlushes.at(0)), failed = name == "backend3"] {
      completion("text", TestBackend::errorOf(failed ? std::optional<std::string>("failed") : std::nullopt));
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(answers, 1);
}

}  // namespace
}  // namespace zun
