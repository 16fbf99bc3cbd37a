// Files and log data that clients hand to a session's backends.

#include "SessionTest.h"
#include "values/UTF8.h"

namespace zun {
namespace {

class SessionUploadTest : public SessionTest {
 protected:
  using Trace = std::vector<std::string>;

  /// Starts a session with these backends: whether each can upload.
  void startWithUploaders(const std::vector<std::pair<std::string, bool>>& uploaders) {
    Dictionary storebag;
    for (const auto& [name, uploads] : uploaders) storebag.set(name, Dictionary{{"uploads", uploads}});
    startWith(storebag);
    for (const auto& [name, each] : world_.backends) each->trace.clear();
  }

  bool uploadFile(const std::string& url, const std::string& token = "token") {
    std::vector<bool> replies;
    session_->uploadFileAtPath(url, token, [&](bool succeeded) { replies.push_back(succeeded); });
    EXPECT_EQ(replies.size(), 1U);
    return replies == std::vector{true};
  }
  bool uploadLogs(const Array& logData) {
    std::vector<bool> replies;
    session_->uploadLogData(logData, [&](bool succeeded, const std::optional<Error>& error) {
      EXPECT_FALSE(error);
      replies.push_back(succeeded);
    });
    EXPECT_EQ(replies.size(), 1U);
    return replies == std::vector{true};
  }
};

TEST_F(SessionUploadTest, FileUploadIsASuccessWhenAnyBackendSaysSoAndAllAreAsked) {
  startWithUploaders({{"a", false}, {"b", true}, {"c", false}});
  EXPECT_TRUE(uploadFile("file:///tmp/a%20file"));
  for (const char* const name : {"a", "b", "c"})
    EXPECT_EQ(backend(name).trace, Trace{"uploadFileAtPath /tmp/a file"}) << name;
  expectDebugLine("uploadFileAtPath: Uploading file for session 7");
  expectDebugLine("uploadFileWithURL: File upload successful for /tmp/a file");
  EXPECT_EQ(world_.messageLogEntries().back(),
            "[uploadFileWithURL] Upload succeeded for file file:///tmp/a%20file");
}

TEST_F(SessionUploadTest, SessionWithoutAnUploadBackendRepliesFalseAndNotesItInTheMessageLog) {
  startWithUploaders({{"a", false}});
  EXPECT_FALSE(uploadFile("file:///tmp/a%20file"));
  expectErrors({"uploadFileWithURL: File upload failed for /tmp/a file"});
  EXPECT_EQ(world_.messageLogEntries().back(),
            "[uploadFileWithURL] Upload failed for file file:///tmp/a%20file");
}

TEST_F(SessionUploadTest, SessionWithoutBackendsRepliesFalse) {
  EXPECT_FALSE(uploadFile("file:///tmp/file"));
  expectErrors({"uploadFileWithURL: File upload failed for /tmp/file"});
  EXPECT_EQ(world_.messageLogEntries(), Trace{"[uploadFileWithURL] Upload failed for file file:///tmp/file"});
}

TEST_F(SessionUploadTest, BackendsAreToldWhetherTheConnectionStillWantsTheUpload) {
  startWithUploaders({{"a", true}});
  uploadFile("file:///tmp/file");
  EXPECT_TRUE(backend("a").tokens[0].isWanted());
  world_.connection->wanted = false;
  EXPECT_FALSE(backend("a").tokens[0].isWanted());
}

TEST_F(SessionUploadTest, BackendsAreToldForWhomTheyKeepWhatTheyKeep) {
  const auto connection = std::make_shared<FakeConnection>(std::map<std::string, bool>{});
  connection->holder = {1000, 7};
  connection->program = {1000, 8};
  session_ = world_.makeSession(connection);
  startWithUploaders({{"a", true}});
  EXPECT_EQ(backend("a").services().holder.user, 1000U);
  EXPECT_EQ(backend("a").services().holder.member, 7U);
  EXPECT_EQ(backend("a").services().program.member, 8U);
}

TEST_F(SessionUploadTest, BackendsGetTheTokenWithTheExtensionsOfTheOwnConnection) {
  startWithUploaders({{"a", true}, {"b", true}});
  uploadFile("file:///tmp/file", std::string("to\0ken\0", 7));
  for (const char* const name : {"a", "b"}) {
    ASSERT_EQ(backend(name).tokens.size(), 1U);
    EXPECT_EQ(backend(name).tokens[0].bytes, std::string("to\0ken\0", 7));
    EXPECT_EQ(backend(name).tokens[0].extensions, world_.connection->extensions);
  }
}

TEST_F(SessionUploadTest, URLThatIsNoFileURLIsNobodysToUpload) {
  startWithUploaders({{"a", true}});
  for (const char* const url : {"", "https://host/tmp/file", "/tmp/file", "file://elsewhere/tmp/file",
                                "file:relative", "file:///%00"}) {
    EXPECT_FALSE(uploadFile(url)) << url;
    expectErrors({std::string("uploadFileWithURL: File upload failed for ") + url});
    EXPECT_EQ(world_.messageLogEntries().back(),
              std::string("[uploadFileWithURL] Upload failed for file ") + url);
  }
  EXPECT_EQ(backend("a").trace, Trace{});
}

TEST_F(SessionUploadTest, URLCannotForgeEntriesOfTheMessageLog) {
  EXPECT_FALSE(uploadFile("file:///tmp/a\nb"));
  expectErrors({"uploadFileWithURL: File upload failed for /tmp/a\nb"});
  EXPECT_EQ(world_.messageLogEntries(),
            Trace{"[uploadFileWithURL] Upload failed for file file:///tmp/a%0Ab"});
}

// The message log is a file on disk, and nothing else in it can be as long as a message.
TEST_F(SessionUploadTest, LongURLIsCutInTheLogs) {
  const std::string url = "file:///" + std::string(1'000'000, 'a');
  EXPECT_FALSE(uploadFile(url));
  EXPECT_EQ(world_.messageLogEntries(), Trace{"[uploadFileWithURL] Upload failed for file " +
                                              url.substr(0, 1 << 10) + "... (1000008 bytes)"});
  expectErrors(
      {"uploadFileWithURL: File upload failed for " + url.substr(7, 1 << 10) + "... (1000001 bytes)"});
}

TEST_F(SessionUploadTest, URLIsCutAsItIsWrittenAndNotAmidAnEscape) {
  for (const char* const start : {"file:///", "file:///a", "file:///ab"}) {
    std::string entry = fmt::format("[uploadFileWithURL] Upload failed for file {}", start);
    for (int i = 0; i < 338; ++i) entry += "%01";  // 1,024 bytes, less two, one or none
    EXPECT_FALSE(uploadFile(start + std::string(1000, '\x01')));
    EXPECT_EQ(world_.messageLogEntries().back(),
              fmt::format("{}... ({} bytes)", entry, std::string_view(start).size() + 3000));
  }
  EXPECT_EQ(platform_.log.takeErrors().size(), 3U);
}

TEST_F(SessionUploadTest, BothBackendsThatCanUploadLogDataAreAskedEvenWhenTheFirstSucceeds) {
  startWithUploaders({{"a", true}, {"b", true}, {"c", false}});
  EXPECT_TRUE(uploadLogs({"line", 2}));
  for (const char* const name : {"a", "b", "c"})
    EXPECT_EQ(backend(name).trace, Trace{"uploadLogData (\"line\", 2)"}) << name;
  expectDebugLine("uploadLogData: Log data array upload successful");
}

TEST_F(SessionUploadTest, LogDataThatNobodyTookIsAFailureWithoutAnError) {
  startWithUploaders({{"a", false}});
  EXPECT_FALSE(uploadLogs({"line"}));
  expectErrors({"uploadLogData: Log data array upload failed"});
}

TEST_F(SessionUploadTest, LogDataWithoutBackendsIsAFailureWithoutAnError) {
  EXPECT_FALSE(uploadLogs({}));
  expectErrors({"uploadLogData: Log data array upload failed"});
}

TEST_F(SessionUploadTest, BackendsAreAskedInTheStorebagsOrder) {
  startWithUploaders({{"z", true}, {"a", false}, {"m", true}});
  Trace order;
  for (const auto& [name, each] : world_.backends)
    each->onCall = [&order, name = name] { order.push_back(name); };
  uploadFile("file:///tmp/file");
  uploadLogs({"line"});
  EXPECT_EQ(order, (Trace{"z", "a", "m", "z", "a", "m"}));
  for (const auto& [name, each] : world_.backends) each->onCall = nullptr;
}

TEST_F(SessionUploadTest, LinesAreWrittenBeforeTheReply) {
  startWithUploaders({{"a", true}});
  session_->uploadFileAtPath("file:///tmp/file", "token", [this](bool) {
    expectDebugLine("uploadFileWithURL: File upload successful for /tmp/file");
    EXPECT_EQ(world_.messageLogEntries(),
              Trace{"[uploadFileWithURL] Upload succeeded for file file:///tmp/file"});
  });
  session_->uploadLogData({"line"}, [this](bool, const std::optional<Error>&) {
    expectDebugLine("uploadLogData: Log data array upload successful");
  });
  startWithUploaders({{"a", false}});
  session_->uploadFileAtPath("file:///tmp/file", "token", [this](bool) {
    expectErrors({"uploadFileWithURL: File upload failed for /tmp/file"});
  });
  session_->uploadLogData({"line"}, [this](bool, const std::optional<Error>&) {
    expectErrors({"uploadLogData: Log data array upload failed"});
  });
}

TEST_F(SessionUploadTest, ClientThatWantsNoReplyGetsNone) {
  session_->uploadFileAtPath("file:///tmp/file", "", nullptr);
  session_->uploadLogData({}, nullptr);
  expectErrors(
      {"uploadFileWithURL: File upload failed for /tmp/file", "uploadLogData: Log data array upload failed"});
}

}  // namespace
}  // namespace zun
