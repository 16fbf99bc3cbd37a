// From arguments as they come over the wire to operations, and back to replies.

#include "RecordingReply.h"
#include "SessionTest.h"
#include "session/ClientSessionObject.h"
#include "session/ClientSessionReplyInterface.h"
#include "util/MemoryUse.h"

namespace zun {
namespace {

std::string signature(std::span<const ServiceArgument> arguments) {
  std::string types;
  for (const ServiceArgument& argument : arguments) types += argument.type;
  return types;
}

class ClientSessionObjectTest : public SessionTest {
 protected:
  ClientSessionObjectTest() { object_ = makeClientSessionObject(session_); }
  void TearDown() override {
    object_.reset();
    SessionTest::TearDown();
  }

  static size_t memberIndex(std::string_view name) {
    const auto members = clientSessionInterface().members;
    for (size_t i = 0; i < members.size(); ++i) {
      if (members[i].name == name) return i;
    }
    ADD_FAILURE() << "no member " << name;
    return members.size();
  }
  RecordingReply begin(std::string_view member, const Array& arguments = {}) {
    RecordingReply recording;
    object_->handleCall(memberIndex(member), arguments, recording.reply());
    return recording;
  }
  std::string call(std::string_view member, const Array& arguments = {}) {
    return begin(member, arguments).description();
  }
  std::string configure(const Dictionary& info = sessionInfo(7)) {
    return call("setSessionInfo", {info, just(userInfo("C", "S")), Array{"framework"}, true});
  }

  std::shared_ptr<ExportedObject> object_;
};

TEST(ClientSessionInterfaceTest, MembersHaveTheirNamesAndSignatures) {
  const ServiceInterface& interface = clientSessionInterface();
  EXPECT_EQ(interface.objectPath, "/com/vantix/zunreportingd/session");
  EXPECT_EQ(interface.name, "com.vantix.zunreportingd.ClientSessionInterface");
  std::vector<std::string> members;
  for (const ServiceMember& member : interface.members)
    members.push_back(std::string(member.name) + " " + signature(member.in) + " -> " + signature(member.out));
  EXPECT_EQ(members, (std::vector<std::string>{
                         "setSessionInfo a{sv}aa{sv}asb -> ",
                         "startConfigWithCompletionHandler  -> aas",
                         "fetchStatesWithUserInfo aa{sv} -> aas",
                         "fetchDisplayURL  -> s",
                         "sendMessageWithDictionary a{sv} -> as",
                         "flushMessagesWithCompletion  -> asa(sis)",
                         "finishSessionGracefully  -> ",
                         "uploadFileAtPath say -> b",
                         "uploadLogData av -> ba(sis)",
                         "sendMessageWithSessionInfo a{sv}aa{sv}qqaa{sv} -> s",
                         "updateSharedDataWithDictionary a{sv} -> ",
                         "updateSharedDataForKey sav -> ",
                         "setDigestKey ayi -> ",
                     }));
}

TEST(ClientSessionInterfaceTest, ClientsExportOneOperation) {
  const ServiceInterface& interface = clientSessionReplyInterface();
  EXPECT_EQ(interface.objectPath, "/com/vantix/zunreportingd/client");
  EXPECT_EQ(interface.name, "com.vantix.zunreportingd.ClientSessionReplyInterface");
  ASSERT_EQ(interface.members.size(), 1U);
  EXPECT_EQ(interface.members[0].name, "sendMessageToClient");
  EXPECT_EQ(signature(interface.members[0].in), "aa{sv}dqqaa{sv}");
  EXPECT_EQ(signature(interface.members[0].out), "");
}

TEST_F(ClientSessionObjectTest, OperationsWithoutResultGetAnEmptyReply) {
  EXPECT_EQ(configure(sessionInfo(7, inHierarchy("token", 0))), "return ()");
  EXPECT_EQ(call("finishSessionGracefully"), "return ()");
  EXPECT_EQ(call("updateSharedDataWithDictionary", {Dictionary{{"a", 1}, {"b", 2}}}), "return ()");
  EXPECT_EQ(call("updateSharedDataForKey", {"c", just(3)}), "return ()");
  EXPECT_EQ(call("updateSharedDataForKey", {"a", nothing()}), "return ()");
  EXPECT_EQ(call("setDigestKey", {Value::data("key"), 0}), "return ()");

  EXPECT_EQ(session_->sessionID(), 7U);
  EXPECT_EQ(session_->userInfo(), userInfo("C", "S"));
  EXPECT_TRUE(session_->hasAggregator());
  EXPECT_EQ(agent_.sharedData().at("token"), (Dictionary{{"b", 2}, {"c", 3}}));
}

/// A reply that looks at something when it is given.
class LookingReply final : public ServiceReply::Sink {
 public:
  explicit LookingReply(std::function<void()> look) : look_(std::move(look)) {}
  void sendReturn(const Array&, const Array*) override { look_(); }
  void sendError(std::string_view name, std::string_view) override { ADD_FAILURE() << name; }

