#include "storebag/StorebagEnvironment.h"

#include "StorebagFixture.h"

namespace zun {
namespace {

class StorebagEnvironmentTest : public StorebagTest {
 protected:
  uint32_t environmentWith(Value stored) {
    setDefault("environmentType", std::move(stored));
    return userDefaultsEnvironment(platform_.services, identity_);
  }
};

TEST_F(StorebagEnvironmentTest, AbsentMeansReleaseOnOrdinaryBuilds) {
  EXPECT_EQ(userDefaultsEnvironment(platform_.services, identity_), 4U);
  expectDefaultLine("userDefaultsEnvironment: Environment type 4");
}

TEST_F(StorebagEnvironmentTest, AbsentMeansVantixInternalOnInternalBuilds) {
  platform_.device.set("ReleaseType", "Internal");
  EXPECT_EQ(userDefaultsEnvironment(platform_.services, identity_), 2U);
}

TEST_F(StorebagEnvironmentTest, StoredTypesBelowFiveAreTakenAsTheyAreOnAnyBuild) {
  for (const uint32_t type : {0U, 1U, 2U, 3U, 4U}) EXPECT_EQ(environmentWith(type), type);
  EXPECT_EQ(environmentWith("3"), 3U);
  platform_.device.set("ReleaseType", "Internal");
  EXPECT_EQ(environmentWith(4), 4U);
}

TEST_F(StorebagEnvironmentTest, OtherTypesAreAnErrorAndMeanVantixInternal) {
  EXPECT_EQ(environmentWith(7), 2U);
  EXPECT_EQ(environmentWith(5), 2U);
  EXPECT_EQ(environmentWith(-1), 2U);
  expectErrors({"userDefaultsEnvironment: Invalid environment type 7",
                "userDefaultsEnvironment: Invalid environment type 5",
                "userDefaultsEnvironment: Invalid environment type 4294967295"});
  expectDefaultLine("userDefaultsEnvironment: Environment type 2");
}

TEST_F(StorebagEnvironmentTest, DefaultsAreReadOnEveryCall) {
  EXPECT_EQ(environmentWith(1), 1U);
  EXPECT_EQ(environmentWith(3), 3U);
  EXPECT_EQ(environmentWith(Value()), 4U);
}

TEST_F(StorebagEnvironmentTest, EachEnvironmentNamesItsSection) {
  EXPECT_EQ(environmentName(1), "development");
  EXPECT_EQ(environmentName(2), "vantix_internal");
  EXPECT_EQ(environmentName(3), "seed");
  EXPECT_EQ(environmentName(4), "release");
  EXPECT_EQ(environmentName(0), std::nullopt);
  EXPECT_EQ(environmentName(5), std::nullopt);
}

}  // namespace
}  // namespace zun
