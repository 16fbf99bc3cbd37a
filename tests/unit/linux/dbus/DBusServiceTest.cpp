#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "DBusRawService.h"

namespace zun {
namespace {

// --- Authentication -----------------------------------------------------------------

TEST_F(DBusRawServiceTest, AuthenticationFollowsTheProtocol) {
  start();
  RawClient client(path_);
  client.send(std::string("\0AUTH\r\n", 7));
  EXPECT_EQ(client.receiveLine(), "REJECTED EXTERNAL");
  client.send("AUTH DBUS_COOKIE_SHA1 30\r\n");
  EXPECT_EQ(client.receiveLine(), "REJECTED EXTERNAL");
  client.send("NEGOTIATE_UNIX_FD\r\nNONSENSE\r\nDATA\r\n");
  for (int line = 0; line < 3; ++line) EXPECT_EQ(client.receiveLine(), "ERROR");
  client.send("AUTH EXTERNAL\r\n");
  EXPECT_EQ(client.receiveLine(), "DATA");
  client.send("CANCEL\r\n");
  EXPECT_EQ(client.receiveLine(), "REJECTED EXTERNAL");
  client.send("AUTH EXTERNAL 3939393939\r\n");  // 99999
  EXPECT_EQ(client.receiveLine(), "REJECTED EXTERNAL");
  client.send("AUTH EXTERNAL 3x\r\n");
  EXPECT_EQ(client.receiveLine(), "REJECTED EXTERNAL");
  std::string user;
  for (const char digit : std::to_string(::geteuid())) user += fmt::format("{:02x}", digit);
  client.send("AUTH EXTERNAL " + user + "3\r\n");
  EXPECT_EQ(client.receiveLine(), "REJECTED EXTERNAL");
  client.send("AUTH EXTERNAL " + user + "\r\n");
  EXPECT_TRUE(client.receiveLine().starts_with("OK "));
  client.send("AUTH EXTERNAL " + user + "\r\n");
  EXPECT_EQ(client.receiveLine(), "ERROR");
  client.send("NEGOTIATE_UNIX_FD\r\n");
  EXPECT_EQ(client.receiveLine(), "AGREE_UNIX_FD");
  client.send("BEGIN\r\n");
  expectStillServed(client);
}

TEST_F(DBusRawServiceTest, APeerThatSaysNothingIsCutOffAtTheDeadline) {
  options_.connection.authenticationTimeout = std::chrono::milliseconds(50);
  start();
  RawClient client(path_);
  EXPECT_TRUE(client.isEnded());
  EXPECT_EQ(delegate_.events->all().size(), 0u);
  expectErrors({"listener: a connection of " + peerName() + " is refused: it did not authenticate in time"});
}

// One byte now and then must not put the end off.
TEST_F(DBusRawServiceTest, APeerThatTricklesIsCutOffAtTheDeadline) {
  options_.connection.authenticationTimeout = std::chrono::milliseconds(100);
  start();
  RawClient client(path_);
  client.send(std::string("\0", 1));
  std::thread trickle([&client] {
    for (int byte = 0; byte < 500; ++byte) {
      client.send("A");
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  EXPECT_TRUE(client.isEnded());
  trickle.join();
  expectErrors({"listener: a connection of " + peerName() + " is refused: it did not authenticate in time"});
}

TEST_F(DBusRawServiceTest, APeerThatLeavesBeforeItIsAuthenticatedIsNoError) {
  start();
  RawClient client(path_);
  client.send(std::string("\0AUTH EXTERNAL\r\n", 16));
  EXPECT_EQ(client.receiveLine(), "DATA");
  client.close();
  waitForConnections(0);
  EXPECT_TRUE(
      log_.contains(LogLevel::kDebug, "listener: " + peerName() + " left before it was authenticated"));
}

TEST_F(DBusRawServiceTest, BadAuthenticationEndsTheConnection) {
  start();
  const std::string line =
      "listener: a connection of " + peerName() + " is refused: it did not authenticate: ";
  const auto failsWith = [&](const std::string& bytes, const std::string& reason) {
    RawClient client(path_);
    client.send(bytes);
    while (client.receiveSome()) {
    }
    expectErrors({line + reason});
    clock_.advance(RefusalLog::kInterval);
  };
  failsWith("AUTH", "it did not begin with a zero byte");
  failsWith(std::string("\0BEGIN\r\n", 8), "it began without being authenticated");
  failsWith(std::string("\0AUTH\n", 6), "it sent a line without a proper end");
  failsWith(std::string(1, '\0') + std::string(2000, 'A'), "it sent an over-long line");
  std::string many(1, '\0');
  for (int count = 0; count < 40; ++count) many += "X\r\n";
  failsWith(many, "it sent too many lines");
}

// A loop of them must not fill the log.
TEST_F(DBusRawServiceTest, FailedAuthenticationsAreOneLineASecondAndCounted) {
  start();
  for (int count = 0; count < 20; ++count) {
    RawClient client(path_);
    client.send("x");
    EXPECT_TRUE(client.isEnded());
  }
  waitForConnections(0);
  const std::string reason = "it did not authenticate: it did not begin with a zero byte";
  expectErrors({"listener: a connection of " + peerName() + " is refused: " + reason});
  listener_.reset();
  expectErrors({"listener: 19 more connections are refused, the last of " + peerName() + ": " + reason});
}

TEST_F(DBusRawServiceTest, AuthenticationMayTake32LinesOf1024Bytes) {
  start();
  const std::string line =
      "listener: a connection of " + peerName() + " is refused: it did not authenticate: ";
  const std::string longest = std::string(1022, 'X') + "\r\n";
  const auto authenticateAfter = [&](RawClient& client, int lines) {
    client.send(std::string(1, '\0'));
    for (int count = 0; count < lines; ++count) {
      client.send(longest);
      EXPECT_EQ(client.receiveLine(), "ERROR");
    }
    client.send("AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n");
    EXPECT_EQ(client.receiveLine(), "DATA");
    EXPECT_TRUE(client.receiveLine().starts_with("OK "));
  };
  RawClient patient(path_);
  authenticateAfter(patient, 29);
  expectStillServed(patient);
  RawClient tooMany(path_);
  authenticateAfter(tooMany, 30);
  EXPECT_TRUE(tooMany.isEnded());
  expectErrors({line + "it sent too many lines"});
  clock_.advance(RefusalLog::kInterval);
  RawClient tooLong(path_);
  tooLong.send(std::string(1, '\0') + "X" + longest);
  EXPECT_TRUE(tooLong.isEnded());
  expectErrors({line + "it sent an over-long line"});
}

TEST_F(DBusRawServiceTest, EverythingMayComeByteByByte) {
  start();
  RawClient client(path_);
  for (const char byte : std::string("\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n", 29) + describeCall(5)) {
    client.send({&byte, 1});
  }
  EXPECT_EQ(client.receiveLine(), "DATA");
  EXPECT_TRUE(client.receiveLine().starts_with("OK "));
  EXPECT_EQ(textAnswer(client), "{category = 7}");
}

TEST_F(DBusRawServiceTest, EverythingMayComeAtOnce) {
  start();
  RawClient client(path_);
  client.send(std::string("\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n", 29) + describeCall(5) + describeCall(6));
  EXPECT_EQ(client.receiveLine(), "DATA");
  EXPECT_TRUE(client.receiveLine().starts_with("OK "));
  EXPECT_EQ(textAnswer(client), "{category = 7}");
  EXPECT_EQ(textAnswer(client), "{category = 7}");
}

// --- Acceptance ---------------------------------------------------------------------

TEST_F(DBusRawServiceTest, ARefusedPeerIsDisconnectedBeforeAnyMessageIsRead) {
  delegate_.accepts = false;
  start();
  auto client = connect();
  client->send(simpleCall("Nonsense"));
  EXPECT_TRUE(client->isEnded());
  waitForConnections(0);
  EXPECT_EQ(delegate_.events->all(), std::vector<std::string>{"refused"});
}

TEST_F(DBusRawServiceTest, EntitlementsAreDecidedAtAccept) {
  const std::string folder = scratch_.path("entitlements.d");
  std::filesystem::create_directories(folder);
  const auto write = [&folder](const std::string& value) {
    const std::string text =
        "<plist version=\"1.0\"><array><dict><key>user</key><integer>" + std::to_string(::getuid()) +
        "</integer><key>entitlements</key><dict><key>e</key><" + value + "/></dict></dict></array></plist>";
    const FileDescriptor file(::open((folder + "/a.plist").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644));
    ASSERT_EQ(::write(file.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  };
  write("true");
  start();
  const auto first = connect();
  ASSERT_TRUE(delegate_.events->wait("accepted"));
  const auto accepted = delegate_.connection();
  write("false");
  const auto second = connect();
  ASSERT_TRUE(delegate_.events->wait("accepted", 2));
  EXPECT_EQ(accepted->booleanEntitlement("e"), true);
  EXPECT_EQ(accepted->booleanEntitlement("other"), std::nullopt);
  EXPECT_EQ(delegate_.connection()->booleanEntitlement("e"), false);
  EXPECT_EQ(accepted->description(), peerName());
}

TEST_F(DBusRawServiceTest, AProgramHasHalfOfItsUsersConnections) {
  options_.maximumConnectionsPerUser = 4;
  start();
  auto first = connect();
  const auto second = connect();
  const std::string refusal = "listener: a connection of " + peerName() +
                              " is refused: the user has 2 connections already, 2 of them the program's";
  EXPECT_TRUE(RawClient(path_).isEnded());
  expectErrors({refusal});
  first->close();
  waitForConnections(1);
  const auto fourth = connect();
  expectStillServed(*fourth);
  clock_.advance(RefusalLog::kInterval);
  EXPECT_TRUE(RawClient(path_).isEnded());
  expectErrors({refusal});
}

/// A process of another program that has connected and does nothing.
class OtherProgram final {
 public:
  /// Returns once the program is what the listener will see.
  OtherProgram(const std::string& path, const std::string& program) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    int started[2] = {-1, -1};
    EXPECT_EQ(::pipe2(started, O_CLOEXEC), 0);
    process_ = ::fork();
    if (process_ == 0) {
      const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
      if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) ::_exit(1);
      ::execl(program.c_str(), "sleep", "1000", nullptr);
      ::_exit(1);
    }
    ::close(started[1]);
    char byte = 0;
    EXPECT_EQ(::read(started[0], &byte, 1), 0);
    ::close(started[0]);
  }
  ~OtherProgram() {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }
  OtherProgram(const OtherProgram&) = delete;
  OtherProgram& operator=(const OtherProgram&) = delete;
  pid_t process() const { return process_; }

 private:
  pid_t process_ = -1;
};

TEST_F(DBusRawServiceTest, AProgramThatComesLaterHasOneConnectionWhileItsUserHasAnyLeft) {
  options_.maximumConnectionsPerUser = 4;
  start();
  const auto first = connect();
  const auto second = connect();
  waitForConnections(2);
  std::vector<std::unique_ptr<OtherProgram>> others;
  std::string program;
  for (const char* const name : {"third", "fourth", "fifth"}) {
    program = scratch_.path(name);
    std::filesystem::copy_file("/bin/sleep", program);
    listener_->pause();
    others.push_back(std::make_unique<OtherProgram>(path_, program));
    listener_->resume();
    if (others.size() < 3) waitForConnections(2 + others.size());
  }
  expectErrors({"listener: a connection of pid " + std::to_string(others.back()->process()) + ", user " +
                std::to_string(::geteuid()) + ", " + program +
                " is refused: the user has 4 connections already"});
}

TEST_F(DBusRawServiceTest, ClientsThatCameTogetherAreAllServedThoughNobodyComesAfterThem) {
  start();
  listener_->pause();
  std::vector<std::unique_ptr<RawClient>> clients;
  while (clients.size() < 10) clients.push_back(std::make_unique<RawClient>(path_));
  listener_->resume();
  for (const auto& client : clients) EXPECT_TRUE(client->authenticate());
}

// What was accepted and not resumed yet has to notice its end as well.
TEST_F(DBusRawServiceTest, AConnectionEndsBeforeItIsResumed) {
  delegate_.resumes = false;
  start();
  auto client = connect();
  ASSERT_TRUE(delegate_.events->wait("accepted"));
  client->close();
  ASSERT_TRUE(delegate_.events->wait("invalidated"));
  const auto other = connect();
  ASSERT_TRUE(delegate_.events->wait("accepted", 2));
  delegate_.connection()->invalidate();
  EXPECT_TRUE(other->isEnded());
}

/// Of this process.
size_t threadCount() {
  const std::filesystem::directory_iterator threads("/proc/self/task");
  return static_cast<size_t>(std::distance(begin(threads), end(threads)));
}

TEST_F(DBusRawServiceTest, IdleClientsKeepNoThreadAndAreServedAgain) {
  start();
  const size_t before = threadCount();
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int count = 0; count < 50; ++count) clients.push_back(connect());
  waitForConnections(50);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (threadCount() > before + options_.threads.maximumWaiting &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  EXPECT_LE(threadCount(), before + options_.threads.maximumWaiting);
  for (const auto& client : clients) client->send(longTextCall(3));
  for (const auto& client : clients) EXPECT_TRUE(client->receiveMessage());
}

// A thread for each call would cost whoever calls one after the other.
TEST_F(DBusRawServiceTest, AClientKeepsItsThreadForAMoment) {
  options_.connection.restAfter = std::chrono::hours(1);
  start();
  const size_t before = threadCount();
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int count = 0; count < 10; ++count) {
    clients.push_back(connect());
    clients.back()->send(longTextCall(3));
    EXPECT_TRUE(clients.back()->receiveMessage());
  }
  EXPECT_GE(threadCount(), before + clients.size());
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
/// Of the process, in bytes.
rlim_t addressSpace() {
  rlim_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  return pages * static_cast<rlim_t>(::getpagesize());
}

// Nobody else may come who would have one made.
TEST_F(DBusRawServiceTest, AnIdleClientIsServedAsSoonAsThereCanBeAThreadForIt) {
  options_.threads.stackBytes = size_t{256} << 20;
  options_.threads.maximumWaiting = 1;
  const size_t before = threadCount();
  start();
  auto blocking = connect();
  ASSERT_TRUE(delegate_.events->wait("accepted"));
  const auto object = delegate_.object();
  auto idle = connect();
  ASSERT_TRUE(delegate_.events->wait("accepted", 2));
  while (threadCount() > before + 2) std::this_thread::yield();  // one accepts, one waits
  rlimit unlimited{};
  ASSERT_EQ(::getrlimit(RLIMIT_AS, &unlimited), 0);
  const rlimit full{addressSpace() + (rlim_t{64} << 20), unlimited.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_AS, &full), 0);
  blocking->send(simpleCall("Block"));
  ASSERT_TRUE(delegate_.events->wait("blocked"));
  idle->send(describeCall(1));
  ASSERT_EQ(::setrlimit(RLIMIT_AS, &unlimited), 0);
  EXPECT_TRUE(idle->receiveMessage());
  object->unblock();
  EXPECT_EQ(blocking->receiveMessage()->errorName, "com.vantix.zunreportingd.Error.NoReply");
  const auto errors = log_.takeErrors();
  for (const std::string& line : errors)
    EXPECT_TRUE(line.starts_with("threads: some clients have to wait")) << line;
}
#endif

TEST_F(DBusRawServiceTest, IdleClientsThatGoAreLetGo) {
  start();
  auto client = connect();
  ASSERT_TRUE(delegate_.events->wait("accepted"));
  client->close();
  EXPECT_TRUE(delegate_.events->wait("invalidated"));
  waitForConnections(0);
}

TEST_F(DBusRawServiceTest, AUserHasHalfOfAllConnectionsWhateverTheOptionsSay) {
  options_.maximumConnections = 4;
  options_.maximumConnectionsPerUser = 1000;
  start();
  const auto first = connect();
  const auto second = connect();
  EXPECT_TRUE(RawClient(path_).isEnded());
  expectErrors({"listener: a connection of " + peerName() +
                " is refused: there are 2 connections already, 2 of them the user's"});
}

TEST_F(DBusRawServiceTest, ConnectionsInAllAreLimited) {
  options_.maximumConnections = 1;
  start();
  const auto first = connect();
  RawClient second(path_);
  EXPECT_TRUE(second.isEnded());
  expectErrors({"listener: a connection of " + peerName() +
                " is refused: there are 1 connections already, 1 of them the user's"});
}

}  // namespace
}  // namespace zun
