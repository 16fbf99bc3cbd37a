#include "backends/UploadBackend.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "BackendTest.h"
#include "KeepingHelper.h"
#include "connectivity/ReportingSessionConnectivityHelper.h"
#include "linux/files/FileExtensions.h"
#include "support/Gzip.h"
#include "support/HTTPSTestServer.h"

namespace zun {
namespace {

/// A client's files in a folder of their own, a connection's extensions, a real helper
/// and a real upload server.
class UploadBackendTest : public BackendTest {
 protected:
  using Helper = ReportingSessionConnectivityHelper;

  UploadBackendTest() : BackendTest(HTTPSTestServer::caFile()) {
    helper_ = Helper::create(platform_.services, {}, kPOSTMode);
    helper_->activate(Helper::kDefaultReleaseTimeout);
    backend_ =
        make(Dictionary{{"post_url", server_.url("/upload")}, {"display_url", "https://show.example/"}});
  }
  void TearDown() override {
    backend_.reset();
    const std::weak_ptr<Helper> weak = helper_;
    if (helper_) helper_->invalidate();
    helper_.reset();
    // What was posted is let go of by the transfer's end, after the answer.
    const auto isQuiet = [&] {
      return weak.expired() && platform_.workers.activity().isIdle &&
             services_.uploadMemory->left() == ReportingServices::kUploadMemoryBytes;
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!isQuiet() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    EXPECT_TRUE(isQuiet()) << "a helper, a job or a file's memory is left";
    PlatformTest::TearDown();
  }

  std::shared_ptr<UploadBackend> make(const Value& profile) {
    auto backend = std::dynamic_pointer_cast<UploadBackend>(
        ZunReportingBackend::newBackendWithName(services_, "uploadServer", profile, "Pallax Large", 5));
    if (backend == nullptr) return nullptr;
    backend->setUdid("device-1");
    backend->setSessionID(4'000'000'000);
    backend->setReportingSessionConnectivityDelegate(helper_);
    return backend;
  }

  std::string path(const std::string& name) const { return platform_.scratch.path(name); }
  std::string write(const std::string& name, const std::string& contents = "contents") {
    std::ofstream(path(name)) << contents;
    return path(name);
  }
  /// A token as a client's connection gives it for what it has opened.
  std::string issue(const std::string& file, int flags = O_RDONLY) {
    auto token = extensions_->issue(FileDescriptor(::open(file.c_str(), flags | O_CLOEXEC)));
    EXPECT_TRUE(token);
    return token ? *token : "";
  }
  bool upload(const std::string& file, const std::string& token) {
    return backend_->uploadFileAtPath(file, {token, extensions_});
  }
  bool upload(const std::string& file) { return upload(file, issue(file)); }
  void answer(const std::string& body, int status = 200) {
    server_.answer("/upload", {.status = status, .body = body});
  }
  static bool exists(const std::string& file) { return std::filesystem::exists(file); }

  void expectRefused(const std::string& file, const std::string& why) {
    expectDefaultLine("UploadBackend(uploadFileAtPath): The extension token gives no access to " + file +
                      ": " + why);
    expectErrors({"UploadBackend(uploadFileAtPath): Only upload a regular file."});
    EXPECT_TRUE(server_.requests().empty());
  }

  HTTPSTestServer server_;
  std::shared_ptr<Helper> helper_;
  std::shared_ptr<FileExtensions> extensions_ =
      std::make_shared<FileExtensions>(FileSystemIdentity::ofProcess());
  std::shared_ptr<UploadBackend> backend_;
};

// --- Creation ----------------------------------------------------------------------

TEST_F(UploadBackendTest, TakesItsURLsFromTheSection) {
  EXPECT_EQ(backend_->name(), "uploadServer");
  EXPECT_EQ(backend_->uploadURL(), server_.url("/upload"));
  EXPECT_EQ(backend_->displayURL(), "https://show.example/");
  const auto withoutDisplay = make(Dictionary{{"post_url", "https://host/"}});
  EXPECT_EQ(withoutDisplay->displayURL(), std::nullopt);
}

TEST_F(UploadBackendTest, SectionWithoutPostURLMakesNoBackend) {
  for (const Value& profile : {Value(Dictionary{{"display_url", "https://show.example/"}}),
                               Value(Dictionary{{"post_url", 5}}), Value("post_url"), Value()}) {
    EXPECT_EQ(make(profile), nullptr);
    expectErrors({"UploadBackend(initWithName): can't resolve upload post URL."});
  }
}

TEST_F(UploadBackendTest, EmptyPostURLIsOneThatNoRequestCanBeSentTo) {
  backend_ = make(Dictionary{{"post_url", ""}});
  ASSERT_NE(backend_, nullptr);
  EXPECT_FALSE(upload(write("file")));
  expectErrors({"UploadBackend(uploadFileAtPath): Unable to create URL request"});
}

TEST_F(UploadBackendTest, DeviceWithoutANameUploadsToo) {
  EXPECT_NE(ZunReportingBackend::newBackendWithName(
                services_, "uploadServer", Dictionary{{"post_url", "https://host/"}}, std::nullopt, 5),
            nullptr);
}

TEST_F(UploadBackendTest, ReportsAsEnabledAndTakesNoPartInEvents) {
  EXPECT_EQ(backend_->updateState(), ZunBackendStateEnabled);
  EXPECT_EQ(backend_->sendMessage(message({{"note", "hello"}}), kEventTime, 1, 2, 0), std::nullopt);
  EXPECT_FALSE(backend_->uploadLogData({"line"}));
  EXPECT_TRUE(server_.requests().empty());
}

// --- The way of a file ---------------------------------------------------------------

TEST_F(UploadBackendTest, TakesNoConnectionOfEventPostsAndTheShareOfItsHolder) {
  const auto keeping = std::make_shared<KeepingHelper>();
  services_.holder = {1000, 7};
  backend_ = make(Dictionary{{"post_url", server_.url("/upload")}});
  backend_->setReportingSessionConnectivityDelegate(keeping);
  EXPECT_TRUE(upload(write("trace.log")));
  ASSERT_EQ(keeping->requests.size(), 1U);
  EXPECT_EQ(keeping->requests[0].transferClass, TransferClass::kUpload);
  EXPECT_EQ(keeping->requests[0].holder.user, 1000U);
  EXPECT_EQ(keeping->requests[0].holder.member, 7U);
  expectErrors({"UploadBackend(uploadFileAtPath): post the request was dropped"});
}

TEST_F(UploadBackendTest, PostsTheWholeFileAsGzip) {
  answer("ok");
  const std::string contents(100'000, 'c');
  const std::string file = write("trace.log", contents);
  EXPECT_TRUE(upload(file));
  expectDebugLine("UploadBackend(uploadFileAtPath): Uploading file " + file);
  expectDebugLine("UploadBackend(uploadFileAtPath): sending to |" + server_.url("/upload") +
                  "|, Json output: ok");

  ASSERT_EQ(server_.requests().size(), 1U);
  const TestRequest request = server_.requests()[0];
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(
      request.target,
      "/upload?uuid=device-1&sequence=4000000000&description=Vidora%20AFRC%20log%20(Uploaded%20by%20Qel)"
      "&filename=trace.log.gz&raw=true");
  EXPECT_EQ(request.header("Content-Type"), "application/octet-stream");
  EXPECT_EQ(request.header("Content-Encoding"), "gzip");
  EXPECT_EQ(inflatedGzip(request.body), contents);
}

TEST_F(UploadBackendTest, DeviceWithoutAnIdentifierSaysNull) {
  answer("ok");
  const auto unnamed = ZunReportingBackend::newBackendWithName(
      services_, "uploadServer", Dictionary{{"post_url", server_.url("/upload")}}, "Pallax Large", 5);
  unnamed->setReportingSessionConnectivityDelegate(helper_);
  const std::string file = write("file");
  EXPECT_TRUE(unnamed->uploadFileAtPath(file, {issue(file), extensions_}));
  ASSERT_EQ(server_.requests().size(), 1U);
  EXPECT_TRUE(server_.requests()[0].query.starts_with("uuid=(null)&sequence=0&"));
}

TEST_F(UploadBackendTest, BlankInTheNameIsSentAsPercent20WithTheSuffixAppended) {
  answer("ok");
  EXPECT_TRUE(upload(write("my log#1&a=ü.txt")));
  ASSERT_EQ(server_.requests().size(), 1U);
  EXPECT_NE(server_.requests()[0].query.find("&filename=my%20log%231&a=%C3%BC.txt.gz&raw=true"),
            std::string::npos)
      << server_.requests()[0].query;
}

TEST_F(UploadBackendTest, AnswerWithSuccessAnywhereRemovesTheFile) {
  for (const char* const body : {"success", "{\"status\": \"unsuccessful? no, success!\"}"}) {
    answer(body);
    const std::string file = write("file");
    EXPECT_TRUE(upload(file));
    EXPECT_FALSE(exists(file)) << body;
  }
}

TEST_F(UploadBackendTest, StatusOfTheAnswerDoesNotMatter) {
  answer("success", 503);
  const std::string file = write("file");
  EXPECT_TRUE(upload(file));
  EXPECT_FALSE(exists(file));
}

TEST_F(UploadBackendTest, AnyOtherAnswerLeavesTheFile) {
  const std::string file = write("file");
  for (const std::string& body : {std::string("failed"), std::string("Success"), std::string("succes")}) {
    answer(body);
    EXPECT_TRUE(upload(file));
    EXPECT_TRUE(exists(file)) << body;
  }
}

TEST_F(UploadBackendTest, EmptyAnswerIsAnAnswer) {
  answer("");
  const std::string file = write("file");
  EXPECT_TRUE(upload(file));
  EXPECT_TRUE(exists(file));
  expectDebugLine("UploadBackend(uploadFileAtPath): sending to |" + server_.url("/upload") +
                  "|, Json output: ");
}

TEST_F(UploadBackendTest, AnswerThatIsNoTextSaysNothing) {
  answer("success \xFF");
  const std::string file = write("file");
  EXPECT_TRUE(upload(file));
  EXPECT_TRUE(exists(file));
  expectDebugLine("UploadBackend(uploadFileAtPath): sending to |" + server_.url("/upload") +
                  "|, Json output: (null)");
}

TEST_F(UploadBackendTest, PostWithoutAnAnswerIsAnAttemptAndKeepsTheFile) {
  server_.answer("/upload", TestAnswer::ended(TestAnswer::Ending::kNoAnswer));
  const std::string file = write("file");
  EXPECT_TRUE(upload(file));
  EXPECT_TRUE(exists(file));
  const auto errors = platform_.log.takeErrors();
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_TRUE(errors[0].starts_with("UploadBackend(uploadFileAtPath): post ")) << errors[0];
  EXPECT_EQ(errors[0].find("(null)"), std::string::npos);
}

// Half an answer may say "success" where the whole one says something else.
TEST_F(UploadBackendTest, AnswerThatBreaksOffKeepsTheFile) {
  TestAnswer broken{.body = "success, they say, but not for this file, not at all"};
  broken.ending = TestAnswer::Ending::kCloseMidAnswer;
  server_.answer("/upload", broken);
  const std::string file = write("file");
  EXPECT_TRUE(upload(file));
  EXPECT_TRUE(exists(file));
  EXPECT_EQ(platform_.log.takeErrors().size(), 1U);
}

TEST_F(UploadBackendTest, BackendWithoutAHelperReturnsTrueWithoutSendingAnything) {
  backend_->setReportingSessionConnectivityDelegate({});
  const std::string file = write("file");
  EXPECT_TRUE(upload(file));
  EXPECT_TRUE(exists(file));
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(UploadBackendTest, HelperThatDropsThePostEndsTheWait) {
  helper_->invalidate();
  const std::string file = write("file");
  EXPECT_TRUE(upload(file));
  EXPECT_TRUE(exists(file));
  expectErrors({"UploadBackend(uploadFileAtPath): post the request was dropped"});
}

TEST_F(UploadBackendTest, UploadBlocksUntilTheServerHasAnswered) {
  const auto gate = std::make_shared<TestGate>();
  server_.answer("/upload", {.body = "success", .gate = gate});
  const std::string file = write("file");
  std::atomic<bool> isOver{false};
  std::thread client([&] {
    EXPECT_TRUE(upload(file));
    isOver = true;
  });
  EXPECT_TRUE(server_.waitForRequests(1));
  EXPECT_FALSE(isOver);
  EXPECT_TRUE(exists(file));
  gate->open();
  client.join();
  EXPECT_FALSE(exists(file));
}

TEST_F(UploadBackendTest, FileThatIsAnotherByNowIsNotRemoved) {
  server_.handle("/upload", [this](const TestRequest&) {
    std::filesystem::rename(path("file"), path("kept"));
    write("file", "another");
    return TestAnswer{.body = "success"};
  });
  const std::string file = write("file");
  EXPECT_TRUE(upload(file));
  EXPECT_TRUE(exists(file));
  expectDefaultLine("UploadBackend(uploadFileAtPath): The uploaded file " + file +
                    " stays: The path names another file than the one handed over");
}

// --- The client's access ends with the upload ------------------------------------------

/// The descriptors that this process has open on `path`.
int descriptorsOn(const std::string& path) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone).string().starts_with(path)) ++count;
  }
  return count;
}

TEST_F(UploadBackendTest, ExtensionIsReleasedOnEveryPath) {
  const auto expectReleased = [this](const std::string& file, const char* way) {
    const std::string token = issue(file);
    EXPECT_EQ(descriptorsOn(file), 1) << way;
    upload(file, token);
    EXPECT_EQ(descriptorsOn(file), 0) << way;
  };
  answer("success");
  expectReleased(write("accepted"), "accepted");
  answer("failed");
  expectReleased(write("rejected"), "rejected");
  server_.answer("/upload", TestAnswer::ended(TestAnswer::Ending::kNoAnswer));
  expectReleased(write("unanswered"), "unanswered");
  backend_->setUploadURL("upload");
  expectReleased(write("unsendable"), "unsendable");
  backend_->setReportingSessionConnectivityDelegate({});
  backend_->setUploadURL(server_.url("/upload"));
  expectReleased(write("unposted"), "unposted");
  expectReleased(write("empty", ""), "empty");
  std::filesystem::create_directory(path("folder"));
  expectReleased(path("folder"), "folder");
  EXPECT_EQ(platform_.log.takeErrors().size(), 4U);
}

TEST_F(UploadBackendTest, ExtensionLastsUntilTheUploadHasEnded) {
  const std::string file = write("file");
  int whileUnderWay = 0;
  server_.handle("/upload", [&](const TestRequest&) {
    whileUnderWay = descriptorsOn(file);
    return TestAnswer{.body = "ok"};
  });
  EXPECT_TRUE(upload(file));
  EXPECT_EQ(whileUnderWay, 1);
}

// --- What is not uploaded --------------------------------------------------------------

TEST_F(UploadBackendTest, DirectoryIsRefused) {
  std::filesystem::create_directory(path("folder"));
  EXPECT_FALSE(upload(path("folder")));
  expectErrors({"UploadBackend(uploadFileAtPath): Only upload a regular file."});
}

// A refused upload costs a client nothing: it must not cost the disk 16 KB a line.
TEST_F(UploadBackendTest, LongPathIsCutInTheLog) {
  const std::string file = "/" + std::string(16'000, 'x');
  EXPECT_FALSE(upload(file, "none"));
  const std::string cut = file.substr(0, 1 << 10) + "... (16001 bytes)";
  expectDebugLine("UploadBackend(uploadFileAtPath): Uploading file " + cut);
  expectRefused(cut, "The connection has no such token");
}

TEST_F(UploadBackendTest, FileNamedLikeAFolderIsRefused) {
  const std::string file = write("file");
  EXPECT_FALSE(upload(file + "/", issue(file)));
  expectRefused(file + "/", "Invalid argument");
}

TEST_F(UploadBackendTest, FIFOAndDeviceAreRefused) {
  ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
  EXPECT_FALSE(upload(path("fifo"), issue(path("fifo"), O_RDONLY | O_NONBLOCK)));
  EXPECT_FALSE(upload("/dev/zero"));
  EXPECT_FALSE(upload("/proc/self/status"));
  const std::string line = "UploadBackend(uploadFileAtPath): Only upload a regular file.";
  expectErrors({line, line, line});
}

TEST_F(UploadBackendTest, EmptyFileIsRefused) {
  EXPECT_FALSE(upload(write("empty", "")));
  expectErrors({"UploadBackend(uploadFileAtPath): Input file is empty"});
}

TEST_F(UploadBackendTest, FileBeyondTheMemoryOfUploadsIsRefused) {
  const size_t others = services_.uploadMemory->left();
  ASSERT_TRUE(services_.uploadMemory->take(others));
  EXPECT_FALSE(upload(write("file")));
  services_.uploadMemory->giveBack(others);
  expectErrors({"UploadBackend(uploadFileAtPath): Uploads under way leave no memory for this file"});
}

TEST_F(UploadBackendTest, FileThatNobodyWaitsForIsNotSent) {
  const std::string file = write("file");
  EXPECT_FALSE(backend_->uploadFileAtPath(file, {issue(file), extensions_, [] { return false; }}));
  expectDefaultLine("UploadBackend(uploadFileAtPath): Nobody waits for the file any more");
  EXPECT_TRUE(server_.requests().empty());
  EXPECT_TRUE(exists(file));
}

// The server has yet to answer, and no core is busy with that.
TEST_F(UploadBackendTest, FileIsReadInItsTurnAndSentOutsideOfIt) {
  server_.handle("/upload", [&](const TestRequest&) {
    const auto first = services_.compressions->wait({1}, [] { return false; });
    EXPECT_TRUE(first);
    EXPECT_TRUE(services_.compressions->wait({1}, [] { return false; }));
    return TestAnswer{.body = "ok"};
  });
  EXPECT_TRUE(upload(write("file")));
  const auto first = services_.compressions->wait({1}, [] { return true; });
  const auto second = services_.compressions->wait({1}, [] { return true; });
  int asked = 0;
  const std::string file = write("another");
  EXPECT_FALSE(backend_->uploadFileAtPath(file, {issue(file), extensions_, [&] { return ++asked < 2; }}));
  expectDefaultLine("UploadBackend(uploadFileAtPath): Nobody waits for " + file + " any more");
}

TEST_F(UploadBackendTest, URLThatNoRequestCanBeSentToIsRefused) {
  const std::string file = write("file");
  for (const char* const url : {"", "ftp://host/", "upload", "https://", "https://ho st/"}) {
    backend_->setUploadURL(url);
    EXPECT_FALSE(upload(file)) << url;
    expectErrors({"UploadBackend(uploadFileAtPath): Unable to create URL request"});
  }
  EXPECT_TRUE(exists(file));
}

TEST_F(UploadBackendTest, WithoutUploadURLTheTokenIsNotConsumed) {
  answer("ok");
  const std::string file = write("file");
  const std::string token = issue(file);
  backend_->setUploadURL(std::nullopt);
  EXPECT_FALSE(upload(file, token));
  expectDebugLine("UploadBackend(uploadFileAtPath): Uploading file " + file);
  backend_->setUploadURL(server_.url("/upload"));
  EXPECT_TRUE(upload(file, token));
}

TEST_F(UploadBackendTest, TokenMayEndWithANULAndServesOnce) {
  answer("ok");
  const std::string file = write("file");
  const std::string token = issue(file) + '\0';
  EXPECT_TRUE(upload(file, token));
  server_.clearRequests();
  EXPECT_FALSE(upload(file, token));
  expectRefused(file, "The connection has no such token");
}

TEST_F(UploadBackendTest, NoForgedNorForeignTokenGivesAccess) {
  const std::string file = write("file");
  FileExtensions others(FileSystemIdentity::ofProcess());
  const auto foreign = others.issue(FileDescriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC)));
  for (const std::string& token : {std::string(), std::string("\0", 1), std::string(32, '0'), *foreign}) {
    EXPECT_FALSE(upload(file, token));
    expectRefused(file, "The connection has no such token");
  }
}

TEST_F(UploadBackendTest, PathThatWasSwappedGivesNoAccess) {
  const std::string file = write("file");
  std::string token = issue(file);
  std::filesystem::rename(file, path("moved"));
  std::filesystem::create_symlink(path("moved"), file);
  EXPECT_FALSE(upload(file, token));
  expectRefused(file, "The path is a symbolic link");

  std::filesystem::remove(file);
  write("file", "another");
  EXPECT_FALSE(upload(file, token));
  expectRefused(file, "The path names another file than the one handed over");

  std::filesystem::remove(file);
  EXPECT_FALSE(upload(file, token));
  expectRefused(file, "No such file or directory");
}

}  // namespace
}  // namespace zun
