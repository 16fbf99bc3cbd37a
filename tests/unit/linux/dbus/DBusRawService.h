#pragma once

#include "DBusPeer.h"

namespace zun {

inline WireBytes messageBody(std::endian order = std::endian::native) {
  return WireBytes(order).array(
      8, [](WireBytes& entries) { entries.align(8).text("category").signature("q").number(uint16_t{7}); });
}

inline std::string describeCall(uint32_t serial = 1, std::endian order = std::endian::native) {
  return wireCall({.member = "Describe", .signature = "a{sv}", .serial = serial}, messageBody(order));
}

inline std::string simpleCall(const std::string& member, uint32_t serial = 1) {
  return wireCall({.member = member, .serial = serial});
}

inline std::string laterCall(uint32_t serial) {
  return wireCall({.member = "Later", .signature = "s", .serial = serial}, WireBytes().text("x"));
}

/// Calls of an EchoObject, byte by byte.
class DBusRawServiceTest : public DBusServiceTest {
 protected:
  void expectStillServed(RawClient& client) {
    client.send(describeCall(999));
    const auto message = client.receiveMessage();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->header.replySerial, 999u);
    EXPECT_EQ(message->values[0].stringValue(), "{category = 7}");
  }
};

}  // namespace zun
