#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>

#include "unit/connectivity/ConnectivityTest.h"

namespace zun {
namespace {

class RequestsTest : public ConnectivityTest {
 protected:
  /// The IDs of the tasks made so far, in order.
  std::vector<std::string> taskIDs() const {
    const std::string beginning = "createHelperForTask: created helperTask for task <";
    std::vector<std::string> ids;
    for (const std::string& line : debugLines()) {
      if (line.starts_with(beginning))
        ids.push_back(line.substr(beginning.size(), line.size() - beginning.size() - 1));
    }
    return ids;
  }
  /// Ends the URL session behind its helper's back.
  void endURLSession() {
    const auto session = urlSessions_.sessions.back().lock();
    session->finishTasksAndInvalidate();
    ASSERT_TRUE(crankUntil([this] { return countStarting("didBecomeInvalidWithError: session <") == 1; }));
  }
  std::filesystem::path containerFolder() const { return platform_.files.resolve("/tmp/zunstorage"); }

  HTTPSTestServer server_;
};

// --- Configurations --------------------------------------------------------------

TEST_F(RequestsTest, BackgroundUploadConfigurationIsDiscretionaryAndNeedsPower) {
  const auto configuration = Helper::privateURLSessionConfigWithMode(kBackgroundUploadMode, platform_.random);
  ASSERT_TRUE(configuration);
  EXPECT_EQ(configuration->kind, URLSessionConfiguration::Kind::kBackground);
  EXPECT_EQ(configuration->identifier.size(), 36U);
  EXPECT_EQ(configuration->networkServiceType, URLSessionConfiguration::NetworkServiceType::kBackground);
  EXPECT_TRUE(configuration->discretionary);
  EXPECT_TRUE(configuration->requiresPowerPluggedIn);
  EXPECT_TRUE(configuration->waitsForConnectivity);
  EXPECT_EQ(configuration->sourceApplicationIdentifier, "com.vantix.system.diagnostics");
}

TEST_F(RequestsTest, BackgroundGetConfigurationIsDiscretionaryOnly) {
  const auto configuration = Helper::privateURLSessionConfigWithMode(kBackgroundGETMode, platform_.random);
  ASSERT_TRUE(configuration);
  EXPECT_EQ(configuration->kind, URLSessionConfiguration::Kind::kBackground);
  EXPECT_EQ(configuration->identifier.size(), 36U);
  EXPECT_EQ(configuration->networkServiceType, URLSessionConfiguration::NetworkServiceType::kDefault);
  EXPECT_TRUE(configuration->discretionary);
  EXPECT_FALSE(configuration->requiresPowerPluggedIn);
  EXPECT_TRUE(configuration->waitsForConnectivity);
  EXPECT_EQ(configuration->sourceApplicationIdentifier, "com.vantix.system.diagnostics");
}

TEST_F(RequestsTest, BackgroundIdentifiersAreFreshEachTime) {
  const auto first = Helper::privateURLSessionConfigWithMode(kBackgroundGETMode, platform_.random);
  const auto second = Helper::privateURLSessionConfigWithMode(kBackgroundGETMode, platform_.random);
  EXPECT_NE(first->identifier, second->identifier);
}

TEST_F(RequestsTest, OrdinaryModesUseTheDefaultConfigurationAndWaitForConnectivity) {
  for (const ConnectionMode mode : {kPOSTMode, kGETMode}) {
    const auto configuration = Helper::privateURLSessionConfigWithMode(mode, platform_.random);
    ASSERT_TRUE(configuration);
    EXPECT_EQ(configuration->kind, URLSessionConfiguration::Kind::kDefault);
    EXPECT_EQ(configuration->networkServiceType, URLSessionConfiguration::NetworkServiceType::kDefault);
    EXPECT_FALSE(configuration->discretionary);
    EXPECT_FALSE(configuration->requiresPowerPluggedIn);
    EXPECT_TRUE(configuration->waitsForConnectivity);
    EXPECT_EQ(configuration->sourceApplicationIdentifier, "com.vantix.system.diagnostics");
  }
}

TEST_F(RequestsTest, OtherModesHaveNoConfiguration) {
  for (const ConnectionMode mode : {0, 3, 5, 12, 16, -1}) {
    EXPECT_FALSE(Helper::privateURLSessionConfigWithMode(mode, platform_.random)) << mode;
  }
}

TEST_F(RequestsTest, DaemonPostsInMode4AndGetsInMode8) {
  EXPECT_EQ(Helper::POSTRequestMode(), 4);
  EXPECT_EQ(Helper::GETRequestMode(), 8);
}

// --- Requests that are carried out -----------------------------------------------

TEST_F(RequestsTest, PostSendsTheRequestAndDeliversBodyAndResponse) {
  server_.answer("/post", {.status = 200, .body = "thanks", .headers = {{"X-Answer", "yes"}}});
  makeActive(kPOSTMode);
  URLRequest request = postRequest(server_.url("/post"), "{\"events\":[]}");
  request.headers = {{"X-Question", "maybe"}};
  const auto result = post(std::move(request));
  ASSERT_TRUE(finished(result));
  EXPECT_EQ(result->data, "thanks");
  ASSERT_TRUE(result->response);
  EXPECT_EQ(result->response->statusCode, 200);
  EXPECT_EQ(result->response->header("x-answer"), "yes");
  EXPECT_FALSE(result->error);
  const auto requests = server_.requestsFor("/post");
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(requests[0].method, "POST");
  EXPECT_EQ(requests[0].body, "{\"events\":[]}");
  EXPECT_EQ(requests[0].header("X-Question"), "maybe");
}

TEST_F(RequestsTest, GetOnMode8HelperIsCarriedOut) {
  server_.answer("/bag", {.body = "content"});
  makeActive(kGETMode);
  const auto result = get(getRequest(server_.url("/bag")));
  ASSERT_TRUE(finished(result));
  EXPECT_EQ(result->data, "content");
}

TEST_F(RequestsTest, GetOnMode2HelperIsCarriedOut) {
  server_.answer("/bag", {.body = "content"});
  makeActive(kBackgroundGETMode);
  const auto result = get(getRequest(server_.url("/bag")));
  ASSERT_TRUE(finished(result));
  EXPECT_EQ(result->data, "content");
  EXPECT_FALSE(result->error);
}

TEST_F(RequestsTest, Answer500IsDeliveredWithBodyAndResponseAndNoError) {
  server_.answer("/post", {.status = 500, .body = "broken"});
  makeActive(kPOSTMode);
  const auto result = post(postRequest(server_.url("/post"), "x"));
  ASSERT_TRUE(finished(result));
  EXPECT_EQ(result->data, "broken");
  ASSERT_TRUE(result->response);
  EXPECT_EQ(result->response->statusCode, 500);
  EXPECT_FALSE(result->error);
}

TEST_F(RequestsTest, AnswerWithoutBodyGivesAnEmptyBuffer) {
  server_.answer("/post", {.status = 204});
  makeActive(kPOSTMode);
  const auto result = post(postRequest(server_.url("/post"), "x"));
  ASSERT_TRUE(finished(result));
  EXPECT_EQ(result->data, "");
  ASSERT_TRUE(result->response);
  EXPECT_EQ(result->response->statusCode, 204);
  EXPECT_FALSE(result->error);
}

TEST_F(RequestsTest, LargeBodyArrivesWhole) {
  server_.answer("/bag", {.body = "start", .fillerBytes = 1'000'000});
  makeActive(kGETMode);
  const auto result = get(getRequest(server_.url("/bag")));
  ASSERT_TRUE(finished(result));
  EXPECT_EQ(result->data.size(), 1'000'005U);
  EXPECT_TRUE(result->data.starts_with("start"));
}

TEST_F(RequestsTest, TasksMadeOneAfterTheOtherGetConsecutiveIDs) {
  server_.answer("/post", {});
  makeActive(kPOSTMode);
  const auto first = post(postRequest(server_.url("/post"), "1"));
  const auto second = post(postRequest(server_.url("/post"), "2"));
  ASSERT_TRUE(finished(first));
  ASSERT_TRUE(finished(second));
  const auto ids = taskIDs();
  ASSERT_EQ(ids.size(), 2U);
  for (const std::string& id : ids) EXPECT_TRUE(std::regex_match(id, std::regex("Task_[0-9a-f]{8}"))) << id;
  EXPECT_EQ(std::stoul(ids[1].substr(5), nullptr, 16), std::stoul(ids[0].substr(5), nullptr, 16) + 1);
}

TEST_F(RequestsTest, TasksOfDifferentHelpersGetConsecutiveIDs) {
  server_.answer("/post", {});
  for (int helper = 0; helper < 3; ++helper) {
    makeActive(kPOSTMode);
    ASSERT_TRUE(finished(post(postRequest(server_.url("/post"), "x"))));
  }
  const auto ids = taskIDs();
  ASSERT_EQ(ids.size(), 3U);
  const auto numberOf = [](const std::string& id) { return std::stoul(id.substr(5), nullptr, 16); };
  EXPECT_EQ(numberOf(ids[1]), numberOf(ids[0]) + 1);
  EXPECT_EQ(numberOf(ids[2]), numberOf(ids[0]) + 2);
}

TEST_F(RequestsTest, EveryStepOfATaskIsLogged) {
  server_.answer("/post", {.status = 200, .body = "twelve bytes"});
  makeActive(kPOSTMode);
  platform_.log.clear();
  const auto result = post(postRequest(server_.url("/post"), "four"));
  ASSERT_TRUE(finished(result));
  ASSERT_EQ(taskIDs().size(), 1U);
  const std::string task = taskIDs()[0];
  const std::string where = "<session>:<task> <" + helperID() + ">:<" + task + ">";
  EXPECT_EQ(count("ConnectivityHelperTask with ID <" + task + "> created"), 1);
  EXPECT_EQ(count("createHelperForTask: created helperTask for task <" + task + ">"), 1);
  EXPECT_EQ(count("didReceiveResponse: for " + where), 1);
  EXPECT_EQ(count("didReceiveData: received 12 bytes for " + where), 1);
  EXPECT_GE(count("didSendBodyData: for " + where + ": Sent 4 out of 4"), 1);
  EXPECT_EQ(count("didCompleteWithError: for " + where + " with response " + result->response->description() +
                  ", error (null)"),
            1);
  EXPECT_EQ(count("ConnectivityHelperTask with ID <" + task + "> dealloced"), 1);
  const auto lines = debugLines();
  EXPECT_EQ(lines.front(), "ConnectivityHelperTask with ID <" + task + "> created");
  EXPECT_EQ(lines.back(), "ConnectivityHelperTask with ID <" + task + "> dealloced");
}

// --- Failures of the network -----------------------------------------------------

TEST_F(RequestsTest, ServerThatClosesWithoutAnAnswerGivesAnErrorAndNoResponse) {
  server_.answer("/post", TestAnswer::ended(TestAnswer::Ending::kNoAnswer));
  makeActive(kPOSTMode);
  const auto result = post(postRequest(server_.url("/post"), "x"));
  ASSERT_TRUE(finished(result));
  ASSERT_TRUE(result->error);
  EXPECT_EQ(result->error->domain, kURLErrorDomain);
  EXPECT_FALSE(result->response);
  EXPECT_EQ(result->data, "");
  EXPECT_EQ(count("didCompleteWithError: for <session>:<task> <" + helperID() + ">:<" + taskIDs().at(0) +
                  "> with response (null), error " + result->error->description),
            1);
}

TEST_F(RequestsTest, RefusedConnectionGivesAnErrorAndNoResponse) {
  const std::string url = server_.url("/post");
  server_.stop();
  makeActive(kPOSTMode);
  const auto result = post(postRequest(url, "x"));
  ASSERT_TRUE(finished(result));
  ASSERT_TRUE(result->error);
  EXPECT_EQ(result->error->code, static_cast<int32_t>(URLSessionError::kCannotConnect));
  EXPECT_FALSE(result->response);
}

TEST_F(RequestsTest, BrokenAnswerGivesTheErrorAndTheBytesThatCame) {
  server_.answer("/bag", {.body = "0123456789", .ending = TestAnswer::Ending::kCloseMidAnswer});
  makeActive(kGETMode);
  const auto result = get(getRequest(server_.url("/bag")));
  ASSERT_TRUE(finished(result));
  EXPECT_TRUE(result->error);
  EXPECT_EQ(result->data, "01234");
}

TEST_F(RequestsTest, ServerThatHangsEndsInATimeout) {
  server_.answer("/post", TestAnswer::ended(TestAnswer::Ending::kNever));
  makeActive(kPOSTMode);
  URLRequest request = postRequest(server_.url("/post"), "x");
  request.timeout = std::chrono::seconds(1);
  const auto result = post(std::move(request));
  ASSERT_TRUE(finished(result));
  ASSERT_TRUE(result->error);
  EXPECT_EQ(result->error->code, static_cast<int32_t>(URLSessionError::kTimedOut));
}

TEST_F(RequestsTest, ServerThatNobodyTrustsIsRefused) {
  HTTPSTestServer untrusted(HTTPSTestServer::Transport::kUntrusted);
  untrusted.answer("/post", {});
  makeActive(kPOSTMode);
  const auto result = post(postRequest(untrusted.url("/post"), "secret"));
  ASSERT_TRUE(finished(result));
  ASSERT_TRUE(result->error);
  EXPECT_EQ(result->error->code, static_cast<int32_t>(URLSessionError::kSecureConnectionFailed));
  EXPECT_TRUE(untrusted.requests().empty());
}

// --- Requests that are dropped ---------------------------------------------------

TEST_F(RequestsTest, PostOnMode8HelperLogsTheModeAndNeverCallsTheCompletion) {
  makeActive(kGETMode);
  const auto result = post(postRequest(server_.url("/post"), "x"));
  crank();
  EXPECT_TRUE(result->isDropped());
  expectErrors({"postURLRequestWithCompletionHandler: wrong mode for POST operation detected 8"});
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(RequestsTest, PostOnMode2HelperIsRefused) {
  makeActive(kBackgroundGETMode);
  const auto result = post(postRequest(server_.url("/post"), "x"));
  crank();
  EXPECT_TRUE(result->isDropped());
  expectErrors({"postURLRequestWithCompletionHandler: wrong mode for POST operation detected 2"});
}

TEST_F(RequestsTest, GetOnPostModesIsRefused) {
  for (const ConnectionMode mode : {kPOSTMode, kBackgroundUploadMode}) {
    makeActive(mode);
    const auto result = get(getRequest(server_.url("/bag")));
    crank();
    EXPECT_TRUE(result->isDropped());
    expectErrors(
        {fmt::format("getURLRequestWithCompletionHandler: wrong mode for GET operation detected {}", mode)});
  }
}

TEST_F(RequestsTest, HelperOfAnUnknownModeRefusesEverything) {
  makeActive(-7);
  const auto posted = post(postRequest(server_.url("/post"), "x"));
  const auto got = get(getRequest(server_.url("/bag")));
  crank();
  EXPECT_TRUE(posted->isDropped());
  EXPECT_TRUE(got->isDropped());
  expectErrors({"postURLRequestWithCompletionHandler: wrong mode for POST operation detected -7",
                "getURLRequestWithCompletionHandler: wrong mode for GET operation detected -7"});
}

TEST_F(RequestsTest, RequestOnAnInactiveHelperIsDroppedWithoutALine) {
  make(kPOSTMode);
  platform_.log.clear();
  const auto posted = post(postRequest(server_.url("/post"), "x"));
  const auto got = get(getRequest(server_.url("/bag")));
  crank();
  EXPECT_TRUE(posted->isDropped());
  EXPECT_TRUE(got->isDropped());
  EXPECT_TRUE(platform_.log.lines().empty());
}

TEST_F(RequestsTest, RequestAfterInvalidationIsDroppedWithoutALine) {
  makeActive(kPOSTMode);
  const int before = countStarting("");
  helper_->invalidate();
  const auto result = post(postRequest(server_.url("/post"), "x"));
  crank();
  EXPECT_TRUE(result->isDropped());
  EXPECT_TRUE(crankUntil([&] { return countStarting("didBecomeInvalidWithError: session <") == 1; }));
  EXPECT_EQ(countStarting(""), before + 3);  // the lines of the invalidation
}

TEST_F(RequestsTest, PostOnAnEndedURLSessionIsReportedAndDropped) {
  makeActive(kPOSTMode);
  endURLSession();
  const auto result = post(postRequest(server_.url("/post"), "x"));
  crank();
  EXPECT_TRUE(result->isDropped());
  const auto errors = platform_.log.takeErrors();
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_TRUE(std::regex_match(errors[0],
                               std::regex("postURLRequestWithCompletionHandler: underlying Wirepath has been "
                                          "invalidated with error .+\\. Ignoring POST request\\.")))
      << errors[0];
}

TEST_F(RequestsTest, GetOnAnEndedURLSessionIsReportedAndDropped) {
  makeActive(kGETMode);
  endURLSession();
  const auto result = get(getRequest(server_.url("/bag")));
  crank();
  EXPECT_TRUE(result->isDropped());
  const auto errors = platform_.log.takeErrors();
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_TRUE(std::regex_match(errors[0],
                               std::regex("getURLRequestWithCompletionHandler: underlying Wirepath has been "
                                          "invalidated with error .+\\. Ignoring GET request\\.")))
      << errors[0];
}

TEST_F(RequestsTest, DroppedRequestsGetNoTaskID) {
  makeActive(kGETMode);
  post(postRequest(server_.url("/post"), "x"));
  crank();
  EXPECT_TRUE(taskIDs().empty());
  EXPECT_EQ(platform_.log.takeErrors().size(), 1U);
}

// --- Uploads from containers -----------------------------------------------------

TEST_F(RequestsTest, Mode1SendsTheBodyFromAContainerThatIsGoneOnceHandedOver) {
  const auto gate = std::make_shared<TestGate>();
  server_.answer("/post", {.body = "thanks", .gate = gate});
  StorageContainers(services_).cleanupStorageRootFolder(kBackgroundUploadMode);
  makeActive(kBackgroundUploadMode);
  const auto result = post(postRequest(server_.url("/post"), "the body"));
  crank();
  EXPECT_EQ(taskIDs().size(), 1U);
  EXPECT_TRUE(std::filesystem::is_empty(containerFolder()));  // the answer is still held back
  gate->open();
  ASSERT_TRUE(finished(result));
  EXPECT_EQ(result->data, "thanks");
  ASSERT_EQ(server_.requests().size(), 1U);
  EXPECT_EQ(server_.requests()[0].body, "the body");
  EXPECT_EQ(server_.requests()[0].method, "POST");
}

TEST_F(RequestsTest, Mode1HandsTheBodyOverAsAFileAlone) {
  server_.answer("/post", {});
  StorageContainers(services_).cleanupStorageRootFolder(kBackgroundUploadMode);
  makeActive(kBackgroundUploadMode);
  ASSERT_TRUE(finished(post(postRequest(server_.url("/post"), "the body"))));
  ASSERT_EQ(urlSessions_.uploads.size(), 1U);
  EXPECT_EQ(urlSessions_.uploads[0].fileBytes, "the body");
  EXPECT_FALSE(urlSessions_.uploads[0].hasBody);
}

TEST_F(RequestsTest, Mode1WithoutRootFolderDropsThePostWithoutALine) {
  makeActive(kBackgroundUploadMode);
  const int before = countStarting("");
  const auto result = post(postRequest(server_.url("/post"), "x"));
  crank();
  EXPECT_TRUE(result->isDropped());
  EXPECT_EQ(countStarting(""), before);
  EXPECT_FALSE(std::filesystem::exists(containerFolder()));
}

// Whoever comes first in /tmp could have the daemon's bodies written where he likes.
TEST_F(RequestsTest, Mode1WritesNoContainerWhereTheRootFolderIsALink) {
  const std::string elsewhere = platform_.scratch.path("elsewhere");
  std::filesystem::create_directories(elsewhere);
  std::filesystem::create_directories(containerFolder().parent_path());
  std::filesystem::create_symlink(elsewhere, containerFolder());
  makeActive(kBackgroundUploadMode);
  const auto result = post(postRequest(server_.url("/post"), "x"));
  crank();
  EXPECT_TRUE(result->isDropped());
  EXPECT_TRUE(taskIDs().empty());
}

TEST_F(RequestsTest, Mode1WithoutBodyDropsThePostWithoutALine) {
  StorageContainers(services_).cleanupStorageRootFolder(kBackgroundUploadMode);
  makeActive(kBackgroundUploadMode);
  URLRequest request = postRequest(server_.url("/post"), "");
  request.body = nullptr;
  const auto result = post(std::move(request));
  crank();
  EXPECT_TRUE(result->isDropped());
  EXPECT_TRUE(std::filesystem::is_empty(containerFolder()));
}

TEST_F(RequestsTest, Mode1ContainerThatCannotBeWrittenIsNotLeftBehind) {
  StorageContainers(services_).cleanupStorageRootFolder(kBackgroundUploadMode);
  makeActive(kBackgroundUploadMode);
  // Files can be made but take no bytes, as on a full disk.
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit whole{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &whole), 0);
  const rlimit none{0, whole.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &none), 0);
  const auto result = post(postRequest(server_.url("/post"), "x"));
  crank();
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &whole), 0);
  EXPECT_TRUE(result->isDropped());
  EXPECT_TRUE(taskIDs().empty());
  EXPECT_TRUE(std::filesystem::is_empty(containerFolder()));
}

