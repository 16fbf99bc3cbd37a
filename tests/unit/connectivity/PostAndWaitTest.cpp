#include "connectivity/PostAndWait.h"

#include <future>

#include "unit/connectivity/ConnectivityTest.h"

namespace zun {
namespace {

/// Calls completions, or lets go of them, before the post has returned.
class ImmediateHelper final : public ReportingSessionConnectivityInterface {
 public:
  explicit ImmediateHelper(bool answers) : answers_(answers) {}

  void postURLRequestWithCompletionHandler(URLRequest request, ConnectivityCompletion completion) override {
    if (answers_) completion("at once", URLResponse{.url = request.url, .statusCode = 200}, std::nullopt);
  }
  void getURLRequestWithCompletionHandler(URLRequest, ConnectivityCompletion) override {}

 private:
  const bool answers_;
};

/// The waiting is done by a thread of its own; the test cranks the helper.
class PostAndWaitTest : public ConnectivityTest {
 protected:
  std::future<PostOutcome> begin(const std::string& path) {
    return std::async(std::launch::async,
                      [helper = std::shared_ptr(helper_), url = server_.url(path)]() mutable {
                        return postAndWait(std::move(helper), postRequest(url, "body"));
                      });
  }
  PostOutcome end(std::future<PostOutcome> waiting) {
    EXPECT_TRUE(crankUntil([&] { return isOver(waiting); })) << "still waiting";
    return waiting.get();
  }
  static bool isOver(const std::future<PostOutcome>& waiting) {
    return waiting.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  }
  static void expectDropped(const PostOutcome& outcome) {
    EXPECT_FALSE(outcome.response);
    EXPECT_EQ(outcome.receivedData, "");
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->domain, kURLErrorDomain);
    EXPECT_EQ(outcome.error->code, static_cast<int32_t>(URLSessionError::kCancelled));
    EXPECT_EQ(outcome.errorDescription(), "the request was dropped");
  }

  HTTPSTestServer server_;
};

TEST_F(PostAndWaitTest, GivesBodyAndResponseOfTheAnswer) {
  server_.answer("/post", {.status = 418, .body = "tea"});
  makeActive(kPOSTMode);
  const PostOutcome outcome = end(begin("/post"));
  EXPECT_EQ(outcome.receivedData, "tea");
  ASSERT_TRUE(outcome.response);
  EXPECT_EQ(outcome.response->statusCode, 418);
  EXPECT_FALSE(outcome.error);
  EXPECT_EQ(outcome.errorDescription(), "(null)");
  ASSERT_EQ(server_.requests().size(), 1U);
  EXPECT_EQ(server_.requests()[0].body, "body");
}

TEST_F(PostAndWaitTest, GivesTheErrorOfAPostThatFails) {
  server_.answer("/post", TestAnswer::ended(TestAnswer::Ending::kNoAnswer));
  makeActive(kPOSTMode);
  const PostOutcome outcome = end(begin("/post"));
  EXPECT_FALSE(outcome.response);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.errorDescription(), outcome.error->description);
  EXPECT_NE(outcome.error->code, static_cast<int32_t>(URLSessionError::kCancelled));
}

TEST_F(PostAndWaitTest, CompletionBeforeTheWaitIsNotMissed) {
  const PostOutcome answered =
      postAndWait(std::make_shared<ImmediateHelper>(true), postRequest("https://127.0.0.1/", "body"));
  EXPECT_EQ(answered.receivedData, "at once");
  ASSERT_TRUE(answered.response);
  EXPECT_EQ(answered.response->url, "https://127.0.0.1/");
  expectDropped(postAndWait(std::make_shared<ImmediateHelper>(false), postRequest("https://127.0.0.1/", "")));
}

TEST_F(PostAndWaitTest, InactiveHelperEndsTheWait) {
  make(kPOSTMode);
  expectDropped(end(begin("/post")));
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(PostAndWaitTest, InvalidatedHelperEndsTheWait) {
  makeActive(kPOSTMode).invalidate();
  crank();
  expectDropped(end(begin("/post")));
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(PostAndWaitTest, HelperOfAnotherModeEndsTheWait) {
  makeActive(kGETMode);
  expectDropped(end(begin("/post")));
  expectErrors({"postURLRequestWithCompletionHandler: wrong mode for POST operation detected 8"});
}

// What waits does not keep the helper, so that its end can end the wait.
TEST_F(PostAndWaitTest, HelperThatIsLetGoOfWithTheRequestStillQueuedEndsTheWait) {
  make(kBackgroundUploadMode);  // whose requests are always queued
  std::future<PostOutcome> waiting = begin("/post");
  // The thread has let go of the helper: only the queued request is left with it.
  while (executor_.waiting() == 0 || helper_.use_count() > 2) std::this_thread::yield();
  EXPECT_FALSE(isOver(waiting));
  const std::weak_ptr<Helper> weak = helper_;
  helper_.reset();
  expectDropped(end(std::move(waiting)));
  EXPECT_TRUE(weak.expired());
}

TEST_F(PostAndWaitTest, InvalidationLetsAPostUnderWayFinish) {
  const auto gate = std::make_shared<TestGate>();
  server_.answer("/post", {.body = "late", .gate = gate});
  Helper& helper = makeActive(kPOSTMode);
  std::future<PostOutcome> waiting = begin("/post");
  ASSERT_TRUE(crankUntil([this] { return server_.requests().size() == 1; }));
  helper.invalidate();
  crank();
  EXPECT_FALSE(isOver(waiting));
  gate->open();
  EXPECT_EQ(end(std::move(waiting)).receivedData, "late");
}

}  // namespace
}  // namespace zun
