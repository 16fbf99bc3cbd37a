// Connections that rest: served by this thread for a while, and by another later.

#include <malloc.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <thread>

#include "DBusRawService.h"

namespace zun {
namespace {

class RestingConnectionTest : public ::testing::Test {
 protected:
  using Outcome = DBusServiceConnection::Outcome;

  void SetUp() override {
    int ends[2] = {-1, -1};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const timeval longest{30, 0};
    ASSERT_EQ(::setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof longest), 0);
    client_.emplace(FileDescriptor(ends[0]));
    PeerIdentity peer;
    peer.process = ::getpid();
    peer.user = ::getuid();
    DBusConnectionOptions options;
    options.restAfter = std::chrono::milliseconds(0);
    connection_ = DBusServiceConnection::create(FileDescriptor(ends[1]), KnownPeer(peer, {}),
                                                std::string(32, '0'), options, log_);
    ASSERT_NE(connection_, nullptr);
    client_->send(std::string("\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n", 29));
  }
  void TearDown() override {
    delegate_.forget();
    EXPECT_EQ(log_.takeErrors(), std::vector<std::string>());
  }
  Outcome run() { return connection_->run(&delegate_, connection_); }
  void end() {
    client_->close();
    EXPECT_EQ(run(), Outcome::kEnded);
  }
  /// The daemon's part of the authentication.
  void skipAuthentication() {
    EXPECT_EQ(client_->receiveLine(), "DATA");
    EXPECT_TRUE(client_->receiveLine().starts_with("OK "));
  }

  RecordingLog log_;
  EchoDelegate delegate_;
  std::optional<RawClient> client_;
  std::shared_ptr<DBusServiceConnection> connection_;
};

TEST_F(RestingConnectionTest, RestsWhereNothingIsToBeDoneAndGoesOnWithTheNextCall) {
  EXPECT_EQ(run(), Outcome::kRests);
  skipAuthentication();
  EXPECT_EQ(run(), Outcome::kRests);  // for nothing
  client_->send(describeCall(7));
  EXPECT_EQ(run(), Outcome::kRests);
  const auto message = client_->receiveMessage();
  ASSERT_TRUE(message);
  EXPECT_EQ(message->header.replySerial, 7u);
  EXPECT_EQ(delegate_.events->count("accepted"), 1u);
  end();
}

// Connections are many and rest for long.
TEST_F(RestingConnectionTest, WhatWasReadIntoGoesBackWhereItRests) {
  constexpr size_t kLittle = size_t{16} << 10;
  const auto allocatedBytes = [] {
    const struct mallinfo2 information = ::mallinfo2();
    return information.uordblks + information.hblkhd;
  };
  const size_t before = allocatedBytes();
  EXPECT_EQ(run(), Outcome::kRests);
  skipAuthentication();
  for (uint32_t serial = 1; serial < 3; ++serial) {
    EXPECT_LT(allocatedBytes(), before + kLittle) << serial;
    client_->send(describeCall(serial));
    EXPECT_EQ(run(), Outcome::kRests);
    EXPECT_TRUE(client_->receiveMessage());
  }
  EXPECT_LT(allocatedBytes(), before + kLittle);
  end();
}

// The thread that served it last serves others, and what it sends on their behalf must not wait.
TEST_F(RestingConnectionTest, WhatItsLastThreadSendsGoesOutAtOnce) {
  EXPECT_EQ(run(), Outcome::kRests);
  skipAuthentication();
  const auto call = connection_->encodeCall(0, Array{7, Array()});
  ASSERT_TRUE(call) << call.error();
  EXPECT_EQ(connection_->callRemote(**call), std::nullopt);
  EXPECT_TRUE(client_->receiveMessage());
  end();
}

TEST_F(RestingConnectionTest, WhatIsOwedToAHalfClosedClientIsGivenOnAnotherThread) {
  client_->send(laterCall(3));
  EXPECT_EQ(run(), Outcome::kRests);
  skipAuthentication();
  client_->shutdownWriting();
  std::thread other([this] { EXPECT_EQ(run(), Outcome::kEnded); });
  ASSERT_TRUE(delegate_.events->wait("interrupted"));
  delegate_.object()->answerLater("at last");
  const auto message = client_->receiveMessage();
  other.join();
  ASSERT_TRUE(message);
  EXPECT_EQ(message->header.replySerial, 3u);
}

TEST_F(RestingConnectionTest, AnInvalidationIsReadable) {
  EXPECT_EQ(run(), Outcome::kRests);
  connection_->invalidate();
  eventfd_t count = 0;
  EXPECT_EQ(::eventfd_read(connection_->descriptors()[1], &count), 0);
  EXPECT_EQ(run(), Outcome::kEnded);
}

TEST_F(RestingConnectionTest, AReplyThatWasOwedWakesNobody) {
  client_->send(laterCall(3));
  EXPECT_EQ(run(), Outcome::kRests);
  skipAuthentication();
  eventfd_t count = 0;
  while (::eventfd_read(connection_->descriptors()[1], &count) == 0) continue;  // of the resumption
  delegate_.object()->answerLater("now");
  EXPECT_TRUE(client_->receiveMessage());
  EXPECT_NE(::eventfd_read(connection_->descriptors()[1], &count), 0);
  end();
}

}  // namespace
}  // namespace zun
