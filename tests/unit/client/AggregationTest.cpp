#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <future>
#include <stdexcept>

#include "ScriptedDaemon.h"
#include "zunreporting/ReportingSession.h"

namespace zunreporting {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;

/// A session whose daemon sends what a test says as soon as the client asks for its URL.
class AggregationTest : public ::testing::Test {
 protected:
  using Sending = std::function<void(sd_bus*)>;

  void startWith(Sending sending, AggregationHandler handler) {
    daemon_ = std::make_unique<ScriptedDaemon>([sending = std::move(sending)](sd_bus_message* call) {
      const std::string_view member = sd_bus_message_get_member(call);
      if (member != "fetchDisplayURL") return sd_bus_reply_method_return(call, nullptr);
      sending(sd_bus_message_get_bus(call));
      return sd_bus_reply_method_return(call, "s", "url");
    });
    auto connected = ReportingSession::connect(daemon_->address());
    ASSERT_TRUE(connected) << connected.error;
    session_ = std::move(*connected.value);
    ASSERT_TRUE(session_->setSessionInfo({}, std::nullopt, std::move(handler)));
    ASSERT_TRUE(session_->fetchDisplayURL());
  }

  /// The session takes messages until it has `count` of them.
  void startAndTake(size_t count, Sending sending) {
    startWith(std::move(sending), [this](const AggregatedMessage& message) { messages_.push_back(message); });
    while (messages_.size() < count) ASSERT_TRUE(session_->processMessages(kDeadline));
  }

  /// A message of this category, without anything else.
  static void sendEmpty(sd_bus* bus, uint16_t category) {
    sd_bus_message* const message = newMessageToClient(bus);
    EXPECT_GE(sd_bus_message_append(message, "aa{sv}dqqaa{sv}", 1, 0, 1.5, category, 7, 0), 0);
    EXPECT_GE(sendToClient(bus, message), 0);
  }

  static void sendEnd(sd_bus* bus) {
    sd_bus_message* const message = newMessageToClient(bus);
    EXPECT_GE(sd_bus_message_append(message, "aa{sv}dqqaa{sv}", 0, 0.0, 0, 0, 0), 0);
    EXPECT_GE(sendToClient(bus, message), 0);
  }

  std::vector<uint16_t> categories() const {
    std::vector<uint16_t> categories;
    for (const AggregatedMessage& message : messages_) categories.push_back(message.category);
    return categories;
  }

