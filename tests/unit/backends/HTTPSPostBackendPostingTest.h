#pragma once

#include <future>

#include "BackendTest.h"
#include "connectivity/ReportingSessionConnectivityHelper.h"
#include "platform/Crypto.h"
#include "support/HTTPSTestServer.h"

namespace zun {

using Ending = TestAnswer::Ending;

// Posts go through a real helper and a real URL session to a real server.
class HTTPSPostBackendPostingTest : public BackendTest {
 protected:
  HTTPSPostBackendPostingTest() : BackendTest(HTTPSTestServer::caFile()) {
    server_.answer("/post", {});
    server_.answer("/now", {});
    helper_ = ReportingSessionConnectivityHelper::create(platform_.services, {}, kPOSTMode);
    helper_->activate(0);
  }
  ~HTTPSPostBackendPostingTest() override {
    if (helper_) helper_->invalidate();
  }

  Dictionary postingClient() {
    return with(with(reportingClient(), "post_url", server_.url("/post")), "realtime_post_url",
                server_.url("/now"));
  }
  std::shared_ptr<HTTPSPostBackend> connected(std::shared_ptr<HTTPSPostBackend> backend) {
    backend->setReportingSessionConnectivityDelegate(helper_);
    return backend;
  }
  std::shared_ptr<HTTPSPostBackend> connectedBackend() { return connected(start(postingClient())); }

  struct End {
    std::optional<std::string> result;
    std::optional<Error> error;
  };
  /// A completion that fulfils `promise`; one that is called twice throws into the test.
  static ZunReportingBackend::FlushCompletion fulfil(std::shared_ptr<std::promise<End>> promise) {
    return [promise = std::move(promise)](const std::optional<std::string>& result,
                                          const std::optional<Error>& error) {
      promise->set_value({result, error});
    };
  }
  static End endOf(std::future<End> future) {
    if (future.wait_for(HTTPSTestServer::kDeadline) != std::future_status::ready) {
      ADD_FAILURE() << "the post did not end";
      return {};
    }
    return future.get();
  }
  std::future<End> post(HTTPSPostBackend& backend, std::string json, int32_t flag = 0) {
    auto promise = std::make_shared<std::promise<End>>();
    auto future = promise->get_future();
    backend.postJSONMessage(std::move(json), flag, std::nullopt, std::nullopt, fulfil(std::move(promise)));
    return future;
  }
  std::future<End> flush(HTTPSPostBackend& backend) {
    auto promise = std::make_shared<std::promise<End>>();
    auto future = promise->get_future();
    backend.flushMessagesWithCompletion(fulfil(std::move(promise)));
    return future;
  }
  /// Posts `{}` to `url` and gives how it ended.
  End endOfPostTo(const std::string& url) {
    const auto backend = connectedBackend();
    backend->setPostURL(url);
    return endOf(post(*backend, "{}"));
  }
  void expectOnePostError(const End& end) {
    ASSERT_TRUE(end.error);
    expectErrors({"HTTPSPostBackend(postJsonMessage): post error: " + end.error->description});
    EXPECT_EQ(end.result, std::nullopt);
  }
  TestRequest onlyRequest() {
    EXPECT_TRUE(server_.waitForRequests(1));
    const auto requests = server_.requests();
    if (requests.size() != 1) {
      ADD_FAILURE() << requests.size() << " requests";
      return {};
    }
    return requests[0];
  }
  /// The values of every header of that name.
  static std::vector<std::string> headers(const TestRequest& request, std::string_view name) {
    std::vector<std::string> values;
    for (const auto& [key, value] : request.headers) {
      if (key == name) values.push_back(value);
    }
    return values;
  }
  Dictionary bodyOf(const HTTPSPostBackend& backend, std::vector<Dictionary> records) {
    const auto json = backend.createMessageForPostAndLogging(std::move(records), nullptr);
    const auto body = parseJSON(json.value_or(""));
    return body && body->isDictionary() ? *body->dictionary() : Dictionary();
  }
  static bool givesReadableText(const HTTPSPostBackend& backend) {
    std::optional<std::string> text;
    EXPECT_TRUE(backend.createMessageForPostAndLogging({Dictionary{{"a", 1}}}, &text).has_value());
    return text.has_value();
  }
  std::string storedIdentifier() { return identity_.getPersistentIdentifierForDNU(false); }

  HTTPSTestServer server_;
  std::shared_ptr<ReportingSessionConnectivityHelper> helper_;
};

}  // namespace zun
