#include "linux/dbus/DBusOutput.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <thread>
#include <vector>

#include "support/RecordingLog.h"

namespace zun {
namespace {

/// One-way calls over a socket whose other end reads when the test says so.
class DBusOutputTest : public ::testing::Test {
 protected:
  DBusOutputTest() {
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets_.data()), 0);
    output_ = std::make_shared<DBusOutput>(
        sockets_[0], wake_, DBusLimits{}, DBusOutputLimits{.highWaterBytes = 64 << 10},
        std::make_shared<MemoryBudget>(0), BudgetHolder{}, log_, "the peer");
  }
  ~DBusOutputTest() override {
    output_->close();
    for (const int descriptor : sockets_) ::close(descriptor);
  }

  std::optional<std::string> call(size_t bytes = 4000) {
    DBusHeader header;
    header.flags = kDBusFlagNoReplyExpected;
    header.path = "/client";
    header.interface = "com.vantix.Client";
    header.member = "call";
    header.signature = "s";
    return output_->sendCall(header, *encodeDBusBody(header.signature, Array{std::string(bytes, 'x')}));
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
  bool wasWoken() { return wake_.take(); }

  RecordingLog log_;
  std::array<int, 2> sockets_{};
  const WakeDescriptor wake_;
  std::shared_ptr<DBusOutput> output_;
};

// What waits for the next flush is not what the peer has failed to read.
TEST_F(DBusOutputTest, CallsOfTheConnectionsThreadAreWrittenBeforeOneIsDropped) {
  output_->setConnectionThread(std::this_thread::get_id());
  for (int count = 0; count < 30; ++count) ASSERT_EQ(call(), std::nullopt) << count;
  output_->flush();
  EXPECT_EQ(output_->queuedBytes(), 0u);
}

TEST_F(DBusOutputTest, DroppedCallTellsWhyAndLeavesTheLogToItsCaller) {
  EXPECT_EQ(callUntilDropped(), "the peer does not read what it is sent");
  EXPECT_LE(output_->queuedBytes(), (size_t{64} << 10) + 5000);  // one more than the limit
  EXPECT_TRUE(log_.lines().empty());
  readAll();
  output_->flush();
  EXPECT_EQ(call(), std::nullopt);
}

// A client that gets copies of what it sends is read while there is room: what it then sent
// has room for its copy, be it the last.
TEST_F(DBusOutputTest, AsLongAsThereIsRoomForTheClientsCallsThereIsForOneToTheClient) {
  while (output_->hasRoom()) ASSERT_EQ(call(), std::nullopt);
  EXPECT_GT(output_->queuedBytes(), size_t{64} << 10);
  EXPECT_EQ(call(), "the peer does not read what it is sent");
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

/// Replies with a text that may be left out, and a peer that reads them when asked to.
class DBusReplyTest : public ::testing::Test {
 protected:
  static constexpr size_t kLargeBytes = size_t{2} << 20;  // more than a client's message may have
  static constexpr size_t kLongestText = size_t{32} << 20;
  static constexpr size_t kHighWaterBytes = DBusOutputLimits().highWaterBytes;
  static constexpr size_t kTextBytes = 100'000;
  static constexpr size_t kCallBytes = kTextBytes + 1000;

  /// One connection of the user.
  struct Peer {
    explicit Peer(DBusReplyTest& test, BudgetHolder holder = {}) {
      EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets.data()), 0);
      output = std::make_shared<DBusOutput>(sockets[0], test.wake_, DBusLimits{}, DBusOutputLimits{},
                                            test.budget_, holder, test.log_, "the peer");
    }
    ~Peer() {
      output->close();
      for (const int descriptor : sockets) ::close(descriptor);
    }
    void reply(size_t textBytes) {
      output->sendReturn(1, "as", Array{Array{std::string(textBytes, 'x')}}, &kWithoutText);
    }
    /// Lets all that waits come, and gives the size of the text of each reply, -1 for none.
    std::vector<int64_t> read() {
      std::string bytes;
      std::vector<char> buffer(size_t{1} << 20);
      ssize_t count = 0;
      do {
        output->flush();
        count = ::recv(sockets[1], buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (count > 0) bytes.append(buffer.data(), static_cast<size_t>(count));
      } while (count > 0);
      return textSizes(bytes);
    }
    /// Reads this much, and drops it.
    void read(size_t count) {
      std::vector<char> buffer(count);
      while (count > 0) {
        const ssize_t taken = ::recv(sockets[1], buffer.data(), count, MSG_DONTWAIT);
        ASSERT_GT(taken, 0);
        count -= static_cast<size_t>(taken);
        output->flush();
      }
    }
    std::optional<std::string> call() {
      DBusHeader header;
      header.flags = kDBusFlagNoReplyExpected;
      header.path = "/client";
      header.member = "call";
      header.signature = "s";
      return output->sendCall(header, *encodeDBusBody(header.signature, Array{std::string(kTextBytes, 'x')}));
    }
    void callUntilDropped() {
      while (!call()) {
      }
    }
    static std::vector<int64_t> textSizes(std::string_view bytes) {
      const DBusLimits limits{.maximumDecodedBytes = size_t{64} << 20};
      std::vector<int64_t> sizes;
      while (!bytes.empty()) {
        const auto frame = frameDBusMessage(bytes);
        if (!frame || frame->totalBytes > bytes.size()) return {};
        const auto header = decodeDBusHeader(bytes.substr(0, frame->headerBytes));
        EXPECT_EQ(header->type, DBusMessageType::kMethodReturn);
        const auto body = decodeDBusBody(
            *header, bytes.substr(frame->headerBytes, frame->totalBytes - frame->headerBytes), limits);
        const Array* const text = (*body)[0].array();
        sizes.push_back(text->empty() ? -1 : static_cast<int64_t>((*text)[0].stringValue().size()));
        bytes.remove_prefix(frame->totalBytes);
      }
      return sizes;
    }

    std::array<int, 2> sockets{};
    std::shared_ptr<DBusOutput> output;
  };

  void TearDown() override { EXPECT_EQ(log_.takeErrors(), std::vector<std::string>()); }
  void expectLeftOut(const std::string& reason) {
    EXPECT_EQ(log_.takeErrors(), std::vector<std::string>{
                                     "listener: an answer to the peer is sent without its text: " + reason});
  }

  static inline const Array kWithoutText{Array()};
  const WakeDescriptor wake_;
  RecordingLog log_;
  const size_t budgetBytes_ = size_t{64} << 20;
  std::shared_ptr<MemoryBudget> budget_ = std::make_shared<MemoryBudget>(budgetBytes_);
};

constexpr const char* kNoRoom = "too much waits to be read already";

TEST_F(DBusReplyTest, TextOf32MiBIsSentAndALongerOneLeftOut) {
  Peer peer(*this);
  peer.reply(kLongestText);
  EXPECT_EQ(peer.read(), std::vector<int64_t>{kLongestText});
  peer.reply(kLongestText + 1);
  EXPECT_EQ(peer.read(), std::vector<int64_t>{-1});
  expectLeftOut("a text is too long");
}

TEST_F(DBusReplyTest, ReplyThatIsTooLargeInAllIsSentWithoutItsText) {
  Peer peer(*this);
  const Array texts{Array{std::string(kLongestText, 'x'), std::string(kLongestText, 'y')}};
  peer.output->sendReturn(1, "as", texts, &kWithoutText);
  EXPECT_EQ(peer.read(), std::vector<int64_t>{-1});
  expectLeftOut("the message is too large");
}

TEST_F(DBusReplyTest, OneLargeReplyWaitsAndTheNextIsSentWithoutItsText) {
  Peer peer(*this);
  peer.reply(kLargeBytes);
  peer.reply(kLargeBytes);
  expectLeftOut(kNoRoom);
  peer.reply(100);
  EXPECT_FALSE(peer.output->hasRoom());  // and no further call is read
  EXPECT_EQ(peer.read(), (std::vector<int64_t>{kLargeBytes, -1, 100}));
  peer.reply(kLargeBytes);
  EXPECT_EQ(peer.read(), std::vector<int64_t>{kLargeBytes});
}

// A client that sends many calls at once, and reads, must not lose a text for it.
TEST_F(DBusReplyTest, LargeReplyFindsRoomBehindWhatCallsMayLeaveWaiting) {
  Peer peer(*this);
  peer.output->setConnectionThread(std::this_thread::get_id());  // nothing is written before the flush
  peer.reply((size_t{1} << 20) - 200);
  ASSERT_TRUE(peer.output->hasRoom());
  peer.reply(kLargeBytes);
  EXPECT_EQ(peer.read(), (std::vector<int64_t>{(size_t{1} << 20) - 200, kLargeBytes}));
}

TEST_F(DBusReplyTest, LargeRepliesOfAUsersConnectionsAreBoundedTogether) {
  budget_ = std::make_shared<MemoryBudget>(kLargeBytes + 1000);
  Peer first(*this);
  Peer second(*this);
  first.reply(kLargeBytes);
  second.reply(kLargeBytes);
  expectLeftOut(kNoRoom);
  second.reply(size_t{1} << 19);  // no larger than a message may be: not counted
  EXPECT_EQ(first.read(), std::vector<int64_t>{kLargeBytes});
  second.reply(kLargeBytes);
  EXPECT_EQ(second.read(), (std::vector<int64_t>{-1, 1 << 19, kLargeBytes}));
}

TEST_F(DBusReplyTest, LargeReplyIsHeldToTheShareOfItsHolder) {
  budget_ = std::make_shared<MemoryBudget>(3 * kLargeBytes);
  Peer client(*this, {1000, 1});
  client.reply(kLargeBytes);
  expectLeftOut(kNoRoom);
  Peer daemon(*this);
  daemon.reply(kLargeBytes);
  EXPECT_EQ(daemon.read(), std::vector<int64_t>{kLargeBytes});
}

TEST_F(DBusReplyTest, LargeReplyIsCountedUntilItHasBeenReadAndNoLonger) {
  Peer peer(*this);
  peer.reply(kLargeBytes);
  EXPECT_LT(budget_->left(), budgetBytes_ - kLargeBytes);
  peer.read(kLargeBytes - (size_t{256} << 10));
  EXPECT_GT(budget_->left(), budgetBytes_ - kLargeBytes / 2);
  peer.read();
  EXPECT_EQ(budget_->left(), budgetBytes_);
}

TEST_F(DBusReplyTest, LargeReplyIsNotCountedBeyondTheEndOfItsConnection) {
  Peer dropped(*this);
  dropped.reply(kLargeBytes);
  dropped.output->drop();
  EXPECT_EQ(budget_->left(), budgetBytes_);
  Peer closed(*this);
  closed.reply(kLargeBytes);
  closed.output->close();
  EXPECT_EQ(budget_->left(), budgetBytes_);
}

// Connections are many and idle for long: what one answer took must not stay with each.
TEST_F(DBusReplyTest, MemoryOfAReplyGoesWithIt) {
  const auto allocatedBytes = [] {
    const struct mallinfo2 information = ::mallinfo2();
    return information.uordblks + information.hblkhd;
  };
  Peer peer(*this);
  peer.reply(100);
  peer.read();
  const size_t before = allocatedBytes();
  for (const size_t bytes : {size_t{900} << 10, kLargeBytes}) {
    peer.reply(bytes);
    peer.read();
    EXPECT_LT(allocatedBytes(), before + bytes / 4);
  }
}

TEST_F(DBusReplyTest, ErrorsHaveANameOfTheProtocol) {
  Peer peer(*this);
  peer.output->sendError(1, "no name", "text");
  std::array<char, 1000> buffer{};
  const ssize_t count = ::recv(peer.sockets[1], buffer.data(), buffer.size(), 0);
  ASSERT_GT(count, 0);
  const auto header = decodeDBusHeader({buffer.data(), static_cast<size_t>(count)});
  ASSERT_TRUE(header);
  EXPECT_EQ(header->errorName, "org.freedesktop.DBus.Error.Failed");
}

TEST_F(DBusReplyTest, TextsThatWouldEndTheConnectionAreLeftOut) {
  Peer peer(*this);
  constexpr size_t kReplies = 10;
  for (size_t count = 0; count < kReplies; ++count) peer.reply(size_t{900} << 10);
  EXPECT_FALSE(peer.output->isClosed());
  const auto errors = log_.takeErrors();
  const auto sizes = peer.read();
  EXPECT_EQ(sizes.size(), kReplies);
  EXPECT_EQ(std::count(sizes.begin(), sizes.end(), -1), static_cast<ptrdiff_t>(errors.size()));
  EXPECT_GE(errors.size(), kReplies - 5);  // 4 MiB may wait, beside what the socket takes
  EXPECT_LE(errors.size(), kReplies - 4);
}

// The copies that an aggregating client gets are bounded beside it, not behind it.
TEST_F(DBusReplyTest, CallsOfThePeerAreQueuedBesideALargeReply) {
  Peer peer(*this);
  peer.reply(kLargeBytes);
  EXPECT_EQ(peer.call(), std::nullopt);
}

TEST_F(DBusReplyTest, CallsBesideALargeReplyGainNoRoomFromWhatHasBeenReadOfIt) {
  Peer peer(*this);
  peer.reply(kLongestText);
  peer.read(size_t{10} << 20);
  const size_t before = peer.output->queuedBytes();
  peer.callUntilDropped();
  EXPECT_GT(peer.output->queuedBytes(), before + kHighWaterBytes / 2);
  EXPECT_LE(peer.output->queuedBytes(), before + kHighWaterBytes + kCallBytes);
}

TEST_F(DBusReplyTest, LargeReplyThatHasBeenReadIsNotCountedWhileCallsBehindItWait) {
  Peer peer(*this);
  peer.reply(kLargeBytes);
  peer.callUntilDropped();
  peer.read(kLargeBytes + kHighWaterBytes / 2);
  ASSERT_GT(peer.output->queuedBytes(), kCallBytes);
  EXPECT_EQ(budget_->left(), budgetBytes_);
  peer.callUntilDropped();
  EXPECT_LE(peer.output->queuedBytes(), kHighWaterBytes + 2 * kCallBytes);
}

TEST_F(DBusReplyTest, LargeReplyThatFollowsTheRestOfAnotherIsCountedAlone) {
  Peer peer(*this);
  peer.reply(kLargeBytes);
  peer.read(kLargeBytes * 3 / 4);
  ASSERT_GT(peer.output->queuedBytes(), 0u);
  peer.reply(kLargeBytes);
  EXPECT_GE(budget_->left(), budgetBytes_ - kLargeBytes - 1000);
  peer.read();
  EXPECT_EQ(budget_->left(), budgetBytes_);
}

TEST_F(DBusReplyTest, LargeReplyThatHasNoShorterFormAndNoRoomIsAnError) {
  budget_ = std::make_shared<MemoryBudget>(0);
  Peer peer(*this);
  peer.output->sendReturn(1, "s", Array{std::string(kLargeBytes, 'x')});
  EXPECT_EQ(log_.takeErrors(), std::vector<std::string>{"listener: an answer to the peer cannot be sent: " +
                                                        std::string(kNoRoom)});
  char start[2] = {};
  ASSERT_EQ(::recv(peer.sockets[1], start, sizeof start, 0), 2);
  EXPECT_EQ(static_cast<DBusMessageType>(start[1]), DBusMessageType::kError);
}

}  // namespace
}  // namespace zun
