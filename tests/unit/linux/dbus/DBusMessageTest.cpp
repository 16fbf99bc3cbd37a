#include "linux/dbus/DBusMessage.h"

#include <gtest/gtest.h>

#include <limits>

#include "DBusPeer.h"
#include "linux/dbus/DBusNames.h"
#include "linux/dbus/DBusSignature.h"

namespace zun {
namespace {

/// The body of `signature` in `body`, decoded.
Result<Array, DBusFailure> decode(std::string_view signature, const WireBytes& body,
                                  const DBusLimits& limits = {}) {
  DBusHeader header;
  header.signature = signature;
  header.isSwapped = body.order() != std::endian::native;
  return decodeDBusBody(header, body.bytes(), limits);
}

Value decodeOne(std::string_view signature, const WireBytes& body) {
  const auto values = decode(signature, body);
  EXPECT_TRUE(values) << signature << ": " << values.error().reason;
  return values ? (*values)[0] : Value();
}

std::string failureOf(std::string_view signature, const WireBytes& body) {
  const auto values = decode(signature, body);
  return values ? "none" : values.error().reason;
}

/// Values encoded as `signature` and decoded again.
Value roundTrip(std::string_view signature, const Value& value) {
  std::string bytes;
  DBusHeader header;
  header.path = "/a";
  header.member = "m";
  header.serial = 7;
  header.signature = signature;
  const auto failure = appendDBusMessage(bytes, header, Array{value});
  EXPECT_FALSE(failure) << signature << ": " << failure->reason;
  const auto frame = frameDBusMessage(bytes);
  const auto decoded = decodeDBusHeader(bytes);
  EXPECT_TRUE(frame && decoded);
  EXPECT_EQ(frame->totalBytes, bytes.size());
  EXPECT_EQ(decoded->serial, 7u);
  const auto values = decodeDBusBody(*decoded, std::string_view(bytes).substr(frame->headerBytes));
  EXPECT_TRUE(values) << signature << ": " << values.error().reason;
  return values ? (*values)[0] : Value();
}

// Small bytes, large values: structs of one byte each.
TEST(DBusMessageMemoryTest, WhatValuesTakeCountsInTheShareUntilItEnds) {
  WireBytes structs;
  structs.array(8, [](WireBytes& elements) {
    for (int i = 0; i < 8; ++i) elements.align(8).u8(1);
  });
  const auto budget = std::make_shared<MemoryBudget>(size_t{1} << 20);
  DBusHeader header;
  header.signature = "a(y)";
  const auto takenWith = [&](size_t uncounted) -> std::optional<size_t> {
    MemoryShare share(budget, {1000, 1});
    const auto values = decodeDBusBody(header, structs.bytes(), {.uncountedDecodedBytes = uncounted}, &share);
    if (values) return share.bytes();
    EXPECT_EQ(values.error().kind, DBusFailure::Kind::kTooLarge);
    EXPECT_STREQ(values.error().reason, "its values take more memory than its user's calls leave");
    return std::nullopt;
  };
  const size_t all = takenWith(0).value();
  EXPECT_GE(all, 8 * (96 + 2 * sizeof(Value)));
  EXPECT_EQ(takenWith(100), all - 100);
  EXPECT_EQ(takenWith(all), 0U);
  EXPECT_EQ(budget->left(), size_t{1} << 20);
  ASSERT_TRUE(budget->take((size_t{1} << 20) - 3 * all));
  EXPECT_EQ(takenWith(0), std::nullopt);  // all that is left would do, a share of it does not
  EXPECT_EQ(takenWith(all), 0U);
  EXPECT_EQ(budget->left(), 3 * all);
}

class DBusByteOrderTest : public ::testing::TestWithParam<std::endian> {};

TEST_P(DBusByteOrderTest, EveryTypeIsDecoded) {
  const auto bytes = [] { return WireBytes(GetParam()); };
  EXPECT_EQ(decodeOne("y", bytes().u8(200)), Value(200));
  EXPECT_EQ(decodeOne("b", bytes().u32(1)), Value(true));
  EXPECT_TRUE(decodeOne("b", bytes().u32(0)).isBoolean());
  EXPECT_EQ(decodeOne("n", bytes().number(int16_t{-2})), Value(-2));
  EXPECT_EQ(decodeOne("q", bytes().number(uint16_t{65535})), Value(65535));
  EXPECT_EQ(decodeOne("i", bytes().number(int32_t{-70000})), Value(-70000));
  EXPECT_EQ(decodeOne("u", bytes().u32(4000000000)), Value(4000000000));
  EXPECT_EQ(decodeOne("x", bytes().number(int64_t{-5})), Value(-5));
  EXPECT_TRUE(decodeOne("t", bytes().number(std::numeric_limits<uint64_t>::max())).isAboveInt64());
  EXPECT_EQ(decodeOne("d", bytes().number(1.5)), Value(1.5));
  EXPECT_EQ(decodeOne("s", bytes().text("grüß")), Value("grüß"));
  EXPECT_EQ(decodeOne("o", bytes().text("/a/b_1")), Value("/a/b_1"));
  EXPECT_EQ(decodeOne("g", bytes().signature("a{sv}i")), Value("a{sv}i"));
  EXPECT_EQ(decodeOne("h", bytes().u32(3)), Value(3));
  EXPECT_EQ(decodeOne("(d)", bytes().number(1700000000.25)), Value(Date{1700000000.25}));
  EXPECT_EQ(decodeOne("ay", bytes().array(1, [](WireBytes& b) { b.raw("\x01\x02"); })),
            Value::data("\x01\x02"));
  EXPECT_EQ(decodeOne("(is)", bytes().u32(9).text("x")), Value(Array{9, "x"}));
  EXPECT_EQ(decodeOne("ai", bytes().array(4, [](WireBytes& b) { b.u32(1).u32(2); })), Value(Array{1, 2}));
}

TEST_P(DBusByteOrderTest, DictionariesKeepTheirOrder) {
  const WireBytes body = WireBytes(GetParam()).array(8, [](WireBytes& entries) {
    entries.align(8).text("zebra").signature("q").number(uint16_t{7});
    entries.align(8).text("ant").signature("v").signature("s").text("inner");
    entries.align(8).text("list").signature("as").array(4, [](WireBytes& b) { b.text("one").text("two"); });
    entries.align(8).text("none").signature("a{sv}").array(8, [](WireBytes&) {});
  });
  const Value value = decodeOne("a{sv}", body);
  EXPECT_EQ(value.description(), "{zebra = 7; ant = \"inner\"; list = (\"one\", \"two\"); none = {}}");
}

TEST_P(DBusByteOrderTest, DictionariesOfTextAreDictionaries) {
  const WireBytes body = WireBytes(GetParam()).array(8, [](WireBytes& entries) {
    entries.align(8).text("a").text("1");
    entries.align(8).text("b").text("2");
  });
  EXPECT_EQ(decodeOne("a{ss}", body), Value(Dictionary{{"a", "1"}, {"b", "2"}}));
}

// A dictionary has text keys; entries with others are pairs.
TEST_P(DBusByteOrderTest, EntriesWithNumbersAsKeysArePairs) {
  const WireBytes body = WireBytes(GetParam()).array(8, [](WireBytes& entries) {
    entries.align(8).u32(5).text("five");
    entries.align(8).u32(6).text("six");
  });
  EXPECT_EQ(decodeOne("a{us}", body), Value(Array{Array{5, "five"}, Array{6, "six"}}));
}

INSTANTIATE_TEST_SUITE_P(Orders, DBusByteOrderTest, ::testing::Values(std::endian::little, std::endian::big),
                         [](const auto& order) {
                           return order.param == std::endian::big ? "Big" : "Little";
                         });

TEST(DBusSignatureTest, OnlyCompleteTypesAreSignatures) {
  for (const char* good : {"", "y", "a{sv}", "aa{sv}", "(sis)", "a(sis)v", "((i)(x))", "a{s(iv)}", "aaay"}) {
    EXPECT_TRUE(DBusSignature::parse(good)) << good;
  }
  for (const char* bad : {"a",       "(", ")",    "()", "(i", "i)", "{sv}", "a{s}",   "a{svv}", "a{vs}",
                          "a{(s)v}", "z", "a{sv", "a{", "aa", "r",  "e",    "a{sv}}", "*",      "m"}) {
    EXPECT_FALSE(DBusSignature::parse(bad)) << bad;
  }
}

TEST(DBusSignatureTest, DepthAndLengthAreLimited) {
  EXPECT_TRUE(DBusSignature::parse(std::string(32, 'a') + "y"));
  EXPECT_FALSE(DBusSignature::parse(std::string(33, 'a') + "y"));
  EXPECT_TRUE(DBusSignature::parse(std::string(32, '(') + "y" + std::string(32, ')')));
  EXPECT_FALSE(DBusSignature::parse(std::string(33, '(') + "y" + std::string(33, ')')));
  EXPECT_TRUE(DBusSignature::parse(std::string(255, 'y')));
  EXPECT_FALSE(DBusSignature::parse(std::string(256, 'y')));
}

TEST(DBusNamesTest, NamesFollowTheProtocol) {
  for (const char* good : {"/", "/a", "/a/b_2/C"}) EXPECT_TRUE(isDBusObjectPath(good)) << good;
  for (const char* bad : {"", "a", "/a/", "//", "/a//b", "/a-b", "/\xC3\xA4"}) {
    EXPECT_FALSE(isDBusObjectPath(bad)) << bad;
  }
  for (const char* good : {"a.b", "com.vantix._x1"}) EXPECT_TRUE(isDBusInterfaceName(good)) << good;
  EXPECT_TRUE(isDBusInterfaceName("a." + std::string(253, 'b')));
  EXPECT_FALSE(isDBusInterfaceName("a." + std::string(254, 'b')));
  for (const char* bad : {"", "a", "a.", ".a", "a..b", "a.1b", "a.b-c"})
    EXPECT_FALSE(isDBusInterfaceName(bad)) << bad;
  EXPECT_TRUE(isDBusMemberName("sendMessage1"));
  for (const std::string& bad :
       {std::string(), std::string("1a"), std::string("a.b"), std::string(256, 'a')}) {
    EXPECT_FALSE(isDBusMemberName(bad)) << bad;
  }
}

TEST(DBusBodyTest, MalformedBodiesAreRefused) {
  EXPECT_EQ(failureOf("b", WireBytes().u32(2)), "a boolean is neither 0 nor 1");
  EXPECT_EQ(failureOf("s", WireBytes().text("\xFF")), "a string is not UTF-8");
  EXPECT_EQ(failureOf("s", WireBytes().text(std::string_view("a\0b", 3))), "a string is not UTF-8");
  EXPECT_EQ(failureOf("s", WireBytes().u32(3).raw("abcX")), "a string does not end with a zero byte");
  EXPECT_EQ(failureOf("s", WireBytes().u32(0xFFFFFFFF).raw("abc")), "it ends within a string");
  EXPECT_EQ(failureOf("s", WireBytes().raw("ab")), "it ends within a number");
  EXPECT_EQ(failureOf("o", WireBytes().text("a/b")), "an object path is none");
  EXPECT_EQ(failureOf("g", WireBytes().signature("a")), "a signature is none");
  EXPECT_EQ(failureOf("v", WireBytes().signature("ii").u32(1).u32(1)),
            "a variant's signature is no single type");
  EXPECT_EQ(failureOf("v", WireBytes().signature("")), "a variant's signature is no single type");
  EXPECT_EQ(failureOf("yu", WireBytes().u8(1).raw(std::string_view("\0\1\0", 3)).u32(1)),
            "padding is not zero");
  EXPECT_EQ(failureOf("y", WireBytes().u32(1)), "its body is longer than its signature says");
  EXPECT_EQ(failureOf("ai", WireBytes().u32(400)), "it ends within an array");
  EXPECT_EQ(failureOf("ai", WireBytes().u32(5).raw("12345")), "it ends within a number");
  EXPECT_EQ(failureOf("as", WireBytes().u32(4).u32(0).u8(0)), "it ends within a string");
  EXPECT_EQ(failureOf("ai", WireBytes().u32((64u << 20) + 4)), "an array is too long");
}

/// `levels` dictionaries within each other.
WireBytes nestedDictionaries(size_t levels) {
  WireBytes body;
  const std::function<void(WireBytes&, size_t)> nest = [&nest](WireBytes& bytes, size_t left) {
    bytes.array(8, [&](WireBytes& entries) {
      if (left == 1) return;
      entries.align(8).text("k").signature("a{sv}");
      nest(entries, left - 1);
    });
  };
  nest(body, levels);
  return body;
}

TEST(DBusBodyTest, ThirtyTwoLevelsAreAcceptedAndNotOneMore) {
  EXPECT_TRUE(decode("a{sv}", nestedDictionaries(32)));
  const auto deeper = decode("a{sv}", nestedDictionaries(33));
  ASSERT_FALSE(deeper);
  EXPECT_EQ(deeper.error().kind, DBusFailure::Kind::kTooDeep);
}

// Variants in variants come to nothing, yet each is a level to walk down.
TEST(DBusBodyTest, VariantsWithinVariantsAreLimited) {
  const auto nested = [](size_t levels) {
    WireBytes body;
    for (size_t level = 0; level < levels; ++level) body.signature("v");
    return body.signature("y").u8(1);
  };
  EXPECT_TRUE(decode("v", nested(32)));
  const auto deeper = decode("v", nested(100000));
  ASSERT_FALSE(deeper);
  EXPECT_EQ(deeper.error().kind, DBusFailure::Kind::kTooDeep);
}

// Eight bytes each, but a chain of thirty arrays in memory: input must not multiply so.
TEST(DBusBodyTest, SmallInputThatMeansMuchMemoryIsRefused) {
  const std::string structs = std::string(30, '(') + "y" + std::string(30, ')');
  const WireBytes body = WireBytes().array(8, [](WireBytes& b) { b.raw(std::string(1 << 20, '\0')); });
  const auto values = decode("a" + structs, body);
  ASSERT_FALSE(values);
  EXPECT_EQ(values.error().kind, DBusFailure::Kind::kTooLarge);
}

// Each kind of value counts by itself what it takes.
TEST(DBusBodyTest, EveryKindOfValueIsCounted) {
  constexpr DBusLimits kLimits{.maximumDecodedBytes = 10'000};
  const auto kindOfFailure = [&](std::string_view signature, const WireBytes& body) {
    const auto values = decode(signature, body, kLimits);
    return values ? "none" : values.error().reason;
  };
  const auto many = [](size_t count, const std::function<void(WireBytes&)>& element, size_t alignment = 8) {
    return WireBytes().array(alignment, [&](WireBytes& body) {
      for (size_t index = 0; index < count; ++index) element(body.align(alignment));
    });
  };
  const std::string kReason = "its values take too much memory";
  const std::string large(11'000, 'x');
  EXPECT_EQ(kindOfFailure("s", WireBytes().text(large)), kReason);
  EXPECT_EQ(kindOfFailure("ay", WireBytes().array(1, [&](WireBytes& body) { body.raw(large); })), kReason);
  EXPECT_EQ(kindOfFailure("a(y)", many(90, [](WireBytes& body) { body.u8(1); })), kReason);
  EXPECT_EQ(kindOfFailure("a{yy}", many(90, [](WireBytes& body) { body.u8(1).u8(2); })), kReason);
  EXPECT_EQ(kindOfFailure("a{sy}", many(400, [](WireBytes& body) { body.text("k").u8(2); })), kReason);
  EXPECT_EQ(kindOfFailure("as", many(
                                    1000, [](WireBytes& body) { body.text("abc"); }, 4)),
            kReason);
}

TEST(DBusBodyTest, AFullMessageOfNumbersIsAccepted) {
  const WireBytes body = WireBytes().array(4, [](WireBytes& b) { b.raw(std::string(1 << 20, '\1')); });
  const Value value = decodeOne("ai", body);
  EXPECT_EQ(value.array()->size(), size_t{1} << 18);
}

TEST(DBusHeaderTest, HeadersAreDecodedInBothOrders) {
  for (const std::endian order : {std::endian::little, std::endian::big}) {
    WireCall call{.member = "Describe", .signature = "s", .serial = 77, .flags = 1};
    const std::string bytes = wireCall(call, WireBytes(order).text("x"));
    const auto header = decodeDBusHeader(bytes);
    ASSERT_TRUE(header) << header.error().reason;
    EXPECT_EQ(header->path, kEchoInterface.objectPath);
    EXPECT_EQ(header->interface, kEchoInterface.name);
    EXPECT_EQ(header->member, "Describe");
    EXPECT_EQ(header->signature, "s");
    EXPECT_EQ(header->serial, 77u);
    EXPECT_FALSE(header->expectsReply());
    EXPECT_EQ(header->isSwapped, order != std::endian::native);
  }
}

TEST(DBusHeaderTest, MalformedHeadersAreRefused) {
  const std::string good = wireCall({.member = "Describe"});
  ASSERT_TRUE(decodeDBusHeader(good));
  const auto reasonWith = [&good](size_t at, char byte) -> std::string {
    std::string bytes = good;
    bytes[at] = byte;
    const auto header = decodeDBusHeader(bytes);
    return header ? "none" : header.error().reason;
  };
  EXPECT_EQ(reasonWith(0, 'x'), "its byte order is unknown");
  EXPECT_EQ(reasonWith(1, 0), "its type is invalid");
  EXPECT_EQ(reasonWith(3, 2), "its protocol version is unknown");
  EXPECT_EQ(reasonWith(8, 0), "its serial is 0");
  EXPECT_EQ(reasonWith(4, 1), "it has a body without a signature");
  EXPECT_EQ(reasonWith(15, 0x7F), "it is larger than D-Bus allows");
  EXPECT_EQ(reasonWith(7, 0x7F), "it is larger than D-Bus allows");
  EXPECT_EQ(reasonWith(24, 'x'), "a name in the header is none");  // the path's slash
  EXPECT_EQ(reasonWith(16, 3), "a header field has the wrong type");
  EXPECT_EQ(reasonWith(good.size() - 1, 'x'), "padding is not zero");
  EXPECT_EQ(reasonWith(1, 2), "a reply lacks its serial");
  EXPECT_EQ(reasonWith(1, 3), "an error lacks its name or serial");
  for (size_t length = 0; length < good.size(); ++length) {
    EXPECT_FALSE(decodeDBusHeader(std::string_view(good).substr(0, length))) << length;
  }
}

// What a peer sends is read as if nothing had come before it.
TEST(DBusHeaderDecoderTest, HeadersThatComeAfterAnotherAreReadLikeTheFirst) {
  std::vector<std::string> headers;
  for (const std::endian order : {std::endian::little, std::endian::big}) {
    for (const char* member : {"Describe", "describe"}) {
      for (const uint32_t serial : {7U, 8U, 0U}) {
        for (const uint8_t flags : {0, 1}) {
          WireCall call{.member = member, .signature = "s", .serial = serial, .flags = flags};
          headers.push_back(wireCall(call, WireBytes(order).text("x")));
        }
      }
      headers.push_back(wireCall({.member = member}, WireBytes(order)));
      std::string wrong = headers.back();
      wrong[4] = 1;  // has a body without a signature, in either order's length
      wrong[7] = 1;
      headers.push_back(wrong);
      wrong = headers[headers.size() - 2];
      wrong[24] = 'x';  // the path's slash
      headers.push_back(wrong);
      wrong = headers[headers.size() - 3];
      wrong[1] = 2;  // a reply without the serial of its call
      headers.push_back(wrong);
    }
    headers.push_back(
        wireCall({.path = "/" + std::string(600, 'p'), .member = "Describe"}, WireBytes(order)));
  }
  const auto described = [](const Result<DBusHeader, DBusFailure>& header) {
    if (!header) return std::string(header.error().reason);
    return fmt::format("{} {} {} {} {} {} {} {}", static_cast<int>(header->type), header->flags,
                       header->isSwapped, header->serial, header->path, header->interface, header->member,
                       header->signature);
  };
  for (const std::string& first : headers) {
    for (const std::string& second : headers) {
      DBusHeaderDecoder decoder;
      for (const std::string* bytes : {&first, &second, &second}) {
        std::string ownCopy = *bytes;
        const auto decoded = decoder.decode(ownCopy, {});
        EXPECT_EQ(described(decoded), described(decodeDBusHeader(*bytes)));
      }
      decoder.forget();
      EXPECT_EQ(described(decoder.decode(first, {})), described(decodeDBusHeader(first)));
    }
  }
}

TEST(DBusHeaderTest, ErrorsNeedANameAndSignalsAnInterface) {
  WireBytes error;
  error.u8(std::endian::native == std::endian::little ? 'l' : 'B').u8(3).u8(0).u8(1).u32(0).u32(5);
  error.array(8, [](WireBytes& fields) { fields.u8(5).signature("u").u32(1); });
  EXPECT_STREQ(decodeDBusHeader(error.align(8).bytes()).error().reason, "an error lacks its name or serial");
  std::string signal = wireCall({.interface = "", .member = "Describe"});
  ASSERT_TRUE(decodeDBusHeader(signal));
  signal[1] = 4;
  EXPECT_STREQ(decodeDBusHeader(signal).error().reason, "a signal lacks its path, interface or member");
}

TEST(DBusHeaderTest, FieldsMayTakeAsMuchAsAnArray) {
  std::string bytes = wireCall({.member = "Describe"});
  const auto isFramed = [&bytes](uint32_t fieldsBytes) {
    std::memcpy(bytes.data() + 12, &fieldsBytes, sizeof fieldsBytes);
    return static_cast<bool>(frameDBusMessage(bytes));
  };
  EXPECT_TRUE(isFramed(64 << 20));
  EXPECT_FALSE(isFramed((64 << 20) + 1));
}

TEST(DBusHeaderTest, UnknownFieldsAreSkipped) {
  WireBytes message;
  message.u8(std::endian::native == std::endian::little ? 'l' : 'B').u8(1).u8(0).u8(1).u32(0).u32(5);
  message.array(8, [](WireBytes& fields) {
    fields.u8(1).signature("o").text("/a");
    fields.align(8).u8(200).signature("a{sv}").array(8, [](WireBytes&) {});
    fields.align(8).u8(3).signature("s").text("m");
  });
  EXPECT_TRUE(decodeDBusHeader(message.align(8).bytes()));
}

TEST(DBusEncodingTest, ValuesComeBackAsTheyWere) {
  EXPECT_EQ(roundTrip("y", 200), Value(200));
  EXPECT_EQ(roundTrip("n", -3), Value(-3));
  EXPECT_EQ(roundTrip("q", 65535), Value(65535));
  EXPECT_EQ(roundTrip("i", -70000), Value(-70000));
  EXPECT_EQ(roundTrip("u", 4000000000), Value(4000000000));
  EXPECT_EQ(roundTrip("x", -5), Value(-5));
  EXPECT_TRUE(roundTrip("t", std::numeric_limits<uint64_t>::max()).isAboveInt64());
  EXPECT_EQ(roundTrip("d", 0.25), Value(0.25));
  EXPECT_EQ(roundTrip("s", "grüß"), Value("grüß"));
  EXPECT_EQ(roundTrip("as", Array{"a", "b"}), Value(Array{"a", "b"}));
  EXPECT_EQ(roundTrip("a(sis)", Array{Array{"domain", -1, "text"}}),
            Value(Array{Array{"domain", -1, "text"}}));
  EXPECT_EQ(roundTrip("aa{sv}", Array()), Value(Array()));
  EXPECT_EQ(roundTrip("aa{sv}", Array{Dictionary{{"k", 1}}}), Value(Array{Dictionary{{"k", 1}}}));
}

TEST(DBusEncodingTest, VariantsAreTypedByTheirValue) {
  const Value values = Array{true,
                             -7,
                             std::numeric_limits<uint64_t>::max(),
                             1.5,
                             "text",
                             Value::data("\x01\x02"),
                             Date{12.5},
                             Array{1, "two"},
                             Dictionary{{"a", Dictionary{{"b", false}}}}};
  const Value back = roundTrip("av", values);
  EXPECT_EQ(back, values);
  EXPECT_TRUE((*back.array())[0].isBoolean());
  EXPECT_TRUE((*back.array())[1].isInteger());
  EXPECT_TRUE((*back.array())[2].isAboveInt64());
  EXPECT_TRUE((*back.array())[6].isDate());
}

TEST(DBusEncodingTest, ElementsThatAreNoneAreLeftOut) {
  EXPECT_EQ(roundTrip("av", Array{Value(), 1, Value()}), Value(Array{1}));
}

// Text from elsewhere may be anything; a peer would end the connection over it.
TEST(DBusEncodingTest, TextIsMadeFitForTheWire) {
  EXPECT_EQ(roundTrip("s", std::string("ab\0cd", 5)), Value("ab"));
  EXPECT_EQ(roundTrip("s", "a\xFFz"), Value("a\xEF\xBF\xBDz"));
  EXPECT_EQ(roundTrip("s", 42), Value("42"));
}

TEST(DBusEncodingTest, WhatCannotBeSentLeavesTheBufferAlone) {
  std::string bytes = "before";
  DBusHeader header;
  header.path = "/a";
  header.member = "m";
  header.serial = 1;
  header.signature = "v";
  Value deep = Dictionary{{"k", 1}};
  for (int level = 0; level < 40; ++level) deep = Dictionary{{"k", deep}};
  EXPECT_EQ(appendDBusMessage(bytes, header, Array{deep})->kind, DBusFailure::Kind::kTooDeep);
  EXPECT_EQ(appendDBusMessage(bytes, header, Array{std::string(2 << 20, 'x')})->kind,
            DBusFailure::Kind::kTooLarge);
  EXPECT_TRUE(appendDBusMessage(bytes, header, Array()));
  header.signature = "h";
  EXPECT_TRUE(appendDBusMessage(bytes, header, Array{1}));
  header.signature = "o";
  EXPECT_TRUE(appendDBusMessage(bytes, header, Array{"no path"}));
  EXPECT_EQ(bytes, "before");
}

}  // namespace
}  // namespace zun
