#include "linux/dbus/DBusOutput.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <thread>

#include "support/RecordingLog.h"

namespace zun {
namespace {

/// One-way calls over a socket whose other end reads when the test says so.
class DBusOutputTest : public ::testing::Test {
 protected:
  DBusOutputTest() {
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets_.data()), 0);
    output_ = std::make_shared<DBusOutput>(sockets_[0], wake_, DBusLimits{},
                                           DBusOutputLimits{.highWaterBytes = 64 << 10}, log_, "the peer");
  }
  ~DBusOutputTest() override {
    output_->close();
    for (const int descriptor : {sockets_[0], sockets_[1], wake_}) ::close(descriptor);
  }

  std::optional<std::string> call(size_t bytes = 4000) {
    DBusHeader header;
    header.flags = kDBusFlagNoReplyExpected;
    header.path = "/client";
    header.interface = "com.vantix.Client";
    header.member = "call";
    header.signature = "s";
    return output_->sendCall(header, Array{std::string(bytes, 'x')});
  }
  /// Calls until one is dropped; gives why.
  std::string callUntilDropped() {
    while (true) {
      if (const auto failure = call()) return *failure;
    }
  }
  void readAll() {
    std::array<char, 65536> buffer{};
    while (::recv(sockets_[1], buffer.data(), buffer.size(), MSG_DONTWAIT) > 0) {
    }
  }
  /// True once for each time that the connection's thread was woken and not yet asked.
  bool wasWoken() {
    uint64_t count = 0;
    return ::read(wake_, &count, sizeof count) == sizeof count;
  }

  RecordingLog log_;
  std::array<int, 2> sockets_{};
  const int wake_ = ::eventfd(0, EFD_NONBLOCK);
  std::shared_ptr<DBusOutput> output_;
};

// What waits for the next flush is not what the peer has failed to read.
TEST_F(DBusOutputTest, CallsOfTheConnectionsThreadAreWrittenBeforeOneIsDropped) {
  output_->setConnectionThread();
  for (int count = 0; count < 30; ++count) ASSERT_EQ(call(), std::nullopt) << count;
  output_->flush();
  EXPECT_EQ(output_->queuedBytes(), 0u);
}

TEST_F(DBusOutputTest, DroppedCallTellsWhyAndLeavesTheLogToItsCaller) {
  EXPECT_EQ(callUntilDropped(), "the peer does not read what it is sent");
  EXPECT_LE(output_->queuedBytes(), size_t{64} << 10);
  EXPECT_TRUE(log_.lines().empty());
  readAll();
  output_->flush();
  EXPECT_EQ(call(), std::nullopt);
}

TEST_F(DBusOutputTest, CallAfterTheEndTellsSo) {
  output_->drop();
  EXPECT_EQ(call(), "the connection has ended");
}

TEST_F(DBusOutputTest, ConnectionsThreadIsWokenForTheFirstMessageThatTheSocketDoesNotTake) {
  EXPECT_EQ(call(), std::nullopt);
  EXPECT_FALSE(wasWoken());
  callUntilDropped();
  EXPECT_TRUE(wasWoken());
  callUntilDropped();
  EXPECT_FALSE(wasWoken());  // it knows, and waits for room
  readAll();
  output_->flush();
  ASSERT_EQ(output_->queuedBytes(), 0u);
  callUntilDropped();
  EXPECT_TRUE(wasWoken());
}

}  // namespace
}  // namespace zun