  std::unique_ptr<ScriptedDaemon> daemon_;
  std::unique_ptr<ReportingSession> session_;  // before the daemon's end, which waits for it
  std::vector<AggregatedMessage> messages_;
};

const PropertyValue& valueOf(const std::optional<PropertyDictionary>& dictionary, std::string_view key) {
  for (const auto& [name, value] : *dictionary) {
    if (name == key) return value;
  }
  throw std::out_of_range(std::string(key));
}

TEST_F(AggregationTest, EveryKindOfValueIsRead) {
  startAndTake(1, [](sd_bus* bus) {
    sd_bus_message* const message = newMessageToClient(bus);
    EXPECT_GE(sd_bus_message_append(message, "aa{sv}dqq", 1, 1, "sessionInfoSessionID", "x", int64_t{9},
                                    12.25, 3, 4),
              0);
    EXPECT_GE(sd_bus_message_append(message, "aa{sv}", 1, 9, "boolean", "b", 1, "byte", "y", 200, "negative",
                                    "n", -5, "huge", "t", uint64_t{1} << 63, "real", "d", 2.5, "text", "s",
                                    "h\xC3\xA4h", "data", "ay", 2, 0, 255, "date", "(d)", 7.5, "array", "av",
                                    2, "s", "a", "a{sv}", 1, "k", "av", 0),
              0);
    EXPECT_GE(sendToClient(bus, message), 0);
  });
  const AggregatedMessage& message = messages_[0];
  EXPECT_FALSE(message.isEndOfAggregation());
  EXPECT_EQ(std::get<int64_t>(valueOf(message.sessionInfo, "sessionInfoSessionID").content), 9);
  EXPECT_EQ(message.timestamp, 12.25);
  EXPECT_EQ(message.category, 3);
  EXPECT_EQ(message.type, 4);
  const auto& payload = message.payload;
  EXPECT_TRUE(std::get<bool>(valueOf(payload, "boolean").content));
  EXPECT_EQ(std::get<int64_t>(valueOf(payload, "byte").content), 200);
  EXPECT_EQ(std::get<int64_t>(valueOf(payload, "negative").content), -5);
  EXPECT_EQ(std::get<uint64_t>(valueOf(payload, "huge").content), uint64_t{1} << 63);
  EXPECT_EQ(std::get<double>(valueOf(payload, "real").content), 2.5);
  EXPECT_EQ(std::get<std::string>(valueOf(payload, "text").content), "h\xC3\xA4h");
  EXPECT_EQ(std::get<PropertyData>(valueOf(payload, "data").content).bytes, std::string("\0\xFF", 2));
  EXPECT_EQ(std::get<PropertyDate>(valueOf(payload, "date").content).secondsSince1970, 7.5);
  const auto& array = std::get<PropertyArray>(valueOf(payload, "array").content);
  ASSERT_EQ(array.size(), 2u);
  EXPECT_EQ(std::get<std::string>(array[0].content), "a");
  EXPECT_TRUE(
      std::get<PropertyArray>(std::get<PropertyDictionary>(array[1].content)[0].second.content).empty());
}

TEST_F(AggregationTest, MessageWithoutPayloadHasNone) {
  startAndTake(1, [](sd_bus* bus) { sendEmpty(bus, 2); });
  EXPECT_TRUE(messages_[0].sessionInfo->empty());
  EXPECT_FALSE(messages_[0].payload.has_value());
}

TEST_F(AggregationTest, EndIsAMessageWithoutSessionInfo) {
  startAndTake(2, [](sd_bus* bus) {
    sendEmpty(bus, 2);
    sendEnd(bus);
  });
  EXPECT_FALSE(messages_[0].isEndOfAggregation());
  EXPECT_TRUE(messages_[1].isEndOfAggregation());
  EXPECT_EQ(messages_[1].timestamp, 0.0);
}

TEST_F(AggregationTest, MessagesThatComeDuringACallAreKeptInOrder) {
  startAndTake(5, [](sd_bus* bus) {
    for (uint16_t category = 1; category <= 5; ++category) sendEmpty(bus, category);
  });
  EXPECT_THAT(categories(), ElementsAre(1, 2, 3, 4, 5));
  EXPECT_EQ(session_->processMessages(0ms).value, 0u);
}

TEST_F(AggregationTest, MalformedMessagesAreDroppedAndTheNextOneComes) {
  startAndTake(1, [](sd_bus* bus) {
    sd_bus_message* message = newMessageToClient(bus);  // no arguments at all
    EXPECT_GE(sendToClient(bus, message), 0);
    message = newMessageToClient(bus);  // others
    EXPECT_GE(sd_bus_message_append(message, "ss", "session", "info"), 0);
    EXPECT_GE(sendToClient(bus, message), 0);
    message = newMessageToClient(bus);  // two where there may be one
    EXPECT_GE(sd_bus_message_append(message, "aa{sv}dqqaa{sv}", 2, 0, 0, 1.5, 1, 1, 0), 0);
    EXPECT_GE(sendToClient(bus, message), 0);
    message = newMessageToClient(bus);  // a descriptor is no value
    EXPECT_GE(
        sd_bus_message_append(message, "aa{sv}dqqaa{sv}", 1, 1, "file", "h", STDIN_FILENO, 1.5, 1, 1, 0), 0);
    EXPECT_GE(sendToClient(bus, message), 0);
    message = newMessageToClient(bus);  // keys are texts
    EXPECT_GE(
        sd_bus_message_append(message, "aa{sv}dqqaa{sv}", 1, 1, "k", "a{iv}", 1, 5, "s", "x", 1.5, 1, 1, 0),
        0);
    EXPECT_GE(sendToClient(bus, message), 0);
    sendEmpty(bus, 9);
  });
  EXPECT_THAT(categories(), ElementsAre(9));
}

TEST_F(AggregationTest, ValuesNestedBeyondAllReasonAreDropped) {
  startAndTake(1, [](sd_bus* bus) {
    constexpr int kLevels = 60;  // two containers each
    sd_bus_message* const message = newMessageToClient(bus);
    EXPECT_GE(sd_bus_message_open_container(message, 'a', "a{sv}"), 0);
    sd_bus_message_open_container(message, 'a', "{sv}");
    sd_bus_message_open_container(message, 'e', "sv");
    sd_bus_message_append(message, "s", "deep");
    for (int level = 0; level < kLevels; ++level) {
      EXPECT_GE(sd_bus_message_open_container(message, 'v', "av"), 0) << level;
      EXPECT_GE(sd_bus_message_open_container(message, 'a', "v"), 0) << level;
    }
    for (int level = 0; level < 2 * kLevels + 3; ++level)
      EXPECT_GE(sd_bus_message_close_container(message), 0);
    EXPECT_GE(sd_bus_message_append(message, "dqqaa{sv}", 1.5, 1, 1, 0), 0);
    EXPECT_GE(sendToClient(bus, message), 0);
    sendEmpty(bus, 9);
  });
  EXPECT_THAT(categories(), ElementsAre(9));
}

// A daemon that has stopped reading must not keep the process from ending its session.
TEST_F(AggregationTest, SessionEndsAtOnceWithAnswersThatTheDaemonDoesNotRead) {
  constexpr size_t kCalls = 30'000;  // their answers are more than any socket takes
  std::promise<void> sessionHasEnded;
  daemon_ = std::make_unique<ScriptedDaemon>(
      [&, hasEnded = sessionHasEnded.get_future().share()](sd_bus_message* call) {
        EXPECT_GE(sd_bus_reply_method_return(call, nullptr), 0);
        sd_bus* const bus = sd_bus_message_get_bus(call);
        for (size_t i = 0; i < kCalls; ++i) {
          sd_bus_message* const message = newMessageToClient(bus);
          sd_bus_message_set_expect_reply(message, 1);
          EXPECT_GE(sd_bus_message_append(message, "aa{sv}dqqaa{sv}", 1, 0, 1.5, 1, 7, 0), 0);
          uint64_t cookie = 0;  // who asks for it expects an answer
          EXPECT_GE(sd_bus_send(bus, message, &cookie), 0);
          sd_bus_message_unref(message);
        }
        EXPECT_GE(sd_bus_flush(bus), 0);
        hasEnded.wait();
        return -ECONNRESET;
      });
  session_ = std::move(*ReportingSession::connect(daemon_->address()).value);
  size_t handled = 0;
  EXPECT_TRUE(session_->setSessionInfo({}, std::nullopt, [&](const AggregatedMessage&) { ++handled; }));
  while (handled < kCalls) ASSERT_TRUE(session_->processMessages(kDeadline));
  session_.reset();
  sessionHasEnded.set_value();
}

TEST_F(AggregationTest, WithoutAHandlerNothingIsTakenAndTheSessionGoesOn) {
  startWith([](sd_bus* bus) { sendEmpty(bus, 1); }, {});
  EXPECT_EQ(session_->processMessages(0ms).value, 0u);
  EXPECT_TRUE(session_->finishSessionGracefully());
}

TEST_F(AggregationTest, HandlerMayCallTheDaemon) {
  int answers = 0;
  startWith([](sd_bus* bus) { sendEmpty(bus, 1); },
            [&](const AggregatedMessage&) { answers += session_->finishSessionGracefully() ? 1 : 0; });
  EXPECT_EQ(session_->processMessages(kDeadline).value, 1u);
  EXPECT_EQ(answers, 1);
}

TEST_F(AggregationTest, WhatTheHandlerThrowsComesOutAndTheNextCallGoesOn) {
  startWith(
      [](sd_bus* bus) {
        sendEmpty(bus, 1);
        sendEmpty(bus, 2);
      },
      [&](const AggregatedMessage& message) {
        messages_.push_back(message);
        if (message.category == 1) throw std::runtime_error("enough");
      });
  EXPECT_THROW(static_cast<void>(session_->processMessages(kDeadline)), std::runtime_error);
  EXPECT_EQ(session_->processMessages(kDeadline).value, 1u);
  EXPECT_THAT(categories(), ElementsAre(1, 2));
}

TEST_F(AggregationTest, DescriptorIsReadableWhenAMessageComes) {
  startWith([](sd_bus* bus) { sendEmpty(bus, 1); },
            [&](const AggregatedMessage& message) { messages_.push_back(message); });
  while (messages_.empty()) {
    ASSERT_TRUE(session_->processMessages(0ms));
    if (!messages_.empty()) break;
    pollfd polled{session_->descriptor(), POLLIN, 0};
    ASSERT_EQ(poll(&polled, 1, 60'000), 1);
  }
}

TEST_F(AggregationTest, MessagesBeforeTheEndOfTheConnectionAreToldBeforeIt) {
  startWith(
      [](sd_bus* bus) {
        sendEmpty(bus, 1);
        sendEnd(bus);
      },
      [&](const AggregatedMessage& message) { messages_.push_back(message); });
  daemon_.reset();
  auto processed = session_->processMessages(kDeadline);
  while (processed) processed = session_->processMessages(kDeadline);
  EXPECT_EQ(processed.failure, Failure::kConnection);
  EXPECT_EQ(messages_.size(), 2u);
}

}  // namespace
}  // namespace zunreporting
