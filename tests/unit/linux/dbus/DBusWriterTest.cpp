// Messages as they stand on the wire, byte by byte.

#include <gtest/gtest.h>

#include "DBusPeer.h"

namespace zun {
namespace {

/// Every field, each of a length that needs padding behind it.
DBusHeader fullHeader() {
  DBusHeader header;
  header.type = DBusMessageType::kError;
  header.flags = kDBusFlagNoReplyExpected;
  header.serial = 0x01020304;
  header.replySerial = 0x05060708;
  header.path = "/path";
  header.interface = "an.interface";
  header.member = "member";
  header.errorName = "an.error";
  header.destination = "to";
  header.sender = "from.1";
  header.signature = "yx";
  return header;
}

std::string fullMessage() {
  WireBytes message;
  message.u8(std::endian::native == std::endian::little ? 'l' : 'B').u8(3).u8(1).u8(1);
  message.u32(16).u32(0x01020304).array(8, [](WireBytes& fields) {
    fields.u8(1).signature("o").text("/path").align(8);
    fields.u8(2).signature("s").text("an.interface").align(8);
    fields.u8(3).signature("s").text("member").align(8);
    fields.u8(4).signature("s").text("an.error").align(8);
    fields.u8(5).signature("u").u32(0x05060708).align(8);
    fields.u8(6).signature("s").text("to").align(8);
    fields.u8(7).signature("s").text("from.1").align(8);
    fields.u8(8).signature("g").signature("yx");
  });
  return message.align(8).u8(7).number(int64_t{-2}).bytes();
}

TEST(DBusWriterTest, AMessageIsWrittenFieldByFieldInTheirOrder) {
  std::string bytes;
  EXPECT_FALSE(appendDBusMessage(bytes, fullHeader(), Array{7, -2}));
  EXPECT_EQ(bytes, fullMessage());
}

// Others are queued before it; padding counts from its own beginning.
TEST(DBusWriterTest, AMessageBehindOthersIsTheSame) {
  std::string bytes = "other";
  EXPECT_FALSE(appendDBusMessage(bytes, fullHeader(), Array{7, -2}));
  EXPECT_EQ(bytes, "other" + fullMessage());
  const auto body = encodeDBusBody("yx", Array{7, -2});
  ASSERT_TRUE(body);
  EXPECT_FALSE(appendDBusMessageOfBody(bytes, fullHeader(), *body));
  EXPECT_EQ(bytes, "other" + fullMessage() + fullMessage());
}

TEST(DBusWriterTest, FieldsThatAreEmptyAreLeftOut) {
  DBusHeader header;
  header.serial = 9;
  header.path = "/path";
  header.member = "member";
  WireBytes message;
  message.u8(std::endian::native == std::endian::little ? 'l' : 'B').u8(1).u8(0).u8(1);
  message.u32(0).u32(9).array(8, [](WireBytes& fields) {
    fields.u8(1).signature("o").text("/path").align(8);
    fields.u8(3).signature("s").text("member");
  });
  std::string bytes;
  EXPECT_FALSE(appendDBusMessage(bytes, header, Array()));
  EXPECT_EQ(bytes, message.align(8).bytes());
}

std::string bodyOf(std::string_view signature, const Array& values) {
  const auto body = encodeDBusBody(signature, values);
  return body ? *body : std::string("failed: ") + body.error().reason;
}

TEST(DBusWriterTest, EveryTypeIsWrittenWithItsPadding) {
  EXPECT_EQ(bodyOf("yn", Array{1, -2}), WireBytes().u8(1).number(int16_t{-2}).bytes());
  EXPECT_EQ(bodyOf("yq", Array{1, 65535}), WireBytes().u8(1).number(uint16_t{65535}).bytes());
  EXPECT_EQ(bodyOf("yi", Array{1, -2}), WireBytes().u8(1).number(int32_t{-2}).bytes());
  EXPECT_EQ(bodyOf("yu", Array{1, 2}), WireBytes().u8(1).u32(2).bytes());
  EXPECT_EQ(bodyOf("yb", Array{1, true}), WireBytes().u8(1).u32(1).bytes());
  EXPECT_EQ(bodyOf("yx", Array{1, -2}), WireBytes().u8(1).number(int64_t{-2}).bytes());
  EXPECT_EQ(bodyOf("yt", Array{1, 2}), WireBytes().u8(1).number(uint64_t{2}).bytes());
  EXPECT_EQ(bodyOf("yd", Array{1, 0.5}), WireBytes().u8(1).number(0.5).bytes());
  EXPECT_EQ(bodyOf("ys", Array{1, "text"}), WireBytes().u8(1).text("text").bytes());
  EXPECT_EQ(bodyOf("yo", Array{1, "/path"}), WireBytes().u8(1).text("/path").bytes());
  EXPECT_EQ(bodyOf("yg", Array{1, "a{sv}"}), WireBytes().u8(1).signature("a{sv}").bytes());
  EXPECT_EQ(bodyOf("y(d)", Array{1, Date{2.5}}), WireBytes().u8(1).align(8).number(2.5).bytes());
  EXPECT_EQ(bodyOf("yv", Array{1, 2}), WireBytes().u8(1).signature("x").number(int64_t{2}).bytes());
  EXPECT_EQ(bodyOf("y(yx)y", Array{1, Array{2, 3}, 4}),
            WireBytes().u8(1).align(8).u8(2).number(int64_t{3}).u8(4).bytes());
}

TEST(DBusWriterTest, AnArraysLengthIsThatOfItsElements) {
  EXPECT_EQ(bodyOf("ax", Array{Array()}), WireBytes().u32(0).align(8).bytes());
  EXPECT_EQ(bodyOf("ax", Array{Array{1, 2}}),
            WireBytes().u32(16).number(int64_t{1}).number(int64_t{2}).bytes());
  EXPECT_EQ(bodyOf("ayy", Array{Value::data("\1\2\3"), 4}), WireBytes().u32(3).raw("\1\2\3").u8(4).bytes());
  EXPECT_EQ(bodyOf("ay", Array{Array{1, 2, 3}}), WireBytes().u32(3).raw("\1\2\3").bytes());
  EXPECT_EQ(bodyOf("ay", Array{"text"}), WireBytes().u32(4).raw("text").bytes());
  EXPECT_EQ(bodyOf("a{sy}", Array{Dictionary{{"k", 1}, {"l", 2}}}),
            WireBytes().u32(15).align(8).text("k").u8(1).align(8).text("l").u8(2).bytes());
}

// --- What is on a limit -------------------------------------------------------------

std::string refusalOf(std::string_view signature, const Value& value, const DBusLimits& limits = {}) {
  const auto body = encodeDBusBody(signature, Array{value}, limits);
  return body ? "none" : body.error().reason;
}

TEST(DBusWriterTest, AMessageIsAsLargeAsIsAllowedAndNotLarger) {
  const size_t bytes = fullMessage().size();
  for (const size_t prefix : {0, 5}) {
    std::string out(prefix, 'p');
    const auto failure =
        appendDBusMessage(out, fullHeader(), Array{7, -2}, {.maximumMessageBytes = bytes - 1});
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->kind, DBusFailure::Kind::kTooLarge);
    EXPECT_STREQ(failure->reason, "the message is too large");
    EXPECT_EQ(out, std::string(prefix, 'p'));
    const auto ofBody = appendDBusMessageOfBody(
        out, fullHeader(), WireBytes().u8(7).number(int64_t{-2}).bytes(), {.maximumMessageBytes = bytes - 1});
    ASSERT_TRUE(ofBody);
    EXPECT_STREQ(ofBody->reason, "the message is too large");
    EXPECT_EQ(out, std::string(prefix, 'p'));
    EXPECT_FALSE(appendDBusMessage(out, fullHeader(), Array{7, -2}, {.maximumMessageBytes = bytes}));
    EXPECT_EQ(out.size(), prefix + bytes);
  }
}

TEST(DBusWriterTest, ATextIsAsLongAsIsAllowedAndNotLonger) {
  EXPECT_EQ(refusalOf("s", "text", {.maximumTextBytes = 4}), "none");
  EXPECT_EQ(refusalOf("s", "text", {.maximumTextBytes = 3}), "a text is too long");
  EXPECT_EQ(refusalOf("o", "/abc", {.maximumTextBytes = 3}), "a text is too long");
  EXPECT_EQ(refusalOf("g", "aaay", {.maximumTextBytes = 3}), "a text is too long");
}

TEST(DBusWriterTest, WhatIsNestedTooDeepIsNotWritten) {
  const auto nested = [](size_t levels, const std::function<Value(const Value&)>& wrap) {
    Value value = 1;
    for (size_t level = 0; level < levels; ++level) value = wrap(value);
    return value;
  };
  const auto inArray = [](const Value& value) { return Value(Array{value}); };
  const auto inDictionary = [](const Value& value) { return Value(Dictionary{{"k", value}}); };
  for (const std::function<Value(const Value&)>& wrap :
       {std::function<Value(const Value&)>(inArray), std::function<Value(const Value&)>(inDictionary)}) {
    EXPECT_EQ(refusalOf("v", nested(3, wrap), {.maximumDepth = 3}), "none");
    EXPECT_EQ(refusalOf("v", nested(4, wrap), {.maximumDepth = 3}), "its values are nested too deep");
  }
  EXPECT_EQ(refusalOf("((i))", Array{Array{1}}, {.maximumDepth = 2}), "none");
  EXPECT_EQ(refusalOf("((i))", Array{Array{1}}, {.maximumDepth = 1}), "its values are nested too deep");
  EXPECT_EQ(refusalOf("a(i)", Array{Array{1}}, {.maximumDepth = 1}), "its values are nested too deep");
}

TEST(DBusWriterTest, WhatHasNoFormOnTheWireIsTold) {
  EXPECT_EQ(refusalOf("v", Value()), "a variant has no value");
  EXPECT_EQ(refusalOf("a(v)", Array{Array{Value()}}), "a variant has no value");
  EXPECT_EQ(refusalOf("a{sv}", Dictionary{{"k", Array{Value::none()}}}), "none");
  EXPECT_EQ(refusalOf("h", 1), "descriptors are not sent");
  EXPECT_EQ(refusalOf("o", "no path"), "a value is no object path");
  EXPECT_EQ(refusalOf("g", "no signature"), "a value is no signature");
  EXPECT_EQ(refusalOf("a", 1), "the signature is none");
}

// What a caller leaves out or gives as another kind still makes a message of its signature.
TEST(DBusWriterTest, ValuesOfAnotherKindBecomeWhatFitsBest) {
  EXPECT_EQ(bodyOf("s", Array{Value()}), WireBytes().text("").bytes());
  EXPECT_EQ(bodyOf("s", Array{5}), WireBytes().text("5").bytes());
  EXPECT_EQ(bodyOf("as", Array{5}), WireBytes().u32(0).bytes());
  EXPECT_EQ(bodyOf("a{sv}", Array{5}), WireBytes().u32(0).align(8).bytes());
  EXPECT_EQ(bodyOf("(ii)", Array{5}), WireBytes().u32(5).u32(0).bytes());
  EXPECT_EQ(bodyOf("(ii)", Array{Array{5}}), WireBytes().u32(5).u32(0).bytes());
  EXPECT_EQ(bodyOf("ii", Array{5}), WireBytes().u32(5).u32(0).bytes());
  EXPECT_EQ(bodyOf("d", Array{5}), WireBytes().number(5.0).bytes());
}

}  // namespace
}  // namespace zun
