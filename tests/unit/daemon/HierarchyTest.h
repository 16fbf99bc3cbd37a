#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "daemon/ReportingdAgent.h"
#include "support/FakeConnection.h"
#include "support/TestPlatform.h"
#include "zunreporting/Keys.h"

namespace zun {

/// A storebag server that has the same section for every client type.
class OneStorebagFetcher final : public StorebagFetcher {
 public:
  StorebagFetchOutcome fetchStorebagForEnvironmentAndClientType(int32_t) override {
    return {.section = section, .maxAgeSeconds = 3600, .version = "1.0"};
  }
  void outcomeNoted(std::string_view /*name*/, const StorebagFetchOutcome& /*outcome*/) override {}
  void cancelFetches() override {}
  std::optional<Date> modificationDateOfStorebagFile(std::string_view) const override { return std::nullopt; }

  /// One backend, which keeps events while it waits for user information.
  Dictionary section = {{"httpPost", Dictionary{{"clients", Array{Dictionary{}}}}}};
};

/// The real agent, and real sessions whose clients the test plays.
class HierarchyTest : public PlatformTest {
 protected:
  struct Client {
    std::shared_ptr<FakeConnection> connection;
    std::shared_ptr<ReportingdSession> session;

    ReportingdSession* operator->() const { return session.get(); }
    [[nodiscard]] std::string id() const { return session->sessionIDString(); }
  };
  enum class Aggregates : bool { kNo, kYes };

  /// A client that is connected, without a word said.
  Client connect(BudgetHolder program = {}) {
    Client client{std::make_shared<FakeConnection>(std::map<std::string, bool>{}), nullptr};
    client.connection->program = program;
    client.session = agent_->createReportingSessionWithDelegate(agent_, client.connection);
    return client;
  }
  /// A client that has said who it is.
  Client join(uint32_t number, const std::string& token, int64_t level, Aggregates how = Aggregates::kNo,
              BudgetHolder program = {}) {
    Client client = connect(program);
    configure(client, number, token, level, how);
    return client;
  }
  /// A client that also reports: it has sent its start message.
  Client start(uint32_t number, const std::string& token, int64_t level, Aggregates how = Aggregates::kNo) {
    Client client = join(number, token, level, how);
    client->startConfigWithCompletionHandler(nullptr);
    return client;
  }
  static void configure(const Client& client, uint32_t number, const std::string& token, int64_t level,
                        Aggregates how = Aggregates::kNo) {
    client->setSessionInfo(info(number, token, level), std::nullopt, {}, how == Aggregates::kYes);
  }
  void end(Client& client) {
    agent_->invalidateReportingSession(client.session);
    client.session.reset();
  }
  template <typename... Clients>
  void end(Client& first, Clients&... others) {
    end(first);
    (end(others), ...);
  }

  /// Without a token for an empty one.
  static Dictionary info(uint32_t number, const std::string& token, int64_t level) {
    using namespace zunreporting;
    Dictionary info = {{kZunReportingSessionInfoSessionID, number},
                       {kZunReportingSessionInfoClientType, 7},
                       {kZunReportingSessionInfoRequireUserInfo, true}};
    if (!token.empty()) {
      info.set(kZunReportingSessionInfoHierarchyToken, Dictionary{{kZunReportingHierarchyTokenTokenID, token},
                                                                  {kZunReportingHierarchyTokenLevel, level}});
    }
    return info;
  }
  static void send(const Client& client, int64_t category) {
    using namespace zunreporting;
    client->sendMessageWithDictionary(
        {{kZunReportingMessageParametersCategory, category}, {kZunReportingMessageParametersType, 1}},
        nullptr);
  }

  /// What a client was sent since the last time: "7:5" for category 5 of session 7, "end"
  /// for the end of aggregation.
  static std::vector<std::string> copies(const Client& client) {
    std::vector<std::string> texts;
    for (const Array& call : client.connection->takeRemoteCalls()) {
      const Array& about = *call[0].array();
      const std::string whose =
          about.empty()
              ? "end"
              : (*about[0].dictionary())[zunreporting::kZunReportingSessionInfoSessionID].description();
      texts.push_back(about.empty() ? whose : whose + ":" + call[2].description());
    }
    return texts;
  }
  using Copies = std::vector<std::string>;

  DeviceIdentity identity_{platform_.services};
  MessageLog messageLog_{platform_.services};
  ReportingServices services_{platform_.services, identity_, messageLog_};
  OneStorebagFetcher fetcher_;
  std::shared_ptr<ReportingdAgent> agent_ = ReportingdAgent::create(services_, fetcher_);
};

}  // namespace zun
