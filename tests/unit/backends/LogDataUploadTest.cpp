#include "backends/LogDataUpload.h"

#include "HelperTest.h"
#include "KeepingHelper.h"
#include "values/KeyedArchiver.h"

namespace zun {
namespace {

/// Uploads through a real helper to a real server, on the test's thread.
class LogDataUploadTest : public HelperTest {
 protected:
  static constexpr size_t kBudget = 100'000;

  std::unique_ptr<MemoryShare> share(BudgetHolder holder = {}) {
    return std::make_unique<MemoryShare>(budget_, holder);
  }
  std::optional<std::string> upload(const Array& logData = {"line"}) {
    return uploadLogDataArray(server_.url("/logs"), logData, helper_, share(), platform_.log);
  }
  void expectFailure(const std::string& why) {
    expectErrors({"DashboardBackend(uploadLogData): Error uploading log data array (" + why + ")"});
  }

  const std::shared_ptr<MemoryBudget> budget_ = std::make_shared<MemoryBudget>(kBudget);
};

TEST_F(LogDataUploadTest, PostsTheArrayAsAKeyedArchiveAndGivesTheLocation) {
  server_.answer("/logs", {.body = "https://logs.example/größe"});
  const Array logData = {"line", Dictionary{{"level", 3}, {"text", "line"}}, Value::data("\1\2")};
  EXPECT_EQ(upload(logData), "https://logs.example/größe");
  expectDebugLine("DashboardBackend(uploadLogData): Log data uploaded to https://logs.example/größe");

  ASSERT_EQ(server_.requests().size(), 1U);
  const TestRequest request = server_.requests()[0];
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.header("Content-Type"), "application/octet-stream");
  const auto archived = unarchiveObject(request.body);
  ASSERT_TRUE(archived) << archived.error();
  EXPECT_EQ(*archived, Value(logData));
}

TEST_F(LogDataUploadTest, EmptyArrayIsUploadedToo) {
  server_.answer("/logs", {.body = "somewhere"});
  EXPECT_EQ(upload(Array{}), "somewhere");
}

// Until the server has answered, the client that asked and what it gave are there.
TEST_F(LogDataUploadTest, ArchiveCountsForAsLongAsItIsUnderWay) {
  size_t left = 0;
  server_.handle("/logs", [&](const TestRequest&) {
    left = budget_->left();
    return TestAnswer{.body = "somewhere"};
  });
  EXPECT_EQ(upload(Array{std::string(10'000, 'x')}), "somewhere");
  EXPECT_LE(left, kBudget - 10'000);
  EXPECT_GE(left, kBudget - 11'000);  // nothing of what making it took
}

TEST_F(LogDataUploadTest, ArrayBeyondWhatOthersLeaveIsNotSent) {
  ASSERT_TRUE(budget_->take(kBudget - 12'000));
  EXPECT_EQ(upload(Array{std::string(10'000, 'x')}), std::nullopt);
  expectFailure("what is under way leaves no memory for it");
  EXPECT_EQ(budget_->left(), 12'000U);
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(LogDataUploadTest, ArrayIsHeldToTheShareOfItsHolder) {
  server_.answer("/logs", {.body = "somewhere"});
  const auto uploadFor = [&](size_t bytes, BudgetHolder holder) {
    return uploadLogDataArray(server_.url("/logs"), Array{std::string(bytes, 'x')}, helper_, share(holder),
                              platform_.log);
  };
  EXPECT_EQ(uploadFor(30'000, {1000, 1}), std::nullopt);
  expectFailure("what is under way leaves no memory for it");
  EXPECT_EQ(uploadFor(10'000, {1000, 1}), "somewhere");
}

TEST_F(LogDataUploadTest, WithoutPostURLNothingIsSent) {
  EXPECT_EQ(uploadLogDataArray(std::nullopt, {"line"}, helper_, share(), platform_.log), std::nullopt);
  expectErrors({"DashboardBackend(uploadLogData): Post URL for log data array is nil"});
}

TEST_F(LogDataUploadTest, ArrayWithoutAnArchiveIsNotSent) {
  Array tooDeep;
  for (size_t i = 0; i < kKeyedArchiveDepth; ++i) tooDeep = Array{Value(tooDeep)};
  EXPECT_EQ(upload(tooDeep), std::nullopt);
  expectErrors({"DashboardBackend(uploadLogData): Failed to serialize log data array for upload"});
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(LogDataUploadTest, WithoutHelperItFailsInsteadOfWaiting) {
  EXPECT_EQ(uploadLogDataArray(server_.url("/logs"), {"line"}, nullptr, share(), platform_.log),
            std::nullopt);
  expectFailure("there is no connectivity helper");
}

// An archive is large and its server slow: events are posted beside it.
TEST_F(LogDataUploadTest, TakesNoConnectionOfEventPostsAndTheShareOfItsHolder) {
  const auto keeping = std::make_shared<KeepingHelper>();
  (void)uploadLogDataArray(server_.url("/logs"), {"line"}, keeping, share({1000, 7}), platform_.log);
  ASSERT_EQ(keeping->requests.size(), 1U);
  EXPECT_EQ(keeping->requests[0].transferClass, TransferClass::kUpload);
  EXPECT_EQ(keeping->requests[0].holder.user, 1000U);
  EXPECT_EQ(keeping->requests[0].holder.member, 7U);
  expectFailure("the request was dropped");
}

TEST_F(LogDataUploadTest, RequestThatTheHelperDropsEndsTheWait) {
  helper_->invalidate();
  EXPECT_EQ(upload(), std::nullopt);
  expectFailure("the request was dropped");
}

TEST_F(LogDataUploadTest, FailedPostTellsItsError) {
  server_.answer("/logs", TestAnswer::ended(TestAnswer::Ending::kNoAnswer));
  EXPECT_EQ(upload(), std::nullopt);
  const auto errors = platform_.log.takeErrors();
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_TRUE(errors[0].starts_with("DashboardBackend(uploadLogData): Error uploading log data array ("));
  EXPECT_EQ(errors[0].find("(null)"), std::string::npos);
}

TEST_F(LogDataUploadTest, URLThatCannotBeAskedFails) {
  EXPECT_EQ(uploadLogDataArray("ftp://127.0.0.1/logs", {"line"}, helper_, share(), platform_.log),
            std::nullopt);
  EXPECT_EQ(platform_.log.takeErrors().size(), 1U);
}

TEST_F(LogDataUploadTest, AnswerThatBreaksOffFails) {
  TestAnswer answer{.body = "https://logs.example/1"};
  answer.ending = TestAnswer::Ending::kCloseMidAnswer;
  server_.answer("/logs", answer);
  EXPECT_EQ(upload(), std::nullopt);
  EXPECT_EQ(platform_.log.takeErrors().size(), 1U);
}

TEST_F(LogDataUploadTest, StatusDoesNotMatter) {
  server_.answer("/logs", {.status = 500, .body = "still a place"});
  EXPECT_EQ(upload(), "still a place");
}

TEST_F(LogDataUploadTest, EmptyBodyIsNoLocation) {
  server_.answer("/logs", {.body = ""});
  EXPECT_EQ(upload(), std::nullopt);
  expectFailure("the answer has no body");
}

TEST_F(LogDataUploadTest, BodyThatIsNoTextIsNoLocation) {
  server_.answer("/logs", {.body = "caf\xE9"});
  EXPECT_EQ(upload(), std::nullopt);
  expectFailure("the answer is not UTF-8");
}

}  // namespace
}  // namespace zun