TEST_F(RequestsTest, Mode1DeletesTheContainerWhenNoTaskCouldBeMade) {
  StorageContainers(services_).cleanupStorageRootFolder(kBackgroundUploadMode);
  makeActive(kBackgroundUploadMode);
  endURLSession();
  const auto result = post(postRequest(server_.url("/post"), "x"));
  crank();
  EXPECT_TRUE(result->isDropped());
  EXPECT_TRUE(std::filesystem::is_empty(containerFolder()));
  EXPECT_EQ(platform_.log.takeErrors().size(), 1U);
}

// --- Calls that should not come --------------------------------------------------

TEST_F(RequestsTest, DownloadTaskIsReported) {
  makeActive(kGETMode);
  const auto delegate = urlSessions_.delegates.back().lock();
  delegate->didBecomeDownloadTask(*urlSessions_.sessions.back().lock());
  expectErrors({"didBecomeDownloadTask: session <" + helperID() +
                "> has become downoad task. SHOULD NEVER HAPPEN!!!"});
}

TEST_F(RequestsTest, CallsAboutAnUnknownTaskAreOnlyLogged) {
  makeActive(kGETMode);
  const auto session = urlSessions_.sessions.back().lock();
  auto task = session->dataTaskWithRequest(getRequest(server_.url("/bag")));
  ASSERT_TRUE(task);
  (*task)->setTaskDescription("Task_of_nobody");
  const auto delegate = urlSessions_.delegates.back().lock();
  delegate->didReceiveData(*session, **task, "abc");
  delegate->didCompleteWithError(*session, **task, std::nullopt, Error{"d", 1, "text"});
  crank();
  const std::string where = "<session>:<task> <" + helperID() + ">:<Task_of_nobody>";
  EXPECT_EQ(count("didReceiveData: received 3 bytes for " + where), 1);
  EXPECT_EQ(count("didCompleteWithError: for " + where + " with response (null), error text"), 1);
}

TEST_F(RequestsTest, CompletionMayAskForTheNextRequest) {
  server_.answer("/bag", {.body = "content"});
  makeActive(kGETMode);
  const auto second = outcome();
  helper_->getURLRequestWithCompletionHandler(
      getRequest(server_.url("/bag")), [helper = helper_, url = server_.url("/bag"),
                                        completion = std::make_shared<ConnectivityCompletion>(
                                            completionFor(second))](auto, const auto&, const auto&) {
        helper->getURLRequestWithCompletionHandler(getRequest(url), std::move(*completion));
      });
  ASSERT_TRUE(finished(second));
  EXPECT_EQ(second->data, "content");
}

}  // namespace
}  // namespace zun
