#include "linux/dbus/DBusInput.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/stat.h>

#include "DBusPeer.h"
#include "linux/files/ProcessLimits.h"
#include "support/DescriptorCount.h"
#include "support/DescriptorLimit.h"

namespace zun {
namespace {

using Received = DBusInput::Received;
using Texts = std::vector<std::string>;

constexpr size_t kUsualBuffer = size_t{32} << 10;
constexpr size_t kBudget = size_t{4} << 20;

std::string callOf(uint32_t serial, const std::string& text, const WireBytes& order = WireBytes()) {
  WireBytes body(order.order());
  return wireCall({.member = "Later", .signature = "s", .serial = serial}, body.text(text));
}

/// A call that is so many bytes long.
std::string callOfBytes(uint32_t serial, size_t bytes) {
  return callOf(serial, std::string(bytes - callOf(serial, "").size(), 'x'));
}

std::string described(const DBusIncomingMessage& message) {
  using State = DBusIncomingMessage::State;
  if (message.state == State::kMalformed) return std::string("malformed: ") + message.reason;
  const std::string call =
      fmt::format("{} {} {}", message.header.serial, message.header.member, message.totalBytes);
  if (message.state == State::kTooLarge) return call + " too large";
  const auto body = decodeDBusBody(message.header, message.body);
  if (!body) return call + " " + body.error().reason;
  return call + " " + (body->empty() ? "" : std::string((*body)[0].stringValue()));
}

std::string whole(const std::string& bytes, uint32_t serial, const std::string& text) {
  return fmt::format("{} Later {} {}", serial, bytes.size(), text);
}

class DBusInputTest : public ::testing::Test {
 protected:
  DBusInputTest() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    peer_ = std::make_unique<RawClient>(FileDescriptor(ends[0]));
    socket_ = FileDescriptor(ends[1]);
    file_ = FileDescriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    otherFile_ = FileDescriptor(::open("/dev/zero", O_RDONLY | O_CLOEXEC));
  }

  std::unique_ptr<DBusInput> makeInput(size_t maximumMessageBytes = size_t{1} << 20) {
    return std::make_unique<DBusInput>(DBusLimits{.maximumMessageBytes = maximumMessageBytes}, budget_,
                                       BudgetHolder{});
  }

  /// The messages that are there.
  static Texts take(DBusInput& input) {
    Texts messages;
    while (const auto message = input.takeMessage()) {
      messages.push_back(described(*message));
      if (message->state == DBusIncomingMessage::State::kMalformed) break;
    }
    return messages;
  }

  /// The messages of `bytes`, which come in pieces of so many bytes.
  Texts feed(DBusInput& input, std::string_view bytes, size_t piece) {
    Texts messages;
    for (; !bytes.empty(); bytes.remove_prefix(std::min(piece, bytes.size()))) {
      peer_->send(bytes.substr(0, piece));
      while (input.receive(socket_.get()) == Received::kData) {
        for (std::string& message : take(input)) messages.push_back(std::move(message));
      }
    }
    return messages;
  }

  /// What descriptors of the next message refer to, in their order.
  Texts descriptorsOfNext(DBusInput& input) {
    const auto message = input.takeMessage();
    if (!message) return {"no message"};
    if (message->state == DBusIncomingMessage::State::kMalformed) return {message->reason};
    Texts names;
    for (const FileDescriptor& descriptor : message->descriptors) {
      if (!descriptor.isOpen()) {
        names.push_back("closed");
        continue;
      }
      names.push_back(std::filesystem::read_symlink(fmt::format("/proc/self/fd/{}", descriptor.get())));
    }
    return names;
  }

