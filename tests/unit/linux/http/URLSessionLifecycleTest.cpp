// Invalidation, uploads, the end of the service.

#include <atomic>
#include <fstream>
#include <future>
#include <thread>

#include "support/ScratchFolder.h"
#include "unit/linux/http/URLSessionTest.h"

namespace zun {
namespace {

class URLSessionLifecycleTest : public URLSessionTest {
 protected:
  /// A request that is answered when `gate_` opens.
  URLRequest held() {
    server_.answer("/held", {.body = "late", .gate = gate_});
    return {.url = server_.url("/held")};
  }

  const std::shared_ptr<TestGate> gate_ = std::make_shared<TestGate>();
  ScratchFolder scratch_;
};

TEST_F(URLSessionLifecycleTest, SessionKeepsItsDescription) {
  session_->setSessionDescription("a session");
  EXPECT_EQ(session_->sessionDescription(), "a session");
}

TEST_F(URLSessionLifecycleTest, InvalidationWithoutTasksIsToldOnce) {
  session_->finishTasksAndInvalidate();
  session_->finishTasksAndInvalidate();
  ASSERT_TRUE(delegate_->waitForInvalidation());
  service_.reset();
  queue_->sync([] {});
  EXPECT_EQ(delegate_->invalidations(), 1);
  EXPECT_FALSE(delegate_->invalidationError());
}

TEST_F(URLSessionLifecycleTest, InvalidatedSessionMakesNoTasksAndSaysWhy) {
  session_->finishTasksAndInvalidate();
  const auto data = session_->dataTaskWithRequest({.url = server_.url("/")});
  ASSERT_FALSE(data);
  EXPECT_EQ(data.error().description, "Task created in a session that has been invalidated");
  EXPECT_FALSE(session_->uploadTaskWithRequest({.url = server_.url("/")}, "/etc/hostname"));
}

TEST_F(URLSessionLifecycleTest, RunningTasksEndBeforeTheSessionBecomesInvalid) {
  for (int i = 0; i < 10; ++i) begin(held(), std::to_string(i));
  session_->finishTasksAndInvalidate();
  ASSERT_TRUE(server_.waitForRequests(6));
  EXPECT_EQ(delegate_->invalidations(), 0);
  gate_->open();
  ASSERT_TRUE(delegate_->waitForInvalidation());
  EXPECT_EQ(delegate_->completionsAtInvalidation(), 10U);
  EXPECT_FALSE(delegate_->invalidationError());
  for (int i = 0; i < 10; ++i) EXPECT_EQ(delegate_->heard(std::to_string(i)).data, "late");
}

TEST_F(URLSessionLifecycleTest, InvalidSessionLetsGoOfItsDelegate) {
  const std::weak_ptr<RecordingDelegate> watched = delegate_;
  session_->finishTasksAndInvalidate();
  ASSERT_TRUE(delegate_->waitForInvalidation());
  queue_->sync([] {});
  delegate_.reset();
  EXPECT_TRUE(watched.expired());
}

TEST_F(URLSessionLifecycleTest, TaskMadeBeforeInvalidationRunsWhenResumedAfterIt) {
  server_.answer("/", {.body = "ok"});
  auto task = make({.url = server_.url("/")}, "task");
  session_->finishTasksAndInvalidate();
  queue_->sync([] {});
  EXPECT_EQ(delegate_->invalidations(), 0);
  task->resume();
  ASSERT_TRUE(delegate_->waitForInvalidation());
  EXPECT_EQ(delegate_->heard("task").data, "ok");
}

TEST_F(URLSessionLifecycleTest, TaskDroppedWithoutBeingResumedDoesNotHoldUpInvalidation) {
  auto task = make({.url = server_.url("/")}, "task");
  session_->finishTasksAndInvalidate();
  task.reset();
  ASSERT_TRUE(delegate_->waitForInvalidation());
  EXPECT_EQ(delegate_->completions(), 0U);
}

TEST_F(URLSessionLifecycleTest, TaskThatWasResumedTwiceRunsOnce) {
  server_.answer("/", {.body = "ok"});
  const auto task = make({.url = server_.url("/")}, "task");
  task->resume();
  task->resume();
  session_->finishTasksAndInvalidate();
  ASSERT_TRUE(delegate_->waitForInvalidation());
  EXPECT_EQ(delegate_->completions(), 1U);
  EXPECT_EQ(server_.requests().size(), 1U);
}

TEST_F(URLSessionLifecycleTest, SessionThatItsOwnerDropsEndsItsTasksFirst) {
  begin(held());
  session_.reset();
  gate_->open();
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  EXPECT_EQ(delegate_->heard("task").data, "late");
}

TEST_F(URLSessionLifecycleTest, CancellationEndsItsRequestsWhereverTheyStand) {
  const auto cancelled = std::make_shared<URLRequestCancellation>();
  const auto with = [](URLRequest request, std::shared_ptr<URLRequestCancellation> cancellation) {
    request.cancellation = std::move(cancellation);
    return request;
  };
  for (int i = 0; i < 5; ++i) begin(with(held(), cancelled), "under way " + std::to_string(i));
  begin(with(held(), std::make_shared<URLRequestCancellation>()), "another's");
  ASSERT_TRUE(server_.waitForRequests(6));
  begin(with(held(), cancelled), "queued");
  routes_->become(kNetworkDown);
  begin(with({.url = server_.url("/held", "server.test")}, cancelled), "waiting");
  EXPECT_EQ(delegate_->completions(), 0U);
  cancelled->cancel();
  ASSERT_TRUE(delegate_->waitForCompletions(7));
  begin(with(held(), cancelled), "begun later");
  ASSERT_TRUE(delegate_->waitForCompletions(8));
  for (const char* name : {"under way 0", "under way 4", "queued", "waiting", "begun later"})
    EXPECT_TRUE(delegate_->heard(name).failedWith(URLSessionError::kCancelled)) << name;
  gate_->open();
  ASSERT_TRUE(delegate_->waitForCompletions(9));
  EXPECT_EQ(delegate_->heard("another's").data, "late");
  cancelled->cancel();  // of what has ended: nothing
}

TEST_F(URLSessionLifecycleTest, EndOfTheServiceCancelsWhatIsLeftAndInvalidates) {
  begin(held(), "under way");
  ASSERT_TRUE(server_.waitForRequests(1));
  for (int i = 0; i < 20; ++i) begin(held(), "queued " + std::to_string(i));
  routes_->become(kNetworkDown);
  begin({.url = server_.url("/held", "server.test")}, "waiting");
  service_.reset();
  ASSERT_TRUE(delegate_->waitForInvalidation());
  EXPECT_EQ(delegate_->completions(), 22U);
  EXPECT_TRUE(delegate_->heard("under way").failedWith(URLSessionError::kCancelled));
  EXPECT_TRUE(delegate_->heard("queued 19").failedWith(URLSessionError::kCancelled));
  EXPECT_TRUE(delegate_->heard("waiting").failedWith(URLSessionError::kCancelled));
  ASSERT_TRUE(delegate_->invalidationError());
  EXPECT_EQ(delegate_->invalidationError()->code, static_cast<int32_t>(URLSessionError::kCancelled));
}

TEST_F(URLSessionLifecycleTest, TaskResumedAfterTheServicesEndIsCancelled) {
  const auto task = make({.url = server_.url("/")}, "task");
  service_.reset();
  task->resume();
  ASSERT_TRUE(delegate_->waitForInvalidation());
  EXPECT_TRUE(delegate_->heard("task").failedWith(URLSessionError::kCancelled));
  EXPECT_FALSE(session_->dataTaskWithRequest({.url = server_.url("/")}));
}

TEST_F(URLSessionLifecycleTest, ServiceEndsWhileOthersResume) {
  server_.handleOthers([](const TestRequest&) { return TestAnswer{.body = "ok"}; });
  std::vector<std::shared_ptr<URLSessionTask>> tasks;
  for (int i = 0; i < 200; ++i) tasks.push_back(make({.url = server_.url("/")}, std::to_string(i)));
  std::atomic<int> resumed{0};
  std::thread other([&] {
    for (const auto& task : tasks) {
      task->resume();
      ++resumed;
    }
  });
  while (resumed < 20) std::this_thread::yield();
  service_.reset();
  other.join();
  ASSERT_TRUE(delegate_->waitForInvalidation());
  EXPECT_EQ(delegate_->completions(), 200U);
}

TEST_F(URLSessionLifecycleTest, IdleHandlerHearsTheLastTransferEnd) {
  std::promise<void> idle;
  service_->setIdleHandler([&idle] { idle.set_value(); });  // a second call would throw
  EXPECT_TRUE(service_->waitUntilIdle(std::chrono::milliseconds(0)));
  begin(held(), "1");
  begin(held(), "2");
  EXPECT_EQ(service_->transfersInFlight(), 2U);
  EXPECT_FALSE(service_->waitUntilIdle(std::chrono::milliseconds(1)));
  gate_->open();
  EXPECT_EQ(idle.get_future().wait_for(HTTPSTestServer::kDeadline), std::future_status::ready);
  service_->setIdleHandler(nullptr);
  EXPECT_TRUE(service_->waitUntilIdle(std::chrono::milliseconds(0)));
  EXPECT_EQ(service_->transfersInFlight(), 0U);
  begin(held(), "3");
  EXPECT_TRUE(service_->waitUntilIdle(HTTPSTestServer::kDeadline));
  ASSERT_TRUE(delegate_->waitForCompletions(3));
}

// Whoever waits for the network is well; whoever does not come back to it is not.
TEST_F(URLSessionLifecycleTest, TransferThreadThatIsHeldUpStandsStill) {
  const auto standsStill = [this] {
    return service_->heartbeat()->standsStill(Heartbeat::Clock::now() + std::chrono::hours(1),
                                              std::chrono::minutes(1));
  };
  std::promise<void> isHeld;
  std::promise<void> release;
  service_->setIdleHandler([&, released = release.get_future().share()] {
    isHeld.set_value();
    released.wait();
  });
  begin(held(), "1");
  ASSERT_TRUE(server_.waitForRequests(1));
  while (standsStill()) std::this_thread::yield();
  gate_->open();
  isHeld.get_future().wait();
  EXPECT_TRUE(standsStill());
  release.set_value();
  service_->setIdleHandler(nullptr);
  while (standsStill()) std::this_thread::yield();
}

TEST_F(URLSessionLifecycleTest, UploadSendsTheFileAsItWasWhenTheTaskWasMade) {
  server_.answer("/up", {.body = "thanks"});
  const std::string path = scratch_.path("container");
  const std::string bytes = std::string(200'000, 'u') + "end";
  std::ofstream(path) << bytes;
  URLRequest request{.url = server_.url("/up"), .method = "POST"};
  request.setHeader("X-Kind", "upload");
  const auto task = session_->uploadTaskWithRequest(request, path);
  ASSERT_TRUE(task);
  std::ofstream(path) << "something else";
  std::filesystem::remove(path);
  (*task)->setTaskDescription("up");
  (*task)->resume();
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  EXPECT_EQ(delegate_->heard("up").data, "thanks");
  EXPECT_EQ(server_.requests().at(0).body, bytes);
  EXPECT_EQ(server_.requests().at(0).header("X-Kind"), "upload");
}

TEST_F(URLSessionLifecycleTest, UploadOfAFileThatCannotBeReadCompletesWithAnError) {
  for (const std::string& path : {scratch_.path("missing"), scratch_.path()}) {
    const size_t before = delegate_->completions();
    const auto task = session_->uploadTaskWithRequest({.url = server_.url("/up"), .method = "POST"}, path);
    ASSERT_TRUE(task);
    (*task)->setTaskDescription(path);
    (*task)->resume();
    ASSERT_TRUE(delegate_->waitForCompletions(before + 1));
    EXPECT_TRUE(delegate_->heard(path).failedWith(URLSessionError::kCannotReadFile));
  }
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(URLSessionLifecycleTest, UploadOfAFileThatIsTooLargeCompletesWithAnError) {
  start({.maxUploadFileBytes = 10});
  const std::string path = scratch_.path("large");
  std::ofstream(path) << "01234567890";
  const auto task = session_->uploadTaskWithRequest({.url = server_.url("/up"), .method = "POST"}, path);
  ASSERT_TRUE(task);
  (*task)->setTaskDescription("up");
  (*task)->resume();
  ASSERT_TRUE(delegate_->waitForCompletions(1));
  EXPECT_TRUE(delegate_->heard("up").failedWith(URLSessionError::kCannotReadFile));
}

}  // namespace
}  // namespace zun
