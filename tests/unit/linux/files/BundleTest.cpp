#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "linux/files/LinuxFileManager.h"
#include "linux/files/ResourceBundle.h"
#include "support/RecordingLog.h"
#include "support/ScratchFolder.h"
#include "values/PropertyList.h"

namespace zun {
namespace {

class BundleTest : public ::testing::Test {
 protected:
  void writeInformation(const std::string& bytes) {
    ASSERT_EQ(files_.writeFileAtomically(scratch_.path("info.plist"), bytes), std::nullopt);
  }
  void TearDown() override { EXPECT_THAT(log_.takeErrors(), ::testing::IsEmpty()); }

  ScratchFolder scratch_;
  RecordingLog log_;
  LinuxFileManager files_{"", ""};
  ResourceBundle bundle_{scratch_.path(), log_};
};

TEST_F(BundleTest, GivesTheBytesOfAResourceAfresh) {
  EXPECT_EQ(bundle_.resource("publicKey", "der"), std::nullopt);
  const std::string bytes("\x30\x00\xff", 3);
  ASSERT_EQ(files_.createFile(scratch_.path("publicKey.der"), bytes), std::nullopt);
  EXPECT_EQ(bundle_.resource("publicKey", "der"), bytes);
  EXPECT_EQ(bundle_.resource("../publicKey", "der"), std::nullopt);
}

TEST_F(BundleTest, VersionComesFromTheInformationDictionaryOrIsEightPointZero) {
  EXPECT_EQ(bundle_.version(), std::nullopt);
  EXPECT_EQ(versionOrDefault(bundle_), "8.0");
  writeInformation(serializeXMLPropertyList(Dictionary{{"version", "3.2.1"}}));
  EXPECT_EQ(bundle_.version(), "3.2.1");
  EXPECT_EQ(versionOrDefault(bundle_), "3.2.1");
  writeInformation(serializeBinaryPropertyList(Dictionary{{"other", "x"}}));
  EXPECT_EQ(bundle_.version(), std::nullopt);
  writeInformation(serializeBinaryPropertyList(Array{"version"}));
  EXPECT_EQ(bundle_.version(), std::nullopt);
  writeInformation(serializeBinaryPropertyList(Dictionary{{"version", Array{}}}));
  EXPECT_EQ(bundle_.version(), std::nullopt);
}

TEST_F(BundleTest, InformationThatCannotBeReadIsAnErrorLine) {
  writeInformation("garbage");
  EXPECT_EQ(versionOrDefault(bundle_), "8.0");
  EXPECT_THAT(log_.takeErrors(),
              ::testing::ElementsAre("ResourceBundle: could not read '" + scratch_.path("info.plist") +
                                     "': line 1: syntax error"));
  ASSERT_EQ(files_.createDirectories(scratch_.path("publicKey.der")), std::nullopt);
  EXPECT_EQ(bundle_.resource("publicKey", "der"), std::nullopt);
  EXPECT_EQ(log_.takeErrors().size(), 1u);
}

}  // namespace
}  // namespace zun
