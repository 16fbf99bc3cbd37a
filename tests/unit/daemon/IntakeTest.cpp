#include "daemon/Intake.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "support/TestPlatform.h"

namespace zun {
namespace {

class IntakeTest : public PlatformTest {
 protected:
  IntakeTest() {
    std::filesystem::create_directories(leftOver_.parent_path());
    std::ofstream(leftOver_) << "content";
  }

  const std::filesystem::path leftOver_ = platform_.files.resolve("/tmp/zunstorage/x.zundiag");
  const StorageContainers containers_{platform_.services};
};

TEST_F(IntakeTest, WhatAnEarlierProcessStoredHasGoneBeforeAnybodyCanConnect) {
  const bool isThereWhenTheDoorOpens =
      openIntake(containers_, kBackgroundUploadMode, [&] { return std::filesystem::exists(leftOver_); });
  EXPECT_FALSE(isThereWhenTheDoorOpens);
}

TEST_F(IntakeTest, AModeThatStoresNothingTouchesNothing) {
  EXPECT_TRUE(openIntake(containers_, kPOSTMode, [&] { return std::filesystem::exists(leftOver_); }));
}

}  // namespace
}  // namespace zun
