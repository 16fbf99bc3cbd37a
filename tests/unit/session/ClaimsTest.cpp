// What an entitled client may say of itself, where its entitlement bounds that.

#include "RecordingReply.h"
#include "SessionTest.h"
#include "session/ClientSessionObject.h"

namespace zun {
namespace {

constexpr const char* kDenied = "error org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* kTaken = "return ()";

class ClaimsTest : public SessionTest {
 protected:
  ClaimsTest() { object_ = makeClientSessionObject(session_); }
  void TearDown() override {
    object_.reset();
    SessionTest::TearDown();
  }

  ClientClaims& claims() { return world_.connection->clientClaims; }
  std::string call(std::string_view member, const Array& arguments = {}) {
    const auto members = clientSessionInterface().members;
    const auto found = std::find_if(members.begin(), members.end(),
                                    [&](const ServiceMember& each) { return each.name == member; });
    RecordingReply recording;
    object_->handleCall(static_cast<size_t>(found - members.begin()), arguments, recording.reply());
    executor_.runAll();
    return recording.description();
  }
  std::string configure(const Dictionary& info, const Value& user = nothing()) {
    return call("setSessionInfo", {info, user, Array(), false});
  }
  std::string sendOne(const Dictionary& info, const Value& user = nothing()) {
    return call("sendMessageWithSessionInfo", {info, user, 1, 2, nothing()});
  }
  static Dictionary ofType(int64_t type) {
    return sessionInfo(7, {{kZunReportingSessionInfoClientType, type}});
  }
  void expectError(const std::string& reason) { expectErrors({"claims: test peer: " + reason}); }

  std::shared_ptr<ExportedObject> object_;
};

TEST_F(ClaimsTest, WithoutBoundsEverythingMayBeClaimed) {
  EXPECT_EQ(configure(ofType(25), just(userInfo("anybody", "S"))), kTaken);
  EXPECT_EQ(configure(sessionInfo(7, inHierarchy("T", 0))), kTaken);
  EXPECT_EQ(agent_.countOfCalls("claimHierarchy T 1000"), 0);
}

TEST_F(ClaimsTest, OnlyItsClientTypesAreTakenAndTheSessionStaysWhatItWas) {
  claims().clientTypes = {{5, 9}};
  EXPECT_EQ(configure(ofType(9)), kTaken);
  EXPECT_EQ(configure(ofType(7)), kDenied);
  expectError("the client may not have client type 7");
  EXPECT_EQ(session_->sessionInfo()[kZunReportingSessionInfoClientType].intValue(), 9);
  EXPECT_EQ(sendOne(ofType(7)), kDenied);  // and no second line
  EXPECT_EQ(session_->sessionInfo()[kZunReportingSessionInfoClientType].intValue(), 9);
  EXPECT_NE(sendOne(ofType(5)), kDenied);
}

// Without session information a session is of type 0, which has a claim as any other.
TEST_F(ClaimsTest, WhoHasNotSaidWhatItIsStartsAsTypeZero) {
  claims().clientTypes = {{5}};
  agent_.storebag = Dictionary();
  EXPECT_EQ(call("startConfigWithCompletionHandler"), kDenied);
  expectError("the client may not have client type 0");
  EXPECT_EQ(agent_.countOfCalls("storebagForSession"), 0);
  EXPECT_EQ(configure(Dictionary()), kDenied);
  EXPECT_EQ(configure(ofType(5)), kTaken);
  EXPECT_NE(call("startConfigWithCompletionHandler"), kDenied);
}

TEST_F(ClaimsTest, OnlyItsClientNamesAreTaken) {
  claims().clientNames = {{"camera", "Client"}};
  EXPECT_EQ(configure(ofType(5), just(userInfo("camera", "S"))), kTaken);
  EXPECT_EQ(configure(ofType(5)), kTaken);  // nobody is no name
  EXPECT_EQ(configure(ofType(5), just(userInfo("mail", "S"))), kDenied);
  expectError("the client may not be named 'mail'");
  EXPECT_EQ(session_->userInfo(), std::nullopt);
  EXPECT_EQ(call("fetchStatesWithUserInfo", {just(userInfo("mail", "S"))}), kDenied);
  EXPECT_EQ(call("fetchStatesWithUserInfo", {just(Dictionary{{kZunReportingUserInfoServiceName, "S"}})}),
            kDenied);
  EXPECT_EQ(session_->userInfo(), std::nullopt);
  EXPECT_EQ(sendOne(ofType(5), just(userInfo("mail", "S"))), kDenied);
  EXPECT_NE(call("fetchStatesWithUserInfo", {just(userInfo("Client", "S"))}), kDenied);
}

TEST_F(ClaimsTest, OnlyHierarchiesOfItsUserAreJoined) {
  claims().onlyOwnHierarchies = true;
  EXPECT_EQ(configure(ofType(5)), kTaken);
  EXPECT_EQ(configure(sessionInfo(7, inHierarchy("T", 0))), kTaken);
  EXPECT_EQ(agent_.countOfCalls("claimHierarchy T 1000"), 1);
  agent_.mayJoin = false;
  EXPECT_EQ(configure(sessionInfo(7, inHierarchy("U", 0))), kDenied);
  expectError("the client may not join a hierarchy of other users");
  EXPECT_EQ(session_->hierarchyToken(), "T");
  EXPECT_EQ(sendOne(sessionInfo(7, inHierarchy("U", 0))), kDenied);
  EXPECT_EQ(session_->hierarchyToken(), "T");
  // It need not leave the hierarchy in which it is.
  EXPECT_NE(call("fetchStatesWithUserInfo", {just(userInfo("Client", "S"))}), kDenied);
}

}  // namespace
}  // namespace zun