 private:
  const std::function<void()> look_;
};

// What another client asks for after the answer has it already.
TEST_F(ClientSessionObjectTest, OperationsWithoutResultAreAnsweredOnceTheyAreDone) {
  int answers = 0;
  const auto expectAtAnswer = [this, &answers](std::string_view member, const Array& arguments,
                                               const std::function<void()>& look) {
    object_->handleCall(memberIndex(member), arguments,
                        ServiceReply(std::make_unique<LookingReply>([&answers, look] {
                          ++answers;
                          look();
                        })));
  };
  expectAtAnswer(
      "setSessionInfo",
      {sessionInfo(7, inHierarchy("token", 0)), just(userInfo("C", "S")), Array{"framework"}, true}, [this] {
        EXPECT_EQ(session_->sessionID(), 7U);
        EXPECT_TRUE(session_->hasAggregator());
      });
  expectAtAnswer("updateSharedDataWithDictionary", {Dictionary{{"a", 1}}}, [this] {
    EXPECT_EQ(agent_.sharedData()["token"], (Dictionary{{"a", 1}}));
  });
  expectAtAnswer("updateSharedDataForKey", {"b", just(2)}, [this] {
    EXPECT_EQ(agent_.sharedData()["token"], (Dictionary{{"a", 1}, {"b", 2}}));
  });
  expectAtAnswer("finishSessionGracefully", {}, [this] {
    expectDebugLine("finishSessionGracefully: Session 7 has been finished gracefully");
  });
  EXPECT_EQ(answers, 4);
}

/// Blocks that were asked for alike differ by 16 bytes now and then.
constexpr double kSlackOfTheAllocator = 160;

/// An error of so many bytes too many, and its line.
struct RefusedDescription {
  RefusedDescription(std::string_view operation, size_t bytes)
      : text(fmt::format("Session and user information, frameworks and digest key may take 65536 bytes in "
                         "memory, these would take {}",
                         bytes)),
        line(fmt::format("{}: What describes session 7 would take {} bytes, 65536 are allowed", operation,
                         bytes)) {}

