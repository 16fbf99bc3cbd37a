#include <fcntl.h>

#include <thread>

#include "DBusRawService.h"
#include "support/DescriptorCount.h"
#include "support/RemoteCall.h"

namespace zun {
namespace {

class DBusServiceEndTest : public DBusRawServiceTest {};

// --- Ends ---------------------------------------------------------------------------

TEST_F(DBusServiceEndTest, AHalfClosedPeerGetsTheAnswersItIsOwed) {
  start();
  const auto client = connect();
  client->send(laterCall(1));
  client->shutdownWriting();
  ASSERT_TRUE(delegate_.events->wait("interrupted"));
  EXPECT_EQ(delegate_.events->count("invalidated"), 0u);
  delegate_.object()->answerLater("at last");
  EXPECT_EQ(textAnswer(*client), "at last");
  EXPECT_TRUE(client->isEnded());
  ASSERT_TRUE(delegate_.events->wait("object released"));
  EXPECT_EQ(delegate_.events->all(),
            (std::vector<std::string>{"accepted", "Later", "interrupted", "invalidated", "object released"}));
}

// An answer that the socket does not take at once wakes the connection, which looks again at
// what it owes.
TEST_F(DBusServiceEndTest, AHalfClosedPeerIsInterruptedOnce) {
  constexpr uint32_t kCalls = 20;
  const std::string text(size_t{3} << 20, 'x');
  start();
  const auto client = connect();
  for (uint32_t serial = 1; serial <= kCalls; ++serial) client->send(laterCall(serial));
  client->shutdownWriting();
  ASSERT_TRUE(delegate_.events->wait("interrupted"));
  for (uint32_t count = 0; count < kCalls; ++count) {
    delegate_.object()->answerLastLater(text);
    EXPECT_EQ(textAnswer(*client).size(), text.size());
  }
  EXPECT_TRUE(client->isEnded());
  EXPECT_EQ(delegate_.events->count("interrupted"), 1u);
}

TEST_F(DBusServiceEndTest, AHalfClosedPeerThatHasNotReadAllYetIsNotInterrupted) {
  start();
  const auto client = connect();
  client->send(longTextCall(3 << 20));
  client->shutdownWriting();
  ASSERT_TRUE(client->receiveMessage());
  EXPECT_TRUE(client->isEnded());
  ASSERT_TRUE(delegate_.events->wait("object released"));
  EXPECT_EQ(delegate_.events->count("interrupted"), 0u);
}

TEST_F(DBusServiceEndTest, AHalfClosedPeerThatIsOwedNothingIsNotInterrupted) {
  start();
  const auto client = connect();
  client->send(describeCall());
  client->shutdownWriting();
  EXPECT_EQ(textAnswer(*client), "{category = 7}");
  EXPECT_TRUE(client->isEnded());
  ASSERT_TRUE(delegate_.events->wait("object released"));
  EXPECT_EQ(delegate_.events->count("interrupted"), 0u);
}

TEST_F(DBusServiceEndTest, InvalidationHandlerIsCalledOnceAndEverythingIsLetGo) {
  start();
  const auto client = connect();
  ASSERT_TRUE(delegate_.events->wait("accepted"));
  auto connection = delegate_.connection();
  client->send(laterCall(1) + describeCall(2));
  ASSERT_TRUE(delegate_.events->wait("Describe"));
  connection->invalidate();
  connection->invalidate();
  ASSERT_TRUE(delegate_.events->wait("invalidated"));
  waitForConnections(0);
  EXPECT_EQ(delegate_.events->count("invalidated"), 1u);
  EXPECT_EQ(delegate_.events->count("object released"), 1u);
  EXPECT_NE(callRemote(*connection, 0, Array{1, Array()}), std::nullopt);
  const std::weak_ptr<ServiceConnection> watched = connection;
  connection = nullptr;
  delegate_.forget();
  EXPECT_TRUE(watched.expired());  // its handlers held it
}

TEST_F(DBusServiceEndTest, AReplyAfterTheEndDoesNothing) {
  start();
  auto client = connect();
  client->send(laterCall(1));
  ASSERT_TRUE(delegate_.events->wait("Later"));
  const auto object = delegate_.object();
  client->close();
  ASSERT_TRUE(delegate_.events->wait("invalidated"));
  waitForConnections(0);
  delegate_.forget();
  object->answerLater("to nobody");
}

// What was the connection's socket may be anybody's descriptor by then.
TEST_F(DBusServiceEndTest, AReplyAfterTheEndIsNotWrittenIntoADescriptorOfTheSameNumber) {
  start();
  const auto client = connect();
  client->send(laterCall(1));
  ASSERT_TRUE(delegate_.events->wait("Later"));
  const auto object = delegate_.object();
  const auto connection = delegate_.connection();
  connection->invalidate();
  ASSERT_TRUE(delegate_.events->wait("invalidated"));
  waitForConnections(0);
  std::vector<FileDescriptor> others;  // they take all numbers that have become free
  while (others.size() < 64) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    for (const int end : ends) others.emplace_back(end);
  }
  object->answerLater("to nobody");
  for (const FileDescriptor& other : others) {
    char byte = 0;
    EXPECT_EQ(::recv(other.get(), &byte, 1, MSG_DONTWAIT), -1);
  }
}

// Whoever holds the connection does not hold what its client has left in it.
TEST_F(DBusServiceEndTest, AConnectionThatHasEndedKeepsNothingItReceived) {
  constexpr size_t kBudget = size_t{8} << 20;
  const auto budget = std::make_shared<MemoryBudget>(kBudget);
  options_.connection.budgets.incoming = budget;
  start();
  const auto client = connect();
  client->send(describeCall());
  EXPECT_EQ(textAnswer(*client), "{category = 7}");
  const auto connection = delegate_.connection();
  client->send(wireCall({.member = "Later", .signature = "s", .bodyBytes = 500'000}));
  while (budget->left() == kBudget) client->send("x");  // room is made for the next piece
  connection->invalidate();
  ASSERT_TRUE(delegate_.events->wait("invalidated"));
  EXPECT_EQ(budget->left(), kBudget);
}

TEST_F(DBusServiceEndTest, InvalidatingAllConnectionsWaitsForTheirThreads) {
  start();
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int count = 0; count < 10; ++count) clients.push_back(connect());
  RawClient silent(path_);
  ASSERT_TRUE(delegate_.events->wait("accepted", 10));
  waitForConnections(11);  // the silent one is being authenticated
  listener_->stop();
  EXPECT_FALSE(RawClient(path_).isConnected());
  listener_->invalidateConnections();
  EXPECT_EQ(delegate_.events->count("invalidated"), 10u);
  EXPECT_EQ(listener_->connectionCount(), 0u);
}

TEST_F(DBusServiceEndTest, TheNumberOfConnectionsIsTold) {
  Events counts;
  auto created = DBusServiceListener::create(options_, entitlements_, log_);
  ASSERT_TRUE(created);
  listener_ = std::move(*created);
  listener_->setDelegate(&delegate_);
  listener_->setConnectionCountHandler([&counts](size_t count) { counts.add(std::to_string(count)); });
  listener_->resume();
  auto client = connect();
  ASSERT_TRUE(counts.wait("1"));
  client->close();
  ASSERT_TRUE(counts.wait("0"));
  listener_.reset();
}

// --- Slow readers -------------------------------------------------------------------

TEST_F(DBusServiceEndTest, CallsToAClientThatDoesNotReadAreDropped) {
  options_.connection.outputLimits.highWaterBytes = 64 << 10;
  start();
  const auto client = connect();
  ASSERT_TRUE(delegate_.events->wait("accepted"));
  const auto connection = delegate_.connection();
  const Array arguments{1, Array{Dictionary{{"k", std::string(4000, 'x')}}}};
  size_t queued = 0;
  while (!callRemote(*connection, 0, arguments)) ++queued;
  EXPECT_LT(queued, 1000u);
  EXPECT_EQ(callRemote(*connection, 0, arguments), peerName() + " does not read what it is sent");
  for (size_t count = 0; count < queued; ++count) ASSERT_TRUE(client->receiveMessage());
  expectStillServed(*client);
  EXPECT_EQ(callRemote(*connection, 0, arguments), std::nullopt);
}

TEST_F(DBusServiceEndTest, NoFurtherCallsAreReadOfAClientThatDoesNotReadItsReplies) {
  options_.connection.outputLimits.highWaterBytes = 64 << 10;
  start();
  const auto client = connect();
  constexpr uint32_t kCalls = 400;
  const WireBytes body = WireBytes().array(
      8, [](WireBytes& entries) { entries.align(8).text("k").signature("s").text(std::string(16000, 'x')); });
  std::thread sender([&client, &body] {
    for (uint32_t serial = 1; serial <= kCalls; ++serial) {
      client->send(wireCall({.member = "Describe", .signature = "a{sv}", .serial = serial}, body));
    }
  });
  ASSERT_TRUE(delegate_.events->wait("Describe", 3));
  for (uint32_t serial = 1; serial <= kCalls; ++serial) {
    const auto message = client->receiveMessage();
    ASSERT_TRUE(message);
    ASSERT_EQ(message->header.replySerial, serial);
  }
  sender.join();
}

TEST_F(DBusServiceEndTest, CallsThatWaitForTheirRepliesAreLimited) {
  options_.connection.outputLimits.maximumPendingReplies = 5;
  start();
  const auto client = connect();
  std::string batch;
  for (uint32_t serial = 1; serial <= 8; ++serial) batch += laterCall(serial);
  client->send(batch);
  ASSERT_TRUE(delegate_.events->wait("Later", 5));
  EXPECT_EQ(delegate_.events->count("Later"), 5u);
  delegate_.object()->answerLater("a");
  for (int count = 0; count < 5; ++count) EXPECT_EQ(textAnswer(*client), "a");
  ASSERT_TRUE(delegate_.events->wait("Later", 8));
  delegate_.object()->answerLater("b");
  for (int count = 0; count < 3; ++count) EXPECT_EQ(textAnswer(*client), "b");
}

TEST_F(DBusServiceEndTest, RepliesThatDoNotFitEndTheConnection) {
  options_.connection.outputLimits.maximumBytes = 256 << 10;
  options_.connection.outputLimits.highWaterBytes = 64 << 10;
  start();
  const auto client = connect();
  std::string batch;
  for (uint32_t serial = 1; serial <= 20; ++serial) batch += laterCall(serial);
  client->send(batch);
  ASSERT_TRUE(delegate_.events->wait("Later", 20));
  delegate_.object()->answerLater(std::string(100000, 'x'));
  ASSERT_TRUE(delegate_.events->wait("invalidated"));
  expectErrors({"listener: " + peerName() + " does not read its replies, closing its connection"});
}

// However many connections a user has, what they leave waiting is bounded together; and
// not longer than they are there.
TEST_F(DBusServiceEndTest, LongAnswersOfOneUsersConnectionsAreCountedTogether) {
  constexpr uint32_t kLong = 3 << 20;
  // One alone has its quarter, and nothing as long is left for another of the same user.
  options_.connection.budgets.largeReplies = std::make_shared<MemoryBudget>(4 * (kLong + 1000));
  start();
  const auto reader = connect();
  expectStillServed(*reader);
  auto sleeper = connect();
  sleeper->send(longTextCall(kLong));
  ASSERT_TRUE(delegate_.events->wait("LongText", 1));
  reader->send(longTextCall(kLong));
  const auto none = reader->receiveMessage();
  ASSERT_TRUE(none);
  EXPECT_TRUE(none->values[0].array()->empty());
  expectErrors({"listener: an answer to " + peerName() +
                " is sent without its text: too much waits to be read already"});
  expectStillServed(*reader);
  sleeper->close();
  ASSERT_TRUE(delegate_.events->wait("object released"));
  reader->send(longTextCall(kLong));
  const auto text = reader->receiveMessage();
  ASSERT_TRUE(text);
  EXPECT_EQ((*text->values[0].array())[0].stringValue().size(), kLong);
}

// It waits itself, for answers that only come later.
TEST_F(DBusServiceEndTest, AClientWithoutAnswersToReadIsNotTakenForOneThatDoesNotRead) {
  options_.connection.outputLimits.maximumPendingReplies = 1;
  options_.connection.unreadTimeout = std::chrono::milliseconds(50);
  start();
  const auto patient = connect();
  patient->send(laterCall(1) + describeCall(2));
  ASSERT_TRUE(delegate_.events->wait("Later"));
  const auto object = delegate_.object();
  const auto sleeper = connect();
  sleeper->send(longTextCall(3 << 20));
  // As long as this takes, the other has waited too.
  expectErrors({"listener: " + peerName() + " does not read its replies, closing its connection"});
  object->answerLater("at last");
  EXPECT_EQ(textAnswer(*patient), "at last");
  EXPECT_EQ(textAnswer(*patient), "{category = 7}");
}

// Its own end may be on its way to the daemon in what that does not read: nothing else
// would ever end the connection.
TEST_F(DBusServiceEndTest, RepliesThatAreNeverReadEndTheConnection) {
  options_.connection.outputLimits.highWaterBytes = 64 << 10;
  options_.connection.unreadTimeout = std::chrono::milliseconds(200);
  start();
  const auto client = connect();
  const WireBytes body = WireBytes().array(
      8, [](WireBytes& entries) { entries.align(8).text("k").signature("s").text(std::string(16000, 'x')); });
  const std::string call = wireCall({.member = "Describe", .signature = "a{sv}"}, body);
  std::string calls;  // more than the sockets and the queue hold of them and their replies
  for (size_t i = 0; i < 100; ++i) calls += call;
  client->send(calls);  // until the daemon hangs up
  expectErrors({"listener: " + peerName() + " does not read its replies, closing its connection"});
  waitForConnections(0);
}

// --- Descriptors --------------------------------------------------------------------

TEST_F(DBusServiceEndTest, DescriptorsThatNobodyTakesAreClosed) {
  start();
  const auto client = connect(/*withDescriptors=*/true);
  expectStillServed(*client);
  const FileDescriptor file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  const size_t before = openDescriptors();
  for (int round = 0; round < 50; ++round) {
    client->sendWithDescriptors(wireCall({.member = "Drop", .descriptors = 2}), {file.get(), file.get()});
    EXPECT_EQ(errorName(*client), "com.vantix.zunreportingd.Error.NoReply");
  }
  expectStillServed(*client);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(DBusServiceEndTest, DescriptorsAreOnlyTakenWhenNegotiatedAndNotTooMany) {
  start();
  const FileDescriptor file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  const auto client = connect();
  client->sendWithDescriptors(wireCall({.member = "Drop", .descriptors = 1}), {file.get()});
  EXPECT_TRUE(client->isEnded());
  expectErrors(
      {"listener: " + peerName() + ": it passed descriptors without asking, closing its connection"});
  RawClient cancelled(path_);
  cancelled.send(std::string("\0AUTH EXTERNAL\r\nDATA\r\nNEGOTIATE_UNIX_FD\r\nCANCEL\r\n", 49));
  ASSERT_TRUE(cancelled.receiveLine() == "DATA" && cancelled.receiveLine().starts_with("OK "));
  ASSERT_EQ(cancelled.receiveLine(), "AGREE_UNIX_FD");
  ASSERT_EQ(cancelled.receiveLine(), "REJECTED EXTERNAL");
  cancelled.send("AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n");
  ASSERT_TRUE(cancelled.receiveLine() == "DATA" && cancelled.receiveLine().starts_with("OK "));
  cancelled.sendWithDescriptors(wireCall({.member = "Drop", .descriptors = 1}), {file.get()});
  EXPECT_TRUE(cancelled.isEnded());
  expectErrors(
      {"listener: " + peerName() + ": it passed descriptors without asking, closing its connection"});
  const auto greedy = connect(/*withDescriptors=*/true);
  greedy->sendWithDescriptors(wireCall({.member = "Drop", .descriptors = 16}),
                              std::vector<int>(16, file.get()));
  EXPECT_EQ(errorName(*greedy), "com.vantix.zunreportingd.Error.NoReply");
  greedy->sendWithDescriptors(wireCall({.member = "Drop", .descriptors = 17}),
                              std::vector<int>(17, file.get()));
  EXPECT_TRUE(greedy->isEnded());
  expectErrors({"listener: " + peerName() + ": it passed too many descriptors, closing its connection"});
}

}  // namespace
}  // namespace zun
