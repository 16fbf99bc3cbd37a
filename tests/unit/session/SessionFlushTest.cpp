// Flushing all backends with one completion.

#include "SessionTest.h"

namespace zun {
namespace {

class SessionFlushTest : public SessionTest {
 protected:
  struct Outcome {
    int calls = 0;
    int letGo = 0;
    std::optional<std::string> result;
    std::optional<Error> error;
  };

  void flush() {
    // Counts the end of the completion itself, called or not.
    const auto alive = std::shared_ptr<void>(nullptr, [this](void*) { ++outcome_.letGo; });
    session_->flushMessagesWithCompletion(
        [this, alive](const std::optional<std::string>& result, const std::optional<Error>& error) {
          ++outcome_.calls;
          outcome_.result = result;
          outcome_.error = error;
        });
  }
  /// Completes the flush that the backend holds.
  void complete(const std::string& name, const std::optional<std::string>& result,
                const std::optional<std::string>& error = std::nullopt) {
    backend(name).heldFlushes.at(0)(result, TestBackend::errorOf(error));
  }
  static Dictionary later() { return {{"flush", "later"}}; }

  Outcome outcome_;
};

TEST_F(SessionFlushTest, WithoutBackendsTheClientGetsAnError) {
  flush();
  EXPECT_EQ(outcome_.calls, 1);
  EXPECT_EQ(outcome_.result, std::nullopt);
  EXPECT_EQ(outcome_.error,
            (Error{"com.vantix.zunreporting.error", -1, "No backends available to send message"}));
  expectDebugLine("flushMessagesWithCompletion: Flushing messages for session 0");
  expectDebugLine("internalFlushMessagesWithCompletion: No backends available to send message");
}

TEST_F(SessionFlushTest, StorebagWithoutBackendsDoesNotKeepTheClientWaiting) {
  startWith({});
  flush();
  EXPECT_EQ(outcome_.calls, 1);
  EXPECT_EQ(outcome_.error,
            (Error{"com.vantix.zunreporting.error", -1, "No backends available to send message"}));
}

TEST_F(SessionFlushTest, SecondOfThreeBackendsFailingIsToldAtOnceAndOnce) {
  startWith({{"a", later()}, {"b", later()}, {"c", later()}});
  flush();
  complete("a", "resultA");
  EXPECT_EQ(outcome_.calls, 0);
  complete("b", "resultB", "failed");
  EXPECT_EQ(outcome_.calls, 1);
  EXPECT_EQ(outcome_.result, "resultB");
  EXPECT_EQ(outcome_.error, (Error{"test", 7, "failed"}));

  complete("c", "resultC", "failed too");
  EXPECT_EQ(outcome_.calls, 1);
  expectDebugLine("internalFlushMessagesWithCompletion: c");
  EXPECT_EQ(world_.messageLogEntries(),
            (std::vector<std::string>{"[a -> flushMessages] resultA", "[b -> flushMessages] resultB",
                                      "[c -> flushMessages] resultC"}));
}

TEST_F(SessionFlushTest, WithoutFailureTheLastBackendToFinishAnswers) {
  startWith({{"a", later()}, {"b", later()}, {"c", Dictionary{{"flushResult", "resultC"}}}});
  flush();
  complete("b", "resultB");
  EXPECT_EQ(outcome_.calls, 0);
  complete("a", std::nullopt);
  EXPECT_EQ(outcome_.calls, 1);
  EXPECT_EQ(outcome_.result, std::nullopt);
  EXPECT_EQ(outcome_.error, std::nullopt);
}

TEST_F(SessionFlushTest, EveryBackendIsFlushedEvenAfterAFailure) {
  startWith({{"a", Dictionary{{"flushError", "failed"}}}, {"b", Dictionary{}}});
  flush();
  EXPECT_EQ(backend("b").flushes, 1);
  EXPECT_EQ(outcome_.calls, 1);
  EXPECT_EQ(outcome_.error, (Error{"test", 7, "failed"}));
}

TEST_F(SessionFlushTest, CompletionThatABackendDroppedIsNotCounted) {
  startWith({{"a", Dictionary{{"flush", "dropped"}}}, {"b", later()}});
  flush();
  complete("b", "resultB");
  EXPECT_EQ(outcome_.calls, 0);
  EXPECT_EQ(outcome_.letGo, 0);
  backend("b").heldFlushes.clear();
  EXPECT_EQ(outcome_.calls, 0);
  EXPECT_EQ(outcome_.letGo, 1);  // whoever waits for it notices
}

TEST_F(SessionFlushTest, CompletionThatEveryBackendDroppedIsLetGo) {
  startWith({{"a", Dictionary{{"flush", "dropped"}}}, {"b", Dictionary{{"flush", "dropped"}}}});
  flush();
  EXPECT_EQ(outcome_.calls, 0);
  EXPECT_EQ(outcome_.letGo, 1);
}

TEST_F(SessionFlushTest, CompletionMayComeWhenTheSessionIsGone) {
  startWith({{"a", later()}});
  flush();
  session_.reset();
  complete("a", "late");
  EXPECT_EQ(outcome_.calls, 1);
  EXPECT_EQ(outcome_.result, "late");
  EXPECT_EQ(world_.messageLogEntries(), (std::vector<std::string>{"[a -> flushMessages] late"}));
}

TEST_F(SessionFlushTest, CompletionMayFlushAgain) {
  startWith({{"a", later()}});
  bool again = false;
  session_->flushMessagesWithCompletion([&](const std::optional<std::string>&, const std::optional<Error>&) {
    session_->flushMessagesWithCompletion(
        [&again](const std::optional<std::string>&, const std::optional<Error>&) { again = true; });
  });
  complete("a", std::nullopt);
  backend("a").heldFlushes.at(1)(std::nullopt, std::nullopt);
  EXPECT_TRUE(again);
}

TEST_F(SessionFlushTest, FlushWithoutCompletionStillLogsResults) {
  startWith({{"a", Dictionary{{"flushResult", "resultA"}}}});
  session_->flushMessagesWithCompletion(nullptr);
  EXPECT_EQ(world_.messageLogEntries(), (std::vector<std::string>{"[a -> flushMessages] resultA"}));
}

}  // namespace
}  // namespace zun
