#include "zunreporting/ReportingSession.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "ScriptedDaemon.h"
#include "linux/files/FileDescriptor.h"

namespace zunreporting {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::unique_ptr<ReportingSession> sessionWith(const ScriptedDaemon& daemon) {
  auto connected = ReportingSession::connect(daemon.address());
  EXPECT_TRUE(connected) << connected.error;
  return connected ? std::move(*connected.value) : nullptr;
}

bool isCallOf(sd_bus_message* call, const char* member) {
  return std::string_view(sd_bus_message_get_member(call)) == member;
}

/// Answers every call with what its member is to answer.
int answerWell(sd_bus_message* call) {
  static const std::map<std::string, std::function<int(sd_bus_message*)>> kAnswers = {
      {"startConfigWithCompletionHandler",
       [](auto* c) { return sd_bus_reply_method_return(c, "aas", 1, 1, "post2"); }},
      {"fetchStatesWithUserInfo", [](auto* c) { return sd_bus_reply_method_return(c, "aas", 0); }},
      {"fetchDisplayURL", [](auto* c) { return sd_bus_reply_method_return(c, "s", "https://show.example"); }},
      {"sendMessageWithDictionary", [](auto* c) { return sd_bus_reply_method_return(c, "as", 1, "sent"); }},
      {"flushMessagesWithCompletion",
       [](auto* c) { return sd_bus_reply_method_return(c, "asa(sis)", 1, "flushed", 0); }},
      {"uploadFileAtPath", [](auto* c) { return sd_bus_reply_method_return(c, "b", 1); }},
      {"uploadLogData", [](auto* c) { return sd_bus_reply_method_return(c, "ba(sis)", 1, 0); }},
      {"sendMessageWithSessionInfo", [](auto* c) { return sd_bus_reply_method_return(c, "s", "finished"); }},
      {"issueExtension", [](auto* c) { return sd_bus_reply_method_return(c, "ay", 3, 0x01, 0x00, 0xFF); }}};
  const auto answer = kAnswers.find(sd_bus_message_get_member(call));
  if (answer != kAnswers.end()) return answer->second(call);
  return sd_bus_reply_method_return(call, nullptr);
}

std::string nameOf(sd_bus_message* call) {
  return std::string(sd_bus_message_get_member(call)) + "(" + sd_bus_message_get_signature(call, 1) + ")";
}

TEST(ReportingSessionTest, EveryOperationCallsItsMemberWithItsSignatureAndGivesItsAnswer) {
  std::vector<std::string> calls;
  const ScriptedDaemon daemon([&](sd_bus_message* call) {
    calls.push_back(nameOf(call));
    return answerWell(call);
  });
  {
    const auto session = sessionWith(daemon);
    const SessionInfo info{.sessionID = 1, .clientType = 7, .hierarchyToken = "t"};
    const UserInfo user{"name", "service"};
    EXPECT_TRUE(session->setSessionInfo(info, user, {}, {"framework"}));
    EXPECT_THAT(**session->startConfig().value, ElementsAre("post2"));
    EXPECT_FALSE(session->fetchStates(user).value->has_value());
    EXPECT_EQ(session->fetchDisplayURL().value, "https://show.example");
    EXPECT_EQ(session->sendMessage({.category = 2, .type = 3}).value, "sent");
    EXPECT_EQ(session->flushMessages().value, "flushed");
    EXPECT_TRUE(*session->uploadLogData({"record", 2}).value);
    EXPECT_EQ(session->sendMessageWithSessionInfo(info, user, {.category = 2, .type = 3}).value, "finished");
    EXPECT_TRUE(session->updateSharedData({{"key", 1.5}}));
    EXPECT_TRUE(session->updateSharedDataForKey("key", PropertyValue("value")));
    EXPECT_TRUE(session->setDigestKey(std::string_view("a\0b", 3), 1));
    EXPECT_TRUE(session->finishSessionGracefully());
  }
  EXPECT_THAT(calls, ElementsAre("setSessionInfo(a{sv}aa{sv}asb)", "startConfigWithCompletionHandler()",
                                 "fetchStatesWithUserInfo(aa{sv})", "fetchDisplayURL()",
                                 "sendMessageWithDictionary(a{sv})", "flushMessagesWithCompletion()",
                                 "uploadLogData(av)", "sendMessageWithSessionInfo(a{sv}aa{sv}qqaa{sv})",
                                 "updateSharedDataWithDictionary(a{sv})", "updateSharedDataForKey(sav)",
                                 "setDigestKey(ayi)", "finishSessionGracefully()"));
}

TEST(ReportingSessionTest, AnswersMayBeMuchLargerThanWhatMayBeSent) {
  const std::string longest(size_t{32} << 20, 'x');
  const ScriptedDaemon daemon([&](sd_bus_message* call) {
    if (isCallOf(call, "flushMessagesWithCompletion")) {
      return sd_bus_reply_method_return(call, "asa(sis)", 1, longest.c_str(), 0);
    }
    return sd_bus_reply_method_return(call, "as", 1, longest.c_str());
  });
  const auto session = sessionWith(daemon);
  EXPECT_TRUE(session->flushMessages().value == longest);
  EXPECT_TRUE(session->sendMessage({.category = 2, .type = 3}).value == longest);
}

TEST(ReportingSessionTest, FileIsProvenByItsDescriptorAndNamedByItsURL) {
  const zun::ScratchFolder folder;
  const std::string path = folder.path("a log.txt");
  std::ofstream(path) << "content";
  struct stat expected {};
  ASSERT_EQ(stat(path.c_str(), &expected), 0);
  struct stat passed {};
  std::string url;
  std::string token;
  const ScriptedDaemon daemon([&](sd_bus_message* call) {
    if (isCallOf(call, "issueExtension")) {
      int descriptor = -1;
      sd_bus_message_read(call, "h", &descriptor);
      fstat(descriptor, &passed);
    } else if (isCallOf(call, "uploadFileAtPath")) {
      const char* text = nullptr;
      const void* bytes = nullptr;
      size_t size = 0;
      sd_bus_message_read(call, "s", &text);
      sd_bus_message_read_array(call, 'y', &bytes, &size);
      url = text;
      token.assign(static_cast<const char*>(bytes), size);
    }
    return answerWell(call);
  });
  {
    const auto session = sessionWith(daemon);
    const auto uploaded = session->uploadFile(path);
    ASSERT_TRUE(uploaded) << uploaded.error;
    EXPECT_TRUE(*uploaded.value);
  }
  EXPECT_EQ(passed.st_ino, expected.st_ino);
  EXPECT_EQ(passed.st_dev, expected.st_dev);
  EXPECT_EQ(url, "file://" + folder.path("a%20log.txt"));
  EXPECT_EQ(token, std::string("\x01\x00\xFF", 3));
}

TEST(ReportingSessionTest, WhatIsNoRegularFileIsRefusedWithoutACall) {
  int calls = 0;
  const ScriptedDaemon daemon([&](sd_bus_message* call) {
    ++calls;
    return answerWell(call);
  });
  const zun::ScratchFolder folder;
  std::ofstream(folder.path("file")) << "content";
  std::filesystem::create_symlink(folder.path("file"), folder.path("link"));
  ASSERT_EQ(mkfifo(folder.path("fifo").c_str(), 0600), 0);
  {
    const auto session = sessionWith(daemon);
    const auto errorOf = [&](const std::string& path) {
      const auto outcome = session->uploadFile(path);
      EXPECT_EQ(outcome.failure, Failure::kArgument);
      return outcome.error;
    };
    EXPECT_EQ(errorOf(folder.path("missing")), folder.path("missing") + ": No such file or directory");
    EXPECT_EQ(errorOf(folder.path("link")), folder.path("link") + ": a symbolic link, which is not followed");
    EXPECT_EQ(errorOf(folder.path("fifo")), folder.path("fifo") + ": not a regular file");
    EXPECT_EQ(errorOf(folder.path("")), folder.path("") + ": not a regular file");
    EXPECT_EQ(errorOf("/dev/null"), "/dev/null: not a regular file");
    EXPECT_EQ(errorOf(""), ": No such file or directory");
    EXPECT_THAT(errorOf(std::string("/a\0b", 4)), HasSubstr("not a path"));
    EXPECT_EQ(errorOf(std::string(5000, 'x')), std::string(5000, 'x') + ": File name too long");
  }
  EXPECT_EQ(calls, 0);
}

TEST(ReportingSessionTest, TextWithANULIsRefusedAndTheSessionGoesOn) {
  const ScriptedDaemon daemon(answerWell);
  const auto session = sessionWith(daemon);
  const std::string text("a\0b", 3);
  EXPECT_EQ(session->updateSharedDataForKey(text, std::nullopt).failure, Failure::kArgument);
  EXPECT_EQ(session->updateSharedData({{"key", text}}).failure, Failure::kArgument);
  EXPECT_EQ(session->updateSharedData({{"key", PropertyArray{"\xFF"}}}).failure, Failure::kArgument);
  EXPECT_TRUE(session->updateSharedDataForKey("key", std::nullopt));
}

TEST(ReportingSessionTest, ErrorAnswersAreToldAndTheSessionGoesOn) {
  const ScriptedDaemon daemon([](sd_bus_message* call) {
    if (isCallOf(call, "flushMessagesWithCompletion"))
      return sd_bus_reply_method_return(call, "asa(sis)", 0, 1, "domain", -1, "no backends");
    if (isCallOf(call, "uploadLogData"))
      return sd_bus_reply_method_return(call, "ba(sis)", 0, 1, "domain", 503, "no server");
    if (isCallOf(call, "fetchDisplayURL"))
      return sd_bus_reply_method_errorf(call, "some.Error", "no display");
    return answerWell(call);
  });
  const auto session = sessionWith(daemon);
  const auto flushed = session->flushMessages();
  EXPECT_EQ(flushed.error, "no backends (-1)");
  EXPECT_EQ(flushed.failure, Failure::kAnswer);
  EXPECT_EQ(session->uploadLogData({}).error, "no server (503)");
  const auto url = session->fetchDisplayURL();
  EXPECT_EQ(url.error, "fetchDisplayURL: no display");
  EXPECT_EQ(url.failure, Failure::kAnswer);
  EXPECT_TRUE(session->finishSessionGracefully());
}

TEST(ReportingSessionTest, AnswersOfOtherTypesAreErrorsAndTheSessionGoesOn) {
  const ScriptedDaemon daemon([](sd_bus_message* call) {
    if (isCallOf(call, "sendMessageWithDictionary"))
      return sd_bus_reply_method_return(call, "as", 2, "one", "two");
    if (isCallOf(call, "startConfigWithCompletionHandler"))
      return sd_bus_reply_method_return(call, "as", 1, "post2");
    if (isCallOf(call, "flushMessagesWithCompletion"))
      return sd_bus_reply_method_return(call, "as", 1, "text");
    if (isCallOf(call, "uploadLogData")) return sd_bus_reply_method_return(call, "s", "true");
    return sd_bus_reply_method_return(call, nullptr);
  });
  const auto session = sessionWith(daemon);
  EXPECT_EQ(session->sendMessage({}).failure, Failure::kAnswer);
  EXPECT_EQ(session->startConfig().failure, Failure::kAnswer);
  EXPECT_EQ(session->flushMessages().failure, Failure::kAnswer);
  EXPECT_EQ(session->uploadLogData({}).failure, Failure::kAnswer);
  EXPECT_THAT(session->fetchDisplayURL().error, HasSubstr("fetchDisplayURL: unexpected answer"));
  EXPECT_TRUE(session->finishSessionGracefully());
}

TEST(ReportingSessionTest, LostConnectionIsToldAsSuchByEveryFurtherCall) {
  const ScriptedDaemon daemon(
      [](sd_bus_message* call) { return isCallOf(call, "fetchDisplayURL") ? -EIO : answerWell(call); });
  const auto session = sessionWith(daemon);
  EXPECT_TRUE(session->setSessionInfo({}, std::nullopt));
  EXPECT_EQ(session->fetchDisplayURL().failure, Failure::kConnection);
  EXPECT_EQ(session->sendMessage({}).failure, Failure::kConnection);
  EXPECT_EQ(session->uploadFile("/proc/self/exe").failure, Failure::kArgument);
  // It may take a step to notice.
  while (session->processMessages(0ms)) {
  }
  EXPECT_EQ(session->processMessages(std::nullopt).failure, Failure::kConnection);
}

TEST(ReportingSessionTest, NoDaemonIsAnErrorOfTheConnection) {
  const zun::ScratchFolder folder;
  const auto connected = ReportingSession::connect("unix:path=" + folder.path("nobody"));
  EXPECT_EQ(connected.failure, Failure::kConnection);
  EXPECT_THAT(connected.error, HasSubstr("No such file or directory"));
  EXPECT_FALSE(ReportingSession::connect("nonsense"));
}

// As where many connect at once.
TEST(ReportingSessionTest, WhoFindsTheDaemonsQueueFullWaitsForItsTurn) {
  const zun::ScratchFolder folder;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  folder.path("socket").copy(address.sun_path, sizeof address.sun_path - 1);
  const auto* const name = reinterpret_cast<const sockaddr*>(&address);
  const zun::FileDescriptor door(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::bind(door.get(), name, sizeof address), 0);
  ASSERT_EQ(::listen(door.get(), 0), 0);
  const zun::FileDescriptor other(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::connect(other.get(), name, sizeof address), 0);

  std::promise<pid_t> thread;
  auto connected = std::async(std::launch::async, [&] {
    thread.set_value(::gettid());
    return ReportingSession::connect("unix:path=" + folder.path("socket"));
  });
  const std::string status = "/proc/self/task/" + std::to_string(thread.get_future().get()) + "/stat";
  const auto hasEnded = [&] { return connected.wait_for(0s) == std::future_status::ready; };
  const auto waits = [&] {
    std::string text;
    std::getline(std::ifstream(status), text);
    return text.find(") S ") != std::string::npos;
  };
  while (!hasEnded() && !waits()) std::this_thread::yield();
  ASSERT_FALSE(hasEnded());
  const zun::FileDescriptor first(::accept(door.get(), nullptr, nullptr));
  const zun::FileDescriptor second(::accept(door.get(), nullptr, nullptr));
  EXPECT_TRUE(connected.get());
}

}  // namespace
}  // namespace zunreporting