  std::shared_ptr<MemoryBudget> budget_ = std::make_shared<MemoryBudget>(kBudget);
  std::unique_ptr<RawClient> peer_;
  FileDescriptor socket_;
  FileDescriptor file_;
  FileDescriptor otherFile_;
};

// --- Messages -----------------------------------------------------------------------

TEST_F(DBusInputTest, MessagesComeInPiecesOfAnySize) {
  const std::string first = callOf(1, "one");
  const std::string second = callOf(2, std::string(300, 'b'));
  const std::string third = callOf(3, "other order", WireBytes(std::endian::big));
  const std::string bytes = first + second + third;
  for (size_t piece = 1; piece <= bytes.size(); ++piece) {
    const auto input = makeInput();
    EXPECT_EQ(feed(*input, bytes, piece),
              (Texts{whole(first, 1, "one"), whole(second, 2, std::string(300, 'b')),
                     whole(third, 3, "other order")}))
        << piece;
    EXPECT_EQ(input->buffered(), "");
  }
}

TEST_F(DBusInputTest, AnOversizedMessageIsToldAndSkippedWhateverItsPieces) {
  const std::string before = callOf(1, "before");
  const std::string oversized = callOfBytes(2, 601);
  const std::string behind = callOf(3, "behind");
  const Texts expected{whole(before, 1, "before"), "2 Later 601 too large", whole(behind, 3, "behind")};
  const std::string bytes = before + oversized + behind;
  for (size_t piece = 1; piece <= bytes.size(); ++piece) {
    const auto input = makeInput(600);
    EXPECT_EQ(feed(*input, bytes, piece), expected) << piece;
    EXPECT_EQ(input->buffered(), "");
  }
}

TEST_F(DBusInputTest, AMessageOfTheLargestSizeIsWhole) {
  const auto input = makeInput(600);
  const std::string largest = callOfBytes(1, 600);
  const std::string text(600 - callOf(1, "").size(), 'x');
  EXPECT_EQ(feed(*input, largest, 600), Texts{whole(largest, 1, text)});
}

// Its sender is told by the header, long before the rest is there, and nothing of it is kept.
TEST_F(DBusInputTest, AnOversizedMessageIsToldByItsHeader) {
  const auto input = makeInput(600);
  const std::string oversized = callOfBytes(1, 3 * kUsualBuffer);
  const size_t headerBytes = frameDBusMessage(oversized)->headerBytes;
  EXPECT_EQ(feed(*input, oversized.substr(0, headerBytes - 1), headerBytes), Texts());
  EXPECT_EQ(feed(*input, oversized.substr(headerBytes - 1, 1), 1),
            Texts{fmt::format("1 Later {} too large", oversized.size())});
  EXPECT_EQ(feed(*input, oversized.substr(headerBytes, oversized.size() - headerBytes - 1), kUsualBuffer),
            Texts());
  EXPECT_EQ(input->buffered(), "");
  EXPECT_EQ(feed(*input, oversized.substr(oversized.size() - 1), 1), Texts());
  const std::string behind = callOf(2, "behind");
  EXPECT_EQ(feed(*input, behind, 7), Texts{whole(behind, 2, "behind")});
}

// What is skipped must not be taken for messages, however much it looks like them.
TEST_F(DBusInputTest, WhatIsSkippedIsNoMessage) {
  std::string inner;
  while (inner.size() < 2000) inner += callOf(9, "inner");
  WireBytes body;
  body.array(8, [&inner](WireBytes& bytes) { bytes.raw(inner); });
  const std::string oversized = wireCall({.member = "Later", .signature = "ax", .serial = 1}, body);
  const std::string behind = callOf(2, "behind");
  const size_t headerBytes = frameDBusMessage(oversized)->headerBytes + 8;
  const auto input = makeInput(600);
  EXPECT_EQ(feed(*input, oversized.substr(0, headerBytes), headerBytes),
            Texts{fmt::format("1 Later {} too large", oversized.size())});
  const std::string rest = oversized.substr(headerBytes) + behind;
  EXPECT_EQ(feed(*input, rest, callOf(9, "inner").size()), Texts{whole(behind, 2, "behind")});
}

TEST_F(DBusInputTest, AMalformedMessageIsToldWithItsReason) {
  std::string malformed = callOf(1, "text");
  malformed[24] = 'x';  // the path's slash
  EXPECT_EQ(feed(*makeInput(), malformed, malformed.size()),
            Texts{"malformed: a name in the header is none"});
  std::string oversized = callOfBytes(1, 601);
  oversized[24] = 'x';
  EXPECT_EQ(feed(*makeInput(600), oversized, oversized.size()),
            Texts{"malformed: a name in the header is none"});
  std::string unknown = callOf(1, "text");
  unknown[0] = 'x';
  unknown.resize(DBusFrame::kFixedBytes);
  EXPECT_EQ(feed(*makeInput(), unknown, unknown.size()), Texts{"malformed: its byte order is unknown"});
  EXPECT_EQ(feed(*makeInput(), unknown.substr(0, unknown.size() - 1), unknown.size()), Texts());
}

// It could neither be kept nor answered.
TEST_F(DBusInputTest, AHeaderLargerThanAMessageMayBeIsMalformed) {
  const std::string call = callOf(1, "text");
  const size_t headerBytes = frameDBusMessage(call)->headerBytes;
  EXPECT_EQ(feed(*makeInput(headerBytes), call, call.size()),
            Texts{fmt::format("1 Later {} too large", call.size())});
  const std::string beginning = call.substr(0, DBusFrame::kFixedBytes);
  EXPECT_EQ(feed(*makeInput(headerBytes), beginning, beginning.size()), Texts());
  EXPECT_EQ(feed(*makeInput(headerBytes - 1), beginning, beginning.size()),
            Texts{"malformed: its header is too large"});
}

// It takes more than the usual buffer, which is back once it has been told.
TEST_F(DBusInputTest, TheHeaderOfAnOversizedMessageMayBeLarge) {
  const auto input = makeInput(3 * kUsualBuffer);
  const std::string oversized =
      wireCall({.path = "/" + std::string(2 * kUsualBuffer, 'p'), .member = "Later", .signature = "s"},
               WireBytes().text(std::string(2 * kUsualBuffer, 'x')));
  EXPECT_EQ(feed(*input, oversized, 8 << 10), Texts{fmt::format("1 Later {} too large", oversized.size())});
  EXPECT_EQ(budget_->left(), kBudget);
  const std::string behind = callOf(2, "behind");
  EXPECT_EQ(feed(*input, behind, 7), Texts{whole(behind, 2, "behind")});
}

TEST_F(DBusInputTest, BytesThatAreConsumedAreNoMessage) {
  const auto input = makeInput();
  const std::string call = callOf(1, "one");
  peer_->send("BEGIN\r\n" + call);
  EXPECT_EQ(input->receive(socket_.get()), Received::kData);
  EXPECT_EQ(input->buffered(), "BEGIN\r\n" + call);
  input->consume(7);
  EXPECT_EQ(take(*input), Texts{whole(call, 1, "one")});
}

TEST_F(DBusInputTest, WhatTheSocketHasIsTold) {
  const auto input = makeInput();
  EXPECT_EQ(input->receive(socket_.get()), Received::kNothingYet);
  EXPECT_FALSE(input->wasFilled());
  peer_->send("half a message");
  EXPECT_EQ(input->receive(socket_.get()), Received::kData);
  EXPECT_FALSE(input->wasFilled());
  peer_->close();
  EXPECT_EQ(input->receive(socket_.get()), Received::kEndOfInput);
  EXPECT_EQ(input->buffered(), "half a message");
  EXPECT_EQ(input->receive(-1), Received::kEndOfInput);
}

TEST_F(DBusInputTest, ABufferThatIsFilledIsToldUntilTheNextReceive) {
  const auto input = makeInput();
  const std::string call = callOfBytes(1, kUsualBuffer / 8);
  std::string calls;
  for (int count = 0; count < 8; ++count) calls += call;
  peer_->send(calls);
  EXPECT_EQ(input->receive(socket_.get()), Received::kData);
  EXPECT_TRUE(input->wasFilled());
  EXPECT_EQ(take(*input).size(), 8U);
  EXPECT_EQ(input->receive(socket_.get()), Received::kNothingYet);
  EXPECT_FALSE(input->wasFilled());
}

// --- Memory -------------------------------------------------------------------------

// A message that is being received takes its size and room for what comes behind it; of
// that, only what a usual buffer does not have counts.
TEST_F(DBusInputTest, ABufferCountsWhileALargeMessageNeedsIt) {
  const auto countedWith = [this](size_t messageBytes) {
    const auto input = makeInput();
    const std::string call = callOfBytes(1, messageBytes);
    EXPECT_EQ(feed(*input, call.substr(0, call.size() - 1), 8 << 10), Texts());
    const size_t counted = kBudget - budget_->left();
    EXPECT_EQ(feed(*input, call.substr(call.size() - 1), 1).size(), 1U);
    EXPECT_EQ(budget_->left(), kBudget);  // the socket was asked for more since
    EXPECT_EQ(feed(*input, callOf(2, "next"), 1).size(), 1U);
    return counted;
  };
  EXPECT_EQ(countedWith(kUsualBuffer), 0U);
  EXPECT_EQ(countedWith(kUsualBuffer + 1), kUsualBuffer + 1 + kUsualBuffer - DBusInput::kUncountedBytes);
  EXPECT_EQ(countedWith(300'000), 300'000 + kUsualBuffer - DBusInput::kUncountedBytes);
}

// As much as the usual buffer holds may have come behind it.
TEST_F(DBusInputTest, WhatComesBehindALargeMessageIsKeptWhenItsBufferIsGivenBack) {
  const auto input = makeInput();
  const std::string large = callOfBytes(1, 2 * kUsualBuffer);
  const std::string behind = callOfBytes(2, 2 * kUsualBuffer);
  peer_->send(large.substr(0, 100));
  EXPECT_EQ(input->receive(socket_.get()), Received::kData);
  EXPECT_EQ(take(*input), Texts());
  peer_->send(large.substr(100) + behind.substr(0, kUsualBuffer));
  while (input->receive(socket_.get()) == Received::kData && !input->wasFilled()) {
  }
  EXPECT_TRUE(input->wasFilled());
  ASSERT_TRUE(input->takeMessage());
  EXPECT_EQ(input->receive(socket_.get()), Received::kNothingYet);
  EXPECT_EQ(input->buffered(), behind.substr(0, kUsualBuffer));
  EXPECT_EQ(take(*input), Texts());
  EXPECT_EQ(feed(*input, behind.substr(kUsualBuffer), 8 << 10).size(), 1U);
}

TEST_F(DBusInputTest, AMessageThatFindsNoRoomIsRefused) {
  constexpr size_t kMessageBytes = 300'000;
  constexpr size_t kNeeded = kMessageBytes + kUsualBuffer - DBusInput::kUncountedBytes;
  for (const size_t left : {kNeeded, kNeeded - 1}) {
    const auto input = makeInput();
    ASSERT_TRUE(budget_->take(kBudget - left));
    EXPECT_EQ(feed(*input, callOf(1, "small"), 100).size(), 1U);
    peer_->send(callOfBytes(2, kMessageBytes).substr(0, 100));
    EXPECT_EQ(input->receive(socket_.get()), Received::kData);
    EXPECT_EQ(take(*input), Texts());
    EXPECT_EQ(input->receive(socket_.get()), left == kNeeded ? Received::kNothingYet : Received::kRefused);
    if (left < kNeeded) {
      EXPECT_STREQ(input->refusal(), "there is no room for its message");
    }
    budget_->giveBack(kBudget - left);
  }
}

TEST_F(DBusInputTest, MemoryIsGivenBackOnlyWhenNothingIsBuffered) {
  const auto input = makeInput();
  const std::string call = callOfBytes(1, 300'000);
  feed(*input, call.substr(0, 100'000), 8 << 10);
  const size_t left = budget_->left();
  EXPECT_LT(left, kBudget);
  input->giveBackMemory();
  EXPECT_EQ(budget_->left(), left);
  EXPECT_EQ(input->buffered(), call.substr(0, 100'000));
  EXPECT_EQ(feed(*input, call.substr(100'000), 8 << 10).size(), 1U);
  input->giveBackMemory();
  EXPECT_EQ(budget_->left(), kBudget);
  EXPECT_EQ(feed(*input, callOf(2, "next"), 5).size(), 1U);
}

TEST_F(DBusInputTest, WhatIsDroppedLeavesNothing) {
  const auto input = makeInput();
  input->allowDescriptors();
  const size_t before = openDescriptors();
  peer_->sendWithDescriptors(callOfBytes(1, 300'000).substr(0, 1000), {file_.get()});
  EXPECT_EQ(input->receive(socket_.get()), Received::kData);
  EXPECT_EQ(take(*input), Texts());
  EXPECT_EQ(input->receive(socket_.get()), Received::kNothingYet);
  EXPECT_LT(budget_->left(), kBudget);
  EXPECT_EQ(openDescriptors(), before + 1);
  input->drop();
  EXPECT_EQ(input->buffered(), "");
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(budget_->left(), kBudget);
}

// --- Descriptors --------------------------------------------------------------------

TEST_F(DBusInputTest, DescriptorsBelongToTheMessagesThatNameThem) {
  const auto input = makeInput();
  input->allowDescriptors();
  const size_t before = openDescriptors();
  const std::string none = wireCall({.member = "Later"});
  const std::string one = wireCall({.member = "Later", .descriptors = 1});
  // All at once, and the last of them is nobody's.
  peer_->sendWithDescriptors(none + one + one, {file_.get(), otherFile_.get(), file_.get()});
  EXPECT_EQ(input->receive(socket_.get()), Received::kData);
  EXPECT_EQ(descriptorsOfNext(*input), Texts());
  EXPECT_EQ(descriptorsOfNext(*input), Texts{"/dev/null"});
  EXPECT_EQ(descriptorsOfNext(*input), Texts{"/dev/zero"});
  EXPECT_EQ(openDescriptors(), before);
  const std::string two = wireCall({.member = "Later", .descriptors = 2});
  peer_->sendWithDescriptors(two, {otherFile_.get(), file_.get()});
  EXPECT_EQ(input->receive(socket_.get()), Received::kData);
  EXPECT_EQ(descriptorsOfNext(*input), (Texts{"/dev/zero", "/dev/null"}));
  peer_->sendWithDescriptors(two, {file_.get()});
  EXPECT_EQ(input->receive(socket_.get()), Received::kData);
  EXPECT_EQ(descriptorsOfNext(*input), Texts{"it has fewer descriptors than its header says"});
}

TEST_F(DBusInputTest, DescriptorsWaitForTheRestOfTheirMessage) {
  const auto input = makeInput();
  input->allowDescriptors();
  const std::string call = wireCall({.member = "Later", .descriptors = 1});
  peer_->sendWithDescriptors(call.substr(0, 5), {file_.get()});
  EXPECT_EQ(input->receive(socket_.get()), Received::kData);
  EXPECT_EQ(descriptorsOfNext(*input), Texts{"no message"});
  peer_->send(call.substr(5));
  EXPECT_EQ(input->receive(socket_.get()), Received::kData);
  EXPECT_EQ(descriptorsOfNext(*input), Texts{"/dev/null"});
}

TEST_F(DBusInputTest, AnOversizedMessageTakesItsDescriptorsAway) {
  const auto input = makeInput(600);
  input->allowDescriptors();
  const std::string oversized = wireCall({.member = "Later", .signature = "s", .descriptors = 1},
                                         WireBytes().text(std::string(600, 'x')));
  const std::string behind = wireCall({.member = "Later", .descriptors = 1});
  peer_->sendWithDescriptors(oversized + behind, {file_.get(), otherFile_.get()});
  EXPECT_EQ(input->receive(socket_.get()), Received::kData);
  EXPECT_EQ(descriptorsOfNext(*input), Texts{"/dev/null"});
  EXPECT_EQ(descriptorsOfNext(*input), Texts{"/dev/zero"});
}

TEST_F(DBusInputTest, DescriptorsThatWaitAreClosedWhenAsked) {
  const auto input = makeInput();
  input->allowDescriptors();
  const size_t before = openDescriptors();
  peer_->sendWithDescriptors("A", {file_.get(), file_.get()});
  EXPECT_EQ(input->receive(socket_.get()), Received::kData);
  EXPECT_EQ(openDescriptors(), before + 2);
  input->dropDescriptors();
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(input->buffered(), "A");
}

TEST_F(DBusInputTest, WhatMayNotBePassedIsRefused) {
  const auto refusalOf = [this](const std::vector<int>& descriptors, bool isAllowed) -> std::string {
    const auto input = makeInput();
    if (isAllowed) input->allowDescriptors();
    peer_->sendWithDescriptors("A", descriptors);
    return input->receive(socket_.get()) == Received::kRefused ? input->refusal() : "none";
  };
  const FileDescriptor holder(::epoll_create1(EPOLL_CLOEXEC));
  EXPECT_EQ(refusalOf({file_.get()}, false), "it passed descriptors without asking");
  EXPECT_EQ(refusalOf({file_.get()}, true), "none");
  EXPECT_EQ(refusalOf({file_.get(), socket_.get(), file_.get()}, true),
            "it passed a descriptor that is no file's");
  EXPECT_EQ(refusalOf({holder.get()}, true), "it passed a descriptor that is no file's");
  EXPECT_EQ(refusalOf(std::vector<int>(16, file_.get()), true), "none");
  EXPECT_EQ(refusalOf(std::vector<int>(17, file_.get()), true), "it passed too many descriptors");
  EXPECT_EQ(refusalOf(std::vector<int>(253, file_.get()), true), "it passed too many descriptors");
}

// Who sent them is of no interest: the connection knows its peer.
TEST_F(DBusInputTest, OtherThingsThatComeWithMessagesAreNoDescriptors) {
  const int on = 1;
  ASSERT_EQ(::setsockopt(socket_.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on), 0);
  const auto input = makeInput();
  const std::string call = callOf(1, "one");
  EXPECT_EQ(feed(*input, call, call.size()), Texts{whole(call, 1, "one")});
  input->allowDescriptors();
  peer_->sendWithDescriptors(wireCall({.member = "Later", .descriptors = 1}), {file_.get()});
  EXPECT_EQ(input->receive(socket_.get()), Received::kData);
  EXPECT_EQ(descriptorsOfNext(*input), Texts{"/dev/null"});
}

// The process has none to spare: the message that came with it must not be served without.
TEST_F(DBusInputTest, DescriptorsThatTheKernelCouldNotOpenAreRefused) {
  for (const bool isAllowed : {false, true}) {
    const auto input = makeInput();
    if (isAllowed) input->allowDescriptors();
    peer_->sendWithDescriptors("A", {file_.get()});
    const DescriptorLimit none(0);
    EXPECT_EQ(input->receive(socket_.get()), Received::kRefused);
    EXPECT_STREQ(input->refusal(),
                 isAllowed ? "it passed too many descriptors" : "it passed descriptors without asking");
  }
}

// The last ones are the daemon's own. Those of clients are counted, but not kept open.
TEST_F(DBusInputTest, ADescriptorOfAReservedNumberIsClosed) {
  const auto input = makeInput();
  input->allowDescriptors();
  peer_->sendWithDescriptors(wireCall({.member = "Later", .descriptors = 2}),
                             {file_.get(), otherFile_.get()});
  FileDescriptor next(::dup(file_.get()));
  FileDescriptor behindIt(::dup(file_.get()));
  const int firstReserved = behindIt.get();
  next.reset();
  behindIt.reset();
  {
    const DescriptorLimit limit(0);
    for (rlim_t most = 0; firstReservedDescriptor() < firstReserved; ++most) limit.set(most);
    ASSERT_EQ(firstReservedDescriptor(), firstReserved);
    EXPECT_EQ(input->receive(socket_.get()), Received::kData);
  }
  EXPECT_EQ(descriptorsOfNext(*input), (Texts{"/dev/null", "closed"}));
}

}  // namespace
}  // namespace zun
