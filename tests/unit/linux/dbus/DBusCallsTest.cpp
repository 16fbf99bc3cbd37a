
#include <thread>

#include "DBusRawService.h"
#include "support/RemoteCall.h"

namespace zun {
namespace {

constexpr size_t kMebibyte = size_t{1} << 20;

// --- Calls --------------------------------------------------------------------------

TEST_F(DBusRawServiceTest, CallsOfBothByteOrdersAreAnswered) {
  start();
  const auto client = connect();
  for (const std::endian order : {std::endian::little, std::endian::big}) {
    client->send(describeCall(3, order));
    EXPECT_EQ(textAnswer(*client), "{category = 7}");
  }
}

TEST_F(DBusRawServiceTest, ManyPipelinedCallsAreAnsweredInOrder) {
  start();
  const auto client = connect();
  constexpr uint32_t kCalls = 20000;
  std::thread sender([&client] {
    std::string batch;
    for (uint32_t serial = 1; serial <= kCalls; ++serial) batch += describeCall(serial);
    client->send(batch);
  });
  for (uint32_t serial = 1; serial <= kCalls; ++serial) {
    const auto message = client->receiveMessage();
    ASSERT_TRUE(message);
    ASSERT_EQ(message->header.replySerial, serial);
  }
  sender.join();
}

TEST_F(DBusRawServiceTest, TheNoReplyFlagIsHonoured) {
  start();
  const auto client = connect();
  client->send(
      wireCall({.member = "Describe", .signature = "a{sv}", .serial = 4, .flags = 1}, messageBody()));
  client->send(wireCall({.member = "Nonsense", .serial = 5, .flags = 1}));
  client->send(wireCall({.member = "Drop", .serial = 6, .flags = 1}));
  expectStillServed(*client);
  EXPECT_EQ(delegate_.events->count("Describe"), 2u);
}

TEST_F(DBusRawServiceTest, CallsThatAreNotForUsAreAnsweredWithErrors) {
  start();
  const auto client = connect();
  client->send(wireCall({.path = "/elsewhere", .member = "Describe"}));
  EXPECT_EQ(errorName(*client), "org.freedesktop.DBus.Error.UnknownObject");
  client->send(wireCall({.interface = "com.vantix.Other", .member = "Describe"}));
  EXPECT_EQ(errorName(*client), "org.freedesktop.DBus.Error.UnknownInterface");
  client->send(simpleCall("Nonsense"));
  EXPECT_EQ(errorName(*client), "org.freedesktop.DBus.Error.UnknownMethod");
  client->send(wireCall({.interface = "", .member = "Nonsense"}));
  EXPECT_EQ(errorName(*client), "org.freedesktop.DBus.Error.UnknownMethod");
  client->send(wireCall({.member = "Describe", .signature = "s"}, WireBytes().text("x")));
  EXPECT_EQ(errorName(*client), "org.freedesktop.DBus.Error.InvalidArgs");
  client->send(simpleCall("Describe"));
  EXPECT_EQ(errorName(*client), "org.freedesktop.DBus.Error.InvalidArgs");
  client->send(wireCall({.interface = "", .member = "Describe", .signature = "a{sv}"}, messageBody()));
  EXPECT_EQ(textAnswer(*client), "{category = 7}");
}

TEST_F(DBusRawServiceTest, PathsAreComparedElementByElement) {
  start();
  const auto client = connect();
  for (const auto& [path, error] :
       {std::pair("/com/vantix", ""), std::pair("/com/van", "org.freedesktop.DBus.Error.UnknownObject")}) {
    client->send(
        wireCall({.path = path, .interface = "org.freedesktop.DBus.Introspectable", .member = "Introspect"}));
    EXPECT_EQ(errorName(*client), error);
  }
}

TEST_F(DBusRawServiceTest, OnlyDictionariesOfTextServeAsDictionaries) {
  EXPECT_TRUE(acceptsDBusSignature("a{sv}aa{sv}", "a{ss}aa{ss}"));
  EXPECT_FALSE(acceptsDBusSignature("a{sv}", "a{si}"));
  EXPECT_FALSE(acceptsDBusSignature("a{sv}s", "a{sv}i"));
}

TEST_F(DBusRawServiceTest, DictionariesOfTextServeAsDictionaries) {
  start();
  const auto client = connect();
  const auto pair = [](WireBytes& entries) { entries.align(8).text("k").text("v"); };
  client->send(wireCall({.member = "Describe", .signature = "a{ss}"}, WireBytes().array(8, pair)));
  EXPECT_EQ(textAnswer(*client), "{k = \"v\"}");
  const WireBytes optional = WireBytes().array(4, [&](WireBytes& one) { one.array(8, pair); });
  client->send(wireCall({.member = "Optional", .signature = "aa{ss}"}, optional));
  EXPECT_EQ(textAnswer(*client), "({k = \"v\"})");
}

TEST_F(DBusRawServiceTest, ADroppedReplyIsAnsweredWithNoReply) {
  start();
  const auto client = connect();
  client->send(simpleCall("Drop"));
  EXPECT_EQ(errorName(*client), "com.vantix.zunreportingd.Error.NoReply");
}

TEST_F(DBusRawServiceTest, OptionalValuesAndErrorsAreEncoded) {
  start();
  const auto client = connect();
  client->send(simpleCall("Outcome"));
  const auto message = client->receiveMessage();
  ASSERT_TRUE(message);
  EXPECT_EQ(message->values,
            (Array{Array(), Array{Array{"com.vantix.zunreporting.error", -1, "No backend"}}}));
}

TEST_F(DBusRawServiceTest, AReplyMayComeLaterThanThoseOfLaterCalls) {
  start();
  const auto client = connect();
  client->send(laterCall(10) + describeCall(11));
  EXPECT_EQ(client->receiveMessage()->header.replySerial, 11u);
  delegate_.object()->answerLater("late");
  const auto message = client->receiveMessage();
  ASSERT_TRUE(message);
  EXPECT_EQ(message->header.replySerial, 10u);
  EXPECT_EQ(message->values[0], Value("late"));
}

// Answers are gathered, but none waits for a call that waits.
TEST_F(DBusRawServiceTest, ABlockingCallDoesNotHoldUpEarlierAnswers) {
  start();
  const auto client = connect();
  client->send(describeCall(1) + simpleCall("Block", 2));
  EXPECT_EQ(textAnswer(*client), "{category = 7}");
  delegate_.object()->unblock();
  EXPECT_EQ(client->receiveMessage()->header.replySerial, 2u);
}

TEST_F(DBusRawServiceTest, ACallThatTookLongIsTakenForOneThatWillAgain) {
  start();
  const auto client = connect();
  client->send(simpleCall("Block"));
  ASSERT_TRUE(delegate_.events->wait("blocked"));
  std::this_thread::sleep_for(std::chrono::milliseconds(2));  // no quick call any more
  delegate_.object()->unblock();
  ASSERT_TRUE(client->receiveMessage());
  client->send(describeCall(1) + simpleCall("Block", 2));
  EXPECT_EQ(textAnswer(*client), "{category = 7}");
  delegate_.object()->unblock();
  EXPECT_EQ(client->receiveMessage()->header.replySerial, 2u);
}

// Whatever it names: a client's object is called one way, and nobody listens to signals.
TEST_F(DBusRawServiceTest, OnlyCallsAreCarriedOut) {
  start();
  const auto client = connect();
  std::string signal = describeCall(1);
  signal[1] = static_cast<char>(DBusMessageType::kSignal);
  client->send(signal + describeCall(2));
  EXPECT_EQ(client->receiveMessage()->header.replySerial, 2u);
  EXPECT_EQ(delegate_.events->count("Describe"), 1u);
}

TEST_F(DBusRawServiceTest, RemoteCallsReachTheClient) {
  start();
  const auto client = connect();
  ASSERT_TRUE(delegate_.events->wait("accepted"));
  EXPECT_EQ(callRemote(*delegate_.connection(), 0, Array{7, Array{Dictionary{{"k", "v"}}}}), std::nullopt);
  const auto message = client->receiveMessage();
  ASSERT_TRUE(message);
  EXPECT_EQ(message->member, "tell");
  EXPECT_FALSE(message->header.expectsReply());
  EXPECT_EQ(message->values, (Array{7, Array{Dictionary{{"k", "v"}}}}));
  EXPECT_NE(callRemote(*delegate_.connection(), 1, Array()), std::nullopt);
}

// --- Bad input ----------------------------------------------------------------------

TEST_F(DBusRawServiceTest, AMalformedMessageEndsTheConnection) {
  start();
  const std::string line = "listener: " + peerName() + " sent a malformed message, closing its connection: ";
  const auto endsWith = [&](const std::string& bytes, const std::string& reason) {
    const auto client = connect();
    client->send(bytes);
    EXPECT_TRUE(client->isEnded());
    expectErrors({line + reason});
  };
  endsWith(std::string(16, 'x'), "its byte order is unknown");
  endsWith(wireCall({.member = "1"}), "a name in the header is none");
  endsWith(
      wireCall({.member = "Describe", .signature = "a{sv}"}, WireBytes().u32(50).raw(std::string(8, 'x'))),
      "padding is not zero");
  endsWith(wireCall({.member = "Later", .signature = "s"}, WireBytes().text("\xFF")),
           "a string is not UTF-8");
  endsWith(wireCall({.member = "Drop", .descriptors = 1}), "it has fewer descriptors than its header says");
}

TEST_F(DBusRawServiceTest, AnswersToCallsBeforeAMalformedOneAreSent) {
  start();
  const auto client = connect();
  client->send(describeCall(1) + describeCall(2));  // and now both are known to be quick
  ASSERT_TRUE(client->receiveMessage());
  ASSERT_TRUE(client->receiveMessage());
  client->send(describeCall(3) + std::string(16, 'x'));
  EXPECT_EQ(textAnswer(*client), "{category = 7}");
  EXPECT_TRUE(client->isEnded());
  expectErrors({"listener: " + peerName() +
                " sent a malformed message, closing its connection: its byte order is unknown"});
}

TEST_F(DBusRawServiceTest, AnOversizedMessageIsSkippedAndAnswered) {
  start();
  const auto client = connect();
  const std::string large(2 * kMebibyte, 'x');
  client->send(wireCall({.member = "Later", .signature = "s", .serial = 8}, WireBytes().text(large)));
  const auto message = client->receiveMessage();
  ASSERT_TRUE(message);
  EXPECT_EQ(message->header.replySerial, 8u);
  EXPECT_EQ(message->errorName, "org.freedesktop.DBus.Error.LimitsExceeded");
  expectStillServed(*client);
  const std::string bytes =
      std::to_string(wireCall({.member = "Later", .signature = "s"}, WireBytes().text(large)).size());
  expectErrors({"listener: " + peerName() + " sent a message of " + bytes + " bytes, 1048576 are allowed"});
}

// A body is skipped as it comes; a header would have to be kept until it is whole.
TEST_F(DBusRawServiceTest, AnOversizedHeaderEndsTheConnection) {
  start();
  const auto client = connect();
  std::string call = wireCall({.member = "Describe"}).substr(0, DBusFrame::kFixedBytes);
  const uint32_t fieldsBytes = 2 << 20;
  std::memcpy(call.data() + 12, &fieldsBytes, sizeof fieldsBytes);
  client->send(call);
  client->shutdownWriting();
  EXPECT_TRUE(client->isEnded());
  expectErrors({"listener: " + peerName() +
                " sent a malformed message, closing its connection: its header is too large"});
}

TEST_F(DBusRawServiceTest, AMessageOfExactlyTheAllowedSizeIsTaken) {
  start();
  const auto client = connect();
  const WireCall call{.member = "Describe", .signature = "a{sv}"};
  const auto bodyOf = [](size_t length) {
    return WireBytes().array(8, [length](WireBytes& entries) {
      entries.align(8).text("k").signature("s").text(std::string(length, 'x'));
    });
  };
  const size_t overhead = wireCall(call, bodyOf(0)).size();
  const std::string largest = wireCall(call, bodyOf(kMebibyte - overhead));
  ASSERT_EQ(largest.size(), kMebibyte);
  // Its description, sent back, would be just too large.
  client->send(largest + wireCall(call, bodyOf(kMebibyte - overhead + 1)));
  EXPECT_EQ(textAnswer(*client).size(), kMebibyte - overhead + std::string("{k = \"\"}").size());
  EXPECT_EQ(errorName(*client), "org.freedesktop.DBus.Error.LimitsExceeded");
  expectErrors({"listener: " + peerName() + " sent a message of 1048577 bytes, 1048576 are allowed"});
}

// Whoever began many large messages and ended none would have the daemon keep them all.
TEST_F(DBusRawServiceTest, MessagesThatAreComingHaveRoomInTheProgramsShare) {
  constexpr size_t kBudget = 420'000;  // two of these would fit, were they not one program's
  const auto budget = std::make_shared<MemoryBudget>(kBudget);
  options_.connection.budgets.incoming = budget;
  const auto waitUntilAllIsGivenBack = [&budget] {
    while (budget->left() != kBudget) std::this_thread::yield();
  };
  start();
  const auto client = connect();
  const auto other = connect();
  const std::string large =
      wireCall({.member = "Later", .signature = "s"}, WireBytes().text(std::string(100'000, 'x')));
  client->send(large.substr(0, large.size() - 1));
  while (budget->left() == kBudget) std::this_thread::yield();
  other->send(large);
  EXPECT_TRUE(other->isEnded());
  expectErrors({"listener: " + peerName() + ": there is no room for its message, closing its connection"});
  EXPECT_EQ(budget->left(), kBudget - (large.size() + (32 << 10) - (64 << 10)));

  client->send(large.substr(large.size() - 1));  // and it counts no more
  ASSERT_TRUE(delegate_.events->wait("Later"));
  waitUntilAllIsGivenBack();
  const auto late = connect();
  late->send(large.substr(0, large.size() - 1));
  while (budget->left() == kBudget) std::this_thread::yield();
  late->close();  // though the delegate holds the connection
  waitUntilAllIsGivenBack();
}

// Where its connection does not rest before.
TEST_F(DBusRawServiceTest, RoomOfALargeMessageIsGivenBackWithTheNextMessage) {
  const auto budget = std::make_shared<MemoryBudget>(4 * kMebibyte);
  options_.connection.budgets.incoming = budget;
  options_.connection.restAfter = std::chrono::milliseconds(-1);  // never
  start();
  const auto client = connect();
  client->send(wireCall({.member = "Later", .signature = "s"}, WireBytes().text(std::string(100'000, 'x'))));
  ASSERT_TRUE(delegate_.events->wait("Later"));
  expectStillServed(*client);
  EXPECT_EQ(budget->left(), 4 * kMebibyte);
}

TEST_F(DBusRawServiceTest, TooDeepAMessageIsAnsweredWithAnError) {
  start();
  const auto client = connect();
  WireBytes body;
  const std::function<void(WireBytes&, int)> nest = [&nest](WireBytes& bytes, int left) {
    bytes.array(8, [&](WireBytes& entries) {
      if (left == 0) return;
      entries.align(8).text("k").signature("a{sv}");
      nest(entries, left - 1);
    });
  };
  nest(body, 50);
  client->send(wireCall({.member = "Describe", .signature = "a{sv}"}, body));
  EXPECT_EQ(errorName(*client), "org.freedesktop.DBus.Error.LimitsExceeded");
  expectStillServed(*client);
  expectErrors(
      {"listener: " + peerName() + " sent a message that is refused: its values are nested too deep"});
}

TEST_F(DBusRawServiceTest, AClientThatEndsAmidAMessageIsLetGo) {
  start();
  auto client = connect();
  client->send(describeCall(1) + describeCall(2).substr(0, 60));
  client->close();
  ASSERT_TRUE(delegate_.events->wait("invalidated"));
  EXPECT_EQ(delegate_.events->count("Describe"), 1u);
  EXPECT_EQ(delegate_.events->count("interrupted"), 0u);
}

// Reporting must not lose what a short-lived process said last.
TEST_F(DBusRawServiceTest, CallsOfAClientThatIsGoneAreStillServed) {
  start();
  auto client = connect();
  std::string batch;
  for (uint32_t serial = 1; serial <= 300; ++serial) batch += describeCall(serial);
  client->send(batch);
  client->close();
  ASSERT_TRUE(delegate_.events->wait("invalidated"));
  EXPECT_EQ(delegate_.events->count("Describe"), 300u);
}

// Nobody waits for the answers any more, so they hold up nothing.
TEST_F(DBusRawServiceTest, CallsOfAClientThatIsGoneDoNotWaitForAnswersToEarlierOnes) {
  options_.connection.outputLimits.maximumPendingReplies = 2;
  start();
  auto client = connect();
  std::string batch;
  for (uint32_t serial = 1; serial <= 5; ++serial) batch += laterCall(serial);
  client->send(batch);
  client->close();
  ASSERT_TRUE(delegate_.events->wait("invalidated"));
  EXPECT_EQ(delegate_.events->count("Later"), 5u);
}

TEST_F(DBusRawServiceTest, AClientKilledDuringItsCallIsLetGo) {
  start();
  auto client = connect();
  client->send(simpleCall("Block"));
  ASSERT_TRUE(delegate_.events->wait("blocked"));
  client->close();
  delegate_.object()->unblock();
  ASSERT_TRUE(delegate_.events->wait("object released"));
  EXPECT_EQ(delegate_.events->count("invalidated"), 1u);
}

}  // namespace
}  // namespace zun
