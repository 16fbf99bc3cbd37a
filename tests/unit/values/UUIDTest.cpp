#include "values/UUID.h"

#include <gtest/gtest.h>

namespace zun {
namespace {

TEST(UUIDTest, IsWrittenInUpperCaseGroups) {
  std::array<std::byte, 16> bytes{};
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::byte>(i * 0x11);
  EXPECT_EQ(uuidString(bytes), "00112233-4455-6677-8899-AABBCCDDEEFF");
}

}  // namespace
}  // namespace zun
