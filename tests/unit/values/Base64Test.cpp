#include "values/Base64.h"

#include <gtest/gtest.h>

namespace zun {
namespace {

TEST(Base64Test, PaddingStandsAtTheEndAlone) {
  EXPECT_EQ(base64Decode("QQ=="), "A");
  EXPECT_EQ(base64Decode("Q Q=\n="), "A");  // what is no digit is passed over
  EXPECT_EQ(base64Decode("Q=Q="), std::nullopt);
  EXPECT_EQ(base64Decode("=QQ="), std::nullopt);
}

TEST(Base64Test, OneDigitMoreIsNoText) {
  EXPECT_EQ(base64Decode("QUJDQ"), std::nullopt);
  EXPECT_EQ(base64Decode("QUJDQ==="), std::nullopt);
}

}  // namespace
}  // namespace zun
