#pragma once

#include <algorithm>
#include <memory>
#include <string>

#include "StorebagFixture.h"
#include "storebag/NetworkStorebagFetcher.h"

namespace zun {

inline constexpr int32_t kTessel = 5;
inline constexpr int32_t kConfero = 7;
inline constexpr const char* kLastModified = "Tue, 14 Nov 2023 10:00:00 GMT";
inline constexpr const char* kMissingSignature = "fetchStorebagWithName: Signature is missing";

inline std::string notFetched(int32_t clientType) {
  return fmt::format("fetchStorebagForEnvironmentAndClientType: Could not fetch storebag for client type {}",
                     clientType);
}

/// A fetcher, and a server that it asks.
class NetworkStorebagFetcherTest : public StorebagTest {
 protected:
  NetworkStorebagFetcherTest() {
    setDefault("zunreporting_storebag_url", server_.url(""));
    fetcher_ = NetworkStorebagFetcher::create(platform_.services, identity_,
                                              {.requestTimeout = std::chrono::seconds(2)});
  }

  // Requests still under way use the platform, which goes next.
  void TearDown() override {
    fetcher_.reset();
    server_.stop();
    waitFor([this] {
      return countDebugLines("fetchNetworkStorebag: Storebag Server URL: ", "") == countEndedRequests();
    });
    StorebagTest::TearDown();
  }

  int countDebugLines(std::string_view start, std::string_view end) const {
    const auto lines = platform_.log.linesOf(LogLevel::kDebug);
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [start, end](const std::string& line) {
      return line.starts_with(start) && line.ends_with(end);
    }));
  }
  int countEndedRequests() const { return countDebugLines("ConnectivityHelperTask with ID <", "dealloced"); }

  // The server's answer with that storebag, as new as can be.
  static TestAnswer answerWith(const Dictionary& storebag, const std::string& maxAge = "max-age=600") {
    TestAnswer answer;
    answer.body = sealed(storebag);
    answer.headers = {{"Cache-Control", maxAge}, {"Last-Modified", kLastModified}};
    return answer;
  }

  StorebagFetchOutcome fetch(int32_t clientType = kConfero) {
    return fetcher_->fetchStorebagForEnvironmentAndClientType(clientType);
  }

  static std::string environmentOf(const StorebagFetchOutcome& outcome) {
    if (!outcome.section) return "no section";
    const Dictionary* kodo = (*outcome.section)["kodo"].dictionary();
    return kodo == nullptr ? "no backend" : std::string((*kodo)["env"].stringValue());
  }

  // A cached storebag with what the server once said about it.
  void putFreshness(const std::string& name, int maxAge) {
    setDefault("CACHED_" + name + "_max-age", maxAge);
    setDefault("CACHED_" + name + "_Last-Modified", kLastModified);
  }

  // Waits until the n-th refresh has ended, whatever came of it.
  void waitForEndOfRequests(int count) {
    waitFor([this, count] { return countEndedRequests() >= count; });
  }

  std::string urlOf(const std::string& name) const { return server_.url("/" + name) + "?version=3.2.1"; }

  HTTPSTestServer server_;
  std::shared_ptr<NetworkStorebagFetcher> fetcher_;
};

}  // namespace zun
