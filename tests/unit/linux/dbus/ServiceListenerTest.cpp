#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <future>
#include <iterator>

#include "DBusPeer.h"

namespace zun {
namespace {

class ServiceListenerTest : public DBusServiceTest {
 protected:
  /// Why a listener on `address` cannot be made; empty if it can.
  std::string failureOn(const std::string& address) {
    DBusListenerOptions options;
    options.address = address;
    const auto created = DBusServiceListener::create(options, entitlements_, log_);
    return created ? "" : created.error().description;
  }
  std::string socketPath() const { return path_; }
  /// This process and program has the entitlement "e", or has it not.
  void writeRule(bool isEntitled) {
    std::filesystem::create_directories(scratch_.path("entitlements.d"));
    const std::string path = scratch_.path("entitlements.d/a.plist");
    std::ofstream(path) << "<plist version=\"1.0\"><array><dict><key>user</key><integer>" << ::getuid()
                        << "</integer><key>executable</key><string>"
                        << std::filesystem::read_symlink("/proc/self/exe").string()
                        << "</string><key>entitlements</key><dict><key>e</key><"
                        << (isEntitled ? "true" : "false") << "/></dict></dict></array></plist>";
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
  }
};

TEST_F(ServiceListenerTest, TheSocketsFolderIsMadeAndEverybodyMayConnect) {
  start();
  struct stat status {};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 0777, 0666u);
  RawClient client(path_);
  EXPECT_TRUE(client.isConnected());
  EXPECT_TRUE(client.authenticate());
}

TEST_F(ServiceListenerTest, AConnectionThatNoThreadCanServeIsRefusedAndToldOf) {
  options_.threads.stackBytes = size_t{1} << 60;
  start();
  EXPECT_FALSE(RawClient(path_).authenticate());
  listener_->stop();
  const std::vector<std::string> errors = log_.takeErrors();
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_TRUE(errors[0].starts_with("listener: a connection is refused: ")) << errors[0];
}

TEST_F(ServiceListenerTest, TheSocketGoesAwayWithItsListener) {
  start();
  listener_->stop();
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(ServiceListenerTest, WhatTookTheSocketsPlaceStays) {
  start();
  std::filesystem::remove(path_);
  std::ofstream(path_) << "another's";
  listener_->stop();
  EXPECT_TRUE(std::filesystem::exists(path_));
}

TEST_F(ServiceListenerTest, AStaleSocketIsReplaced) {
  std::filesystem::create_directories(scratch_.path("run"));
  {
    const FileDescriptor stale(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path_.data(), path_.size());
    ASSERT_EQ(::bind(stale.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(stale.get(), 1), 0);
  }
  ASSERT_TRUE(std::filesystem::exists(path_));
  start();
  EXPECT_TRUE(RawClient(path_).authenticate());
}

TEST_F(ServiceListenerTest, ALiveSocketIsNotReplaced) {
  start();
  EXPECT_EQ(failureOn(options_.address), "somebody else listens on " + path_ + ": Address already in use");
  EXPECT_TRUE(RawClient(path_).authenticate());
}

TEST_F(ServiceListenerTest, AFileThatIsNoSocketIsLeftAlone) {
  const std::string file = scratch_.path("file");
  const FileDescriptor made(::open(file.c_str(), O_CREAT | O_WRONLY, 0600));
  EXPECT_EQ(failureOn("unix:path=" + file), file + " is no socket: File exists");
  EXPECT_TRUE(std::filesystem::exists(file));
}

TEST_F(ServiceListenerTest, OnlyPathsAreAddresses) {
  for (const char* address : {"", "unix:", "unix:path=", "unix:abstract=x", "tcp:host=localhost", "/tmp/x",
                              "unix:path=/tmp/%zz", "unix:path=/tmp/%00"}) {
    EXPECT_EQ(failureOn(address), fmt::format("'{}' is no address of the form unix:path=PATH", address));
  }
  const auto ofLength = [](size_t length) { return "unix:path=/" + std::string(length - 1, 'x'); };
  EXPECT_TRUE(pathOfDBusAddress(ofLength(107)));
  EXPECT_NE(failureOn(ofLength(108)).find("File name too long"), std::string::npos);
  EXPECT_EQ(*pathOfDBusAddress("unix:path=/tmp/a%20b,guid=00"), "/tmp/a b");
}

// The service manager listens before the daemon runs, and goes on when it has ended.
TEST_F(ServiceListenerTest, ASocketOfTheServiceManagerIsUsed) {
  const std::string handedOver = scratch_.path("activated");
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, handedOver.data(), handedOver.size());
    bool isGood = ::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                  ::listen(socket.get(), 5) == 0;
    if (socket.get() != 3) isGood = isGood && ::dup2(socket.get(), 3) == 3;
    if (socket.get() == 3) (void)socket.release();
    ::setenv("LISTEN_FDS", "1", 1);
    ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
    start();
    isGood = isGood && listener_ != nullptr && RawClient(handedOver).authenticate() &&
             !std::filesystem::exists(path_);
    listener_.reset();
    isGood = isGood && std::filesystem::exists(handedOver);
    ::_exit(isGood ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(ServiceListenerTest, WhoComesDuringAPauseWaitsUntilItIsOver) {
  start();
  auto early = connect();
  waitForConnections(1);
  EXPECT_FALSE(listener_->hasWaitingClient());
  listener_->pause();
  RawClient late(path_);
  EXPECT_TRUE(late.isConnected());
  EXPECT_TRUE(listener_->hasWaitingClient());
  EXPECT_EQ(listener_->connectionCount(), 1u);
  listener_->resume();
  EXPECT_TRUE(late.authenticate());
  EXPECT_EQ(listener_->connectionCount(), 2u);
  EXPECT_FALSE(listener_->hasWaitingClient());
}

// Where the machine has no room for another thread nobody would be served after it.
TEST_F(ServiceListenerTest, APauseNeedsNoNewThread) {
  int threads = 0;
  options_.startThread = [&threads](std::function<void()> work) {
    ++threads;
    return std::thread(std::move(work));
  };
  start();
  for (int i = 0; i < 3; ++i) {
    listener_->pause();
    listener_->resume();
  }
  EXPECT_TRUE(RawClient(path_).authenticate());
  EXPECT_EQ(threads, 1);
}

// What waits inside counts as nothing: neither as a connection nor as one that waits.
TEST_F(ServiceListenerTest, WhoWasAcceptedBeforeAPauseIsServedBeforeIt) {
  std::atomic<bool> isHeld{false};
  std::atomic<bool> isReleased{false};
  writeRule(true);  // so that only who has waited is asked about
  delegate_.entitles = [&](const ServicePeer&) {
    isHeld = true;
    while (!isReleased) std::this_thread::yield();
    return true;
  };
  start();
  listener_->pause();
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int count = 0; count < 5; ++count) clients.push_back(std::make_unique<RawClient>(path_));
  listener_->resume();
  while (!isHeld) std::this_thread::yield();
  std::atomic<bool> isPausing{false};
  std::thread pausing([&] {
    isPausing = true;
    listener_->pause();
  });
  while (!isPausing) std::this_thread::yield();
  for (int count = 0; count < 1000; ++count) std::this_thread::yield();
  isReleased = true;
  pausing.join();
  EXPECT_EQ(listener_->connectionCount(), 5u);
  listener_.reset();  // its delegate uses what ends here
}

TEST_F(ServiceListenerTest, AStoppedListenerHasNoWaitingClient) {
  start();
  listener_->pause();
  RawClient late(path_);
  listener_->stop();
  EXPECT_FALSE(listener_->hasWaitingClient());
  listener_->resume();
  EXPECT_FALSE(RawClient(path_).isConnected());
}

TEST_F(ServiceListenerTest, AcceptingThreadThatIsHeldUpStandsStill) {
  const auto standsStill = [this] {
    return listener_->heartbeat()->standsStill(Heartbeat::Clock::now() + std::chrono::hours(1),
                                               std::chrono::minutes(1));
  };
  std::promise<void> isHeld;
  std::promise<void> release;
  std::atomic<bool> isFirst{true};
  delegate_.entitles = [&](const ServicePeer&) {
    if (isFirst.exchange(false)) {
      isHeld.set_value();
      release.get_future().wait();
    }
    return true;
  };
  start();
  EXPECT_FALSE(standsStill());
  RawClient client(path_);
  isHeld.get_future().wait();
  EXPECT_TRUE(standsStill());
  release.set_value();
  EXPECT_TRUE(client.authenticate());
  while (standsStill()) std::this_thread::yield();
  listener_->pause();
  EXPECT_FALSE(standsStill());  // as long as the pause may be
  listener_.reset();            // its delegate uses what ends here
}

// Threads that have ended and were never joined would keep their stacks.
TEST_F(ServiceListenerTest, ConnectionsThatHaveEndedLeaveNoStacks) {
  constexpr size_t kConnections = 200;
  const auto mappings = [] {
    std::ifstream maps("/proc/self/maps");
    return static_cast<size_t>(std::count(std::istreambuf_iterator<char>(maps), {}, '\n'));
  };
  start();
  const size_t before = mappings();
  for (size_t count = 0; count < kConnections; ++count) {
    ASSERT_TRUE(RawClient(path_).authenticate());
    waitForConnections(0);
  }
  EXPECT_LT(mappings(), before + kConnections);
}

TEST_F(ServiceListenerTest, ClientsWaitWhileNotOneDescriptorIsFreeAndTheLogSaysSoOnceEachTime) {
  start();
  std::vector<std::unique_ptr<RawClient>> early;
  for (int count = 0; count < 5; ++count) early.push_back(connect());
  waitForConnections(5);
  for (const size_t left : {3, 1}) {
    const FileDescriptor late(::socket(AF_UNIX, SOCK_STREAM, 0));
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{3, before.rlim_max};  // those of the standard streams
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path_.data(), path_.size());
    ASSERT_EQ(::connect(late.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    // Once one is free, the folder of the rules may want it just then.
    const std::string waits = "listener: connections have to wait: Too many open files";
    const auto isOfTheRules = [](const std::string& line) { return line.starts_with("entitlements: "); };
    std::vector<std::string> errors;
    while (errors.empty()) {
      errors = log_.takeErrors();
      std::erase_if(errors, isOfTheRules);
    }
    EXPECT_EQ(errors, std::vector<std::string>{waits});
    while (early.size() > left) {  // each end has the listener look again
      early.pop_back();
      waitForConnections(early.size());
    }
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    waitForConnections(left + 1);
    ::shutdown(late.get(), SHUT_RDWR);
    waitForConnections(left);
    errors = log_.takeErrors();
    std::erase_if(errors, isOfTheRules);
    EXPECT_EQ(errors, std::vector<std::string>());
  }
}

// Clients that come when descriptors have run out are turned away, not left to spin on.
TEST_F(ServiceListenerTest, RunningOutOfDescriptorsRefusesConnections) {
  start();
  RawClient early(path_);
  ASSERT_TRUE(early.authenticate());
  ASSERT_TRUE(delegate_.events->wait("accepted"));  // and asked again who it is, which takes descriptors
  constexpr size_t kClients = 8;
  std::vector<FileDescriptor> clients;
  for (size_t count = 0; count < kClients; ++count) clients.emplace_back(::socket(AF_UNIX, SOCK_STREAM, 0));
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit tight = before;
  tight.rlim_cur = static_cast<rlim_t>(clients.back().get()) + 20;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
  {
    std::vector<FileDescriptor> fillers;
    do {
      fillers.emplace_back(::dup(0));
    } while (fillers.back().isOpen());
    for (const FileDescriptor& client : clients) {
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      std::memcpy(address.sun_path, path_.data(), path_.size());
      ASSERT_EQ(::connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
      char byte = 0;
      EXPECT_LE(::recv(client.get(), &byte, 1, 0), 0);
    }
  }
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  clock_.advance(RefusalLog::kInterval);
  // The first is told at once, with the next the second is over.
  EXPECT_TRUE(RawClient(path_).authenticate());
  expectErrors({"listener: a connection is refused: Too many open files",
                "listener: 7 more connections are refused: Too many open files"});
  EXPECT_TRUE(RawClient(path_).authenticate());
}

/// As long as it lives, this process can open so many descriptors more and not one beyond.
class FewDescriptors final {
 public:
  explicit FewDescriptors(size_t free) {
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &before_), 0);
    rlimit tight = before_;
    tight.rlim_cur = static_cast<rlim_t>(FileDescriptor(::dup(0)).get()) + 40;
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
    do {
      fillers_.emplace_back(::dup(0));
    } while (fillers_.back().isOpen());
    fillers_.resize(fillers_.size() - 1 - free);
  }
  ~FewDescriptors() { EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &before_), 0); }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;

 private:
  rlimit before_{};
  std::vector<FileDescriptor> fillers_;
};

// What it runs is read from files. Short of descriptors, nothing is known of it, not even that.
TEST_F(ServiceListenerTest, WhoseProgramCannotBeReadForAShortageIsNotSaidToLackAnEntitlement) {
  writeRule(true);
  delegate_.entitles = [](const ServicePeer& peer) { return peer.booleanEntitlement("e").value_or(false); };
  start();
  RawClient early(path_);
  waitForConnections(1);  // it has been accepted, and not yet been asked again
  const FileDescriptor late(::socket(AF_UNIX, SOCK_STREAM, 0));
  const std::string process = fmt::format("pid {}, user {}, ", ::getpid(), ::getuid());
  const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
  const std::string rulesStay = fmt::format(
      "entitlements: the rules stay as they are: {}: Too many open files", scratch_.path("entitlements.d"));
  {
    const FewDescriptors few(1);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path_.data(), path_.size());
    ASSERT_EQ(::connect(late.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    char byte = 0;
    EXPECT_EQ(::recv(late.get(), &byte, 1, 0), 0);
  }
  RawClient next(path_);
  EXPECT_TRUE(next.authenticate());  // the refusal is not remembered
  ASSERT_TRUE(delegate_.events->wait("accepted"));
  clock_.advance(RefusalLog::kInterval);
  {
    const FewDescriptors none(0);
    early.authenticate();
    EXPECT_TRUE(early.isEnded());
  }
  listener_.reset();  // its delegate uses what ends here
  EXPECT_THAT(
      log_.takeErrors(),
      ::testing::ElementsAre(
          rulesStay, "listener: connections have to wait: Too many open files",
          "listener: a connection of " + process + "unknown executable is refused: Too many open files",
          rulesStay, "listener: a connection of " + process + program + " is refused: Too many open files"));
}

// --- Who is served ------------------------------------------------------------------

// A stranger must cost nothing that the entitled need: it does not wait among them, and what it
// runs is asked for the line that is written alone.
TEST_F(ServiceListenerTest, WhoIsNotEntitledIsTurnedAwayBeforeAnythingIsMade) {
  std::atomic<bool> isEntitled{false};
  delegate_.entitles = [&](const ServicePeer&) { return isEntitled.load(); };
  options_.maximumConnectionsPerUser = 1;
  auto created = DBusServiceListener::create(options_, entitlements_, log_);
  ASSERT_TRUE(created);
  listener_ = std::move(*created);
  listener_->setConnectionCountHandler([this](size_t) { delegate_.events->add("counted"); });
  listener_->setDelegate(&delegate_);
  listener_->resume();
  for (int count = 0; count < 5; ++count) EXPECT_TRUE(RawClient(path_).isEnded());
  EXPECT_EQ(delegate_.events->all(), std::vector<std::string>());
  EXPECT_EQ(log_.linesOf(LogLevel::kDefault),
            (std::vector<std::string>{"listener: a connection of " + peerName() +
                                      " is refused: it is not entitled"}));
  clock_.advance(RefusalLog::kInterval);
  isEntitled = true;
  EXPECT_TRUE(RawClient(path_).authenticate());
  ASSERT_TRUE(delegate_.events->wait("accepted"));
  // Told when the accepting thread looks again.
  while (log_.linesOf(LogLevel::kDefault).size() < 2) std::this_thread::yield();
  EXPECT_EQ(log_.linesOf(LogLevel::kDefault)[1],
            "listener: 4 more connections are refused, the last of pid " + std::to_string(::getpid()) +
                ", user " + std::to_string(::getuid()) + ", unknown executable: it is not entitled");
  listener_.reset();  // its delegate uses what ends here
}

// A loop of connects and ends costs nothing but the accepting.
TEST_F(ServiceListenerTest, WhoHasLeftAgainIsNotAskedForItsName) {
  std::atomic<int> asked{0};
  writeRule(true);
  delegate_.entitles = [&](const ServicePeer&) { return ++asked > 0; };
  start();
  listener_->pause();
  for (int count = 0; count < 5; ++count) RawClient(path_).close();
  RawClient halfClosed(path_);
  halfClosed.shutdownWriting();
  listener_->resume();
  EXPECT_TRUE(halfClosed.isEnded());
  EXPECT_TRUE(RawClient(path_).authenticate());
  ASSERT_TRUE(delegate_.events->wait("accepted"));
  EXPECT_EQ(asked, 2);  // when it connected, and once authenticated
  listener_.reset();    // its delegate uses what ends here
}

// Sent and gone is not gone: what it sent counts.
TEST_F(ServiceListenerTest, WhoHasSentBeforeItLeftIsServed) {
  start();
  listener_->pause();
  RawClient client(path_);
  client.send(std::string("\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n", 29));
  client.shutdownWriting();
  listener_->resume();
  ASSERT_TRUE(delegate_.events->wait("accepted"));
}

// So that a loop of connects costs little; and only for a moment.
TEST_F(ServiceListenerTest, ARefusalIsRememberedForATenthOfASecond) {
  std::atomic<int> asked{0};
  writeRule(false);
  delegate_.entitles = [&](const ServicePeer& peer) {
    ++asked;
    return peer.booleanEntitlement("e").value_or(false);
  };
  start();
  EXPECT_TRUE(RawClient(path_).isEnded());
  writeRule(true);
  clock_.advance(RecentRefusals::kKept - std::chrono::nanoseconds(1));
  EXPECT_TRUE(RawClient(path_).isEnded());
  EXPECT_EQ(asked, 2);
  clock_.advance(std::chrono::nanoseconds(1));
  EXPECT_TRUE(RawClient(path_).authenticate());
  listener_.reset();  // its delegate uses what ends here
}

TEST_F(ServiceListenerTest, WhatTheRulesSayOnceAuthenticatedCounts) {
  writeRule(true);
  start();
  RawClient client(path_);
  waitForConnections(1);
  writeRule(false);
  ASSERT_TRUE(client.authenticate());
  ASSERT_TRUE(delegate_.events->wait("accepted"));
  EXPECT_EQ(delegate_.connection()->booleanEntitlement("e"), false);
}

TEST_F(ServiceListenerTest, WhoIsNoLongerEntitledOnceAuthenticatedIsTurnedAway) {
  writeRule(true);
  delegate_.entitles = [](const ServicePeer& peer) { return peer.booleanEntitlement("e").value_or(false); };
  start();
  RawClient client(path_);
  waitForConnections(1);
  writeRule(false);
  ASSERT_TRUE(client.authenticate());
  EXPECT_TRUE(client.isEnded());
  waitForConnections(0);
  EXPECT_EQ(delegate_.events->all(), std::vector<std::string>());  // not asked to accept it
  EXPECT_EQ(log_.linesOf(LogLevel::kDefault),
            (std::vector<std::string>{"listener: a connection of " + peerName() +
                                      " is refused: it is no longer entitled"}));
}

}  // namespace
}  // namespace zun
