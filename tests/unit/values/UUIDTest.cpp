#include "values/UUID.h"

#include <gtest/gtest.h>

#include "support/Fakes.h"

namespace zun {
namespace {

class FixedRandom final : public RandomSource {
 public:
  uint32_t uniformBelow(uint32_t) override { return 0; }
  std::array<std::byte, 16> uuidBytes() override {
    std::array<std::byte, 16> bytes{};
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::byte>(i * 0x11);
    return bytes;
  }
};

TEST(UUIDTest, IsWrittenInUpperCaseGroups) {
  FixedRandom random;
  EXPECT_EQ(makeUUIDString(random), "00112233-4455-6677-8899-AABBCCDDEEFF");
}

TEST(UUIDTest, EachIsFresh) {
  FakeRandom random;
  EXPECT_NE(makeUUIDString(random), makeUUIDString(random));
}

}  // namespace
}  // namespace zun