  const std::string text;
  const std::string line;
};

TEST_F(ClientSessionObjectTest, DescriptionBeyondItsBoundIsRefusedAndTheFormerOneStays) {
  const Dictionary info = sessionInfo(7, {{"note", "kept"}});
  configure(info);
  call("setDigestKey", {Value::data("key"), 0});
  const size_t kept = allocatedBytes(info) + allocatedBytes(userInfo("C", "S")) +
                      allocatedBytes(Array{"framework"}) + std::string_view("key").size();
  const Value large = std::string(70'000, 'x');
  const auto grownBy = [](const Value& before, const Value& after) {
    return allocatedBytes(after) - allocatedBytes(before);
  };
  const auto expectRefused = [this](std::string_view operation, const Array& arguments, size_t bytes) {
    const auto answer = begin(operation, arguments).answer();
    EXPECT_EQ(answer.error, "org.freedesktop.DBus.Error.LimitsExceeded");
    const size_t told = std::stoul(answer.errorText.substr(answer.errorText.rfind(' ') + 1));
    EXPECT_NEAR(static_cast<double>(told), static_cast<double>(bytes), kSlackOfTheAllocator);
    const RefusedDescription expected(operation, told);
    EXPECT_EQ(answer.errorText, expected.text);
    expectErrors({expected.line});
    EXPECT_EQ(session_->sessionInfo()["note"], Value("kept"));
    EXPECT_EQ(session_->userInfo(), userInfo("C", "S"));
    EXPECT_TRUE(session_->hasAggregator());
  };
  const Dictionary largeInfo = sessionInfo(8, {{"note", large}});
  const Dictionary largeUser = {{"note", large}};
  const Value user = userInfo("C", "S");
  expectRefused("setSessionInfo", {largeInfo, just(user), Array{"framework"}, false},
                kept + grownBy(info, largeInfo));
  expectRefused("setSessionInfo", {info, just(largeUser), Array{"framework"}, false},
                kept + grownBy(user, largeUser));
  expectRefused("setSessionInfo", {info, just(user), Array{large}, false},
                kept + grownBy(Array{"framework"}, Array{large}));
  expectRefused("fetchStatesWithUserInfo", {just(largeUser)}, kept + grownBy(user, largeUser));
  expectRefused("sendMessageWithSessionInfo", {largeInfo, just(user), 1, 2, nothing()},
                kept + grownBy(info, largeInfo));
  expectRefused("setDigestKey", {Value::data(std::string(70'000, 'k')), 0}, kept - 3 + 70'000);
}

// Each by itself would do.
TEST_F(ClientSessionObjectTest, AllOfADescriptionCountsTogether) {
  const auto quarter = [](char letter) { return Value(std::string(17'000, letter)); };
  const Dictionary info = sessionInfo(7, {{"note", quarter('a')}});
  const Dictionary user = {{"note", quarter('b')}};
  call("setDigestKey", {Value::data(std::string(17'000, 'c')), 0});
  EXPECT_EQ(call("setSessionInfo", {info, just(user), Array{}, false}), "return ()");
  EXPECT_TRUE(call("setSessionInfo", {info, just(user), Array{quarter('d')}, false}).starts_with("error "));
  EXPECT_EQ(call("setSessionInfo", {info, nothing(), Array{quarter('d')}, false}), "return ()");
  EXPECT_TRUE(call("fetchStatesWithUserInfo", {just(user)}).starts_with("error "));
  EXPECT_EQ(call("setDigestKey", {Value::data("c"), 0}), "return ()");
  EXPECT_EQ(call("fetchStatesWithUserInfo", {just(user)}), "return (())");
  EXPECT_EQ(platform_.log.takeErrors().size(), 2U);
}

// It stays where a message gives none, and where there is no storebag to send it by.
TEST_F(ClientSessionObjectTest, FormerUserInformationCountsWithTheSessionInformationOfASingleMessage) {
  const auto half = [](char letter) { return Value(std::string(40'000, letter)); };
  const Dictionary user = {{"note", half('a')}};
  EXPECT_EQ(call("setSessionInfo", {sessionInfo(7), just(user), Array{}, false}), "return ()");
  const Dictionary large = sessionInfo(7, {{"note", half('b')}});
  for (const Value& other : {nothing(), just(userInfo("C", "S"))}) {
    EXPECT_TRUE(call("sendMessageWithSessionInfo", {large, other, 1, 2, nothing()}).starts_with("error "));
    EXPECT_EQ(session_->sessionInfo(), sessionInfo(7));
    EXPECT_EQ(session_->userInfo(), user);
  }
  EXPECT_EQ(platform_.log.takeErrors().size(), 2U);
}

TEST_F(ClientSessionObjectTest, OptionalDictionariesAreArraysOfNoOrOneElement) {
  EXPECT_EQ(call("setSessionInfo", {sessionInfo(7), nothing(), Array{}, false}), "return ()");
  EXPECT_EQ(session_->userInfo(), std::nullopt);
  call("setSessionInfo", {sessionInfo(7), just(Dictionary{}), Array{}, false});
  EXPECT_EQ(session_->userInfo(), Dictionary{});
}

TEST_F(ClientSessionObjectTest, StatesAreNilWithoutStorebagAndAListWithOne) {
  configure();
  EXPECT_EQ(call("startConfigWithCompletionHandler"), "return (())");
  agent_.storebag = Dictionary{{"a", Dictionary{}}, {"b", Dictionary{{"state", 3}}}};
  EXPECT_EQ(call("startConfigWithCompletionHandler"), "return (((\"a\", \"b\")))");
  agent_.storebag = Dictionary{{"a", Dictionary{{"state", 1}}}};
  EXPECT_EQ(call("startConfigWithCompletionHandler"), "return ((()))");
  EXPECT_EQ(call("fetchStatesWithUserInfo", {just(userInfo("D", "S"))}), "return ((()))");
  EXPECT_EQ(session_->userInfo(), userInfo("D", "S"));
  EXPECT_EQ(call("fetchStatesWithUserInfo", {nothing()}), "return ((()))");
}

TEST_F(ClientSessionObjectTest, DisplayURLIsAString) {
  EXPECT_EQ(call("fetchDisplayURL"), "return (\"URL not available\")");
}

TEST_F(ClientSessionObjectTest, ResponseToAMessageIsOptional) {
  configure();
  EXPECT_EQ(call("sendMessageWithDictionary", {message(1, 2)}), "return (())");
  agent_.storebag = Dictionary{{"httpPost", Dictionary{{"response", "text"}}}};
  begin("startConfigWithCompletionHandler");
  EXPECT_EQ(call("sendMessageWithDictionary", {message(1, 2)}), "return ((\"text\"))");
}

TEST_F(ClientSessionObjectTest, FlushAnswersResultAndError) {
  EXPECT_EQ(
      call("flushMessagesWithCompletion"),
      "return ((), ((\"com.vantix.zunreporting.error\", -1, \"No backends available to send message\")))");
  configure();
  agent_.storebag = Dictionary{{"a", Dictionary{{"flushResult", "text"}}}};
  begin("startConfigWithCompletionHandler");
  EXPECT_EQ(call("flushMessagesWithCompletion"), "return ((\"text\"), ())");
}

// A text that cannot be told is no failure of what was posted.
TEST_F(ClientSessionObjectTest, TextsOfWhatWasSentMayBeLeftOutAndErrorsNot) {
  configure();
  EXPECT_EQ(begin("sendMessageWithDictionary", {message(1, 2)}).shorter(), "nothing");
  agent_.storebag = Dictionary{{"httpPost", Dictionary{{"response", "text"}, {"flush", "later"}}}};
  begin("startConfigWithCompletionHandler");
  EXPECT_EQ(begin("sendMessageWithDictionary", {message(1, 2)}).shorter(), "return (())");
  const RecordingReply flush = begin("flushMessagesWithCompletion");
  backend("httpPost").heldFlushes.at(0)("text", Error{"domain", 503, "unavailable"});
  EXPECT_EQ(flush.shorter(), "return ((), ((\"domain\", 503, \"unavailable\")))");
}

TEST_F(ClientSessionObjectTest, FlushMayAnswerAfterLaterCallsHaveBeenAnswered) {
  configure();
  agent_.storebag = Dictionary{{"a", Dictionary{{"flush", "later"}}}};
  begin("startConfigWithCompletionHandler");
  const RecordingReply flush = begin("flushMessagesWithCompletion");
  EXPECT_EQ(call("sendMessageWithDictionary", {message(1, 2)}), "return (())");
  EXPECT_EQ(flush.description(), "nothing");
  backend("a").heldFlushes.at(0)("done", std::nullopt);
  EXPECT_EQ(flush.description(), "return ((\"done\"), ())");
}

TEST_F(ClientSessionObjectTest, FlushThatNobodyWillEverCompleteAnswersNoReply) {
  configure();
  agent_.storebag = Dictionary{{"a", Dictionary{{"flush", "dropped"}}}};
  begin("startConfigWithCompletionHandler");
  EXPECT_EQ(call("flushMessagesWithCompletion"), "error com.vantix.zunreportingd.Error.NoReply");
}

TEST_F(ClientSessionObjectTest, UploadsAnswerWhetherTheySucceeded) {
  configure();
  agent_.storebag = Dictionary{{"a", Dictionary{{"uploads", true}}}};
  begin("startConfigWithCompletionHandler");
  const Array file = {"file:///tmp/file", Value::data(std::string_view("to\0ken", 6))};
  EXPECT_EQ(call("uploadFileAtPath", file), "return (true)");
  EXPECT_EQ(backend("a").tokens.at(0).bytes, std::string("to\0ken", 6));
  EXPECT_EQ(call("uploadLogData", {Value(Array{"line"})}), "return (true, ())");
  agent_.storebag = Dictionary{{"a", Dictionary{}}};
  begin("startConfigWithCompletionHandler");
  EXPECT_EQ(call("uploadFileAtPath", file), "return (false)");
  EXPECT_EQ(call("uploadLogData", {Value(Array{})}), "return (false, ())");
  expectErrors(
      {"uploadFileWithURL: File upload failed for /tmp/file", "uploadLogData: Log data array upload failed"});
}

TEST_F(ClientSessionObjectTest, SingleMessageAnswersItsStatus) {
  const Array arguments = {sessionInfo(9), just(userInfo("C", "S")), 5, 65535, just(Dictionary{{"key", 1}})};
  EXPECT_EQ(call("sendMessageWithSessionInfo", arguments), "return (\"storebag not available\")");
  agent_.storebag = Dictionary{{"a", Dictionary{}}};
  EXPECT_EQ(call("sendMessageWithSessionInfo", arguments), "return (\"finished\")");
  EXPECT_EQ(backend("a").sent.at(0).respCode, 65535);
  EXPECT_EQ(backend("a").sent.at(0).message, (Dictionary{{"key", 1}}));
  EXPECT_EQ(call("sendMessageWithSessionInfo", {Dictionary{}, nothing(), 5, 6, nothing()}),
            "return (\"Could not retrieve identifiers from sessionInfo\")");
  expectErrors({"sendMessageWithSessionInfo: Could not retrieve identifiers from sessionInfo"});
}

TEST_F(ClientSessionObjectTest, DigestKeyIsRawBytes) {
  configure();
  agent_.storebag = Dictionary{{"qrs", Dictionary{}}};
  begin("startConfigWithCompletionHandler");
  call("setDigestKey", {Value::data(std::string_view("\0\xff", 2)), -5});
  EXPECT_EQ(backend("qrs").digestKey(), std::string("\0\xff", 2));
  EXPECT_EQ(backend("qrs").digestAlgorithm(), -5);
}

TEST_F(ClientSessionObjectTest, StringsWhereNumbersBelongAreReadAsNumbers) {
  agent_.storebag = Dictionary{{"a", Dictionary{}}};
  configure({{kZunReportingSessionInfoSessionID, "12x"},
             {kZunReportingSessionInfoClientType, "6"},
             {kZunReportingSessionInfoClientVersion, "v1"},
             {kZunReportingSessionInfoRequireUserInfo, "yes"},
             {kZunReportingSessionInfoBatchEvent, Array{1}},
             {kZunReportingSessionInfoHierarchyToken, "token"}});
  begin("startConfigWithCompletionHandler");
  EXPECT_EQ(session_->sessionID(), 12U);
  EXPECT_EQ(backend("a").compType(), 6);
  EXPECT_EQ(backend("a").clientVersion(), 0);
  EXPECT_TRUE(backend("a").requireUserInfo());
  EXPECT_FALSE(backend("a").batchEvents());
  call("sendMessageWithDictionary", {Dictionary{{kZunReportingMessageParametersCategory, Array{1}},
                                                {kZunReportingMessageParametersType, Dictionary{}},
                                                {kZunReportingMessageParametersFlag, "2"},
                                                {kZunReportingMessageParametersPayload, 3.5}}});
  EXPECT_EQ(backend("a").sent.at(1).method, 0);
  EXPECT_EQ(backend("a").sent.at(1).respCode, 0);
  EXPECT_EQ(backend("a").sent.at(1).flag, 2);
  EXPECT_EQ(backend("a").sent.at(1).message, Dictionary{});
}

TEST_F(ClientSessionObjectTest, UserInfoOfOtherTypesNamesNobody) {
  call("setSessionInfo",
       {sessionInfo(7),
        just(Dictionary{{kZunReportingUserInfoClientName, 5}, {kZunReportingUserInfoServiceName, Array{}}}),
        Array{}, false});
  call("fetchStatesWithUserInfo", {just(Dictionary{{kZunReportingUserInfoClientName, 5}})});
  expectDebugLine("receivedUserInfo: Received new user info for session 7");
}

TEST_F(ClientSessionObjectTest, CallOfNoMemberAnswersNoReply) {
  RecordingReply recording;
  object_->handleCall(clientSessionInterface().members.size(), {}, recording.reply());
  EXPECT_EQ(recording.description(), "error com.vantix.zunreportingd.Error.NoReply");
}

TEST_F(ClientSessionObjectTest, ObjectKeepsItsSession) {
  const std::weak_ptr<ReportingdSession> weak = session_;
  session_.reset();
  EXPECT_FALSE(weak.expired());
  EXPECT_EQ(call("fetchDisplayURL"), "return (\"URL not available\")");
  object_.reset();
  EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace zun
