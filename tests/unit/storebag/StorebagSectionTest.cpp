
#include "NetworkStorebagFetcherFixture.h"

namespace zun {
namespace {

// MARK: - Sections and ages

class StorebagSectionTest : public NetworkStorebagFetcherTest {
 protected:
  StorebagFetchOutcome fetchOf(const Dictionary& storebag) {
    putInCache("confero", sealed(storebag), 10);
    putFreshness("confero", 3600);
    return fetch();
  }
};

TEST_F(StorebagSectionTest, EnvironmentChoosesTheSection) {
  setDefault("environmentType", 1);
  EXPECT_EQ(environmentOf(fetchOf(storebag("1.0"))), "development");
  setDefault("environmentType", 2);
  EXPECT_EQ(environmentOf(fetchOf(storebag("1.0"))), "vantix_internal");
}

TEST_F(StorebagSectionTest, MissingSeedSectionFallsBackToRelease) {
  setDefault("environmentType", 3);
  EXPECT_EQ(environmentOf(fetchOf(storebag("1.0"))), "release");
  expectErrors({"fetchStorebagForEnvironmentAndClientType: Seed section is missing in the storebag."});
}

TEST_F(StorebagSectionTest, SeedSectionIsUsedWhereThereIsOne) {
  setDefault("environmentType", 3);
  Dictionary withSeed = storebag("1.0");
  withSeed.set("seed", Dictionary{{"kodo", Dictionary{{"env", "seed"}}}});
  EXPECT_EQ(environmentOf(fetchOf(withSeed)), "seed");
}

TEST_F(StorebagSectionTest, InvalidEnvironmentUsesVantixInternal) {
  setDefault("environmentType", 7);
  EXPECT_EQ(environmentOf(fetchOf(storebag("1.0"))), "vantix_internal");
  expectErrors({"userDefaultsEnvironment: Invalid environment type 7"});
}

TEST_F(StorebagSectionTest, NoOtherEnvironmentFallsBack) {
  setDefault("environmentType", 1);
  EXPECT_FALSE(fetchOf({{"release", Dictionary{}}, {"version", "1.0"}}).section);
  setDefault("environmentType", 0);
  EXPECT_FALSE(fetchOf(storebag("1.0")).section);
  setDefault("environmentType", 3);
  EXPECT_FALSE(fetchOf({{"development", Dictionary{}}}).section);
  setDefault("environmentType", 4);
  EXPECT_FALSE(fetchOf({{"release", Array{}}}).section);  // no dictionary
  expectErrors(
      {"fetchStorebagForEnvironmentAndClientType: Could not find storebag for client type 7 with development "
       "environment",
       "fetchStorebagForEnvironmentAndClientType: Could not find storebag for client type 7 with (null) "
       "environment",
       "fetchStorebagForEnvironmentAndClientType: Seed section is missing in the storebag.",
       "fetchStorebagForEnvironmentAndClientType: Could not find storebag for client type 7 with seed "
       "environment",
       "fetchStorebagForEnvironmentAndClientType: Could not find storebag for client type 7 with release "
       "environment"});
}

TEST_F(StorebagSectionTest, RefreshCycleReplacesTheMaxAgeUpToADay) {
  const auto maxAgeWith = [this](Value refreshCycle) {
    Dictionary bag = storebag("1.0");
    bag.set("refresh_cycle", std::move(refreshCycle));
    return static_cast<int32_t>(fetchOf(bag).maxAgeSeconds);
  };
  EXPECT_EQ(maxAgeWith(600), 600);
  EXPECT_EQ(maxAgeWith(100000), 86400);
  EXPECT_EQ(maxAgeWith(86400), 86400);
  EXPECT_EQ(maxAgeWith(86399), 86399);
  EXPECT_EQ(maxAgeWith(-5), -5);
  EXPECT_EQ(maxAgeWith("120"), 120);
  EXPECT_EQ(maxAgeWith(Array{}), 0);
  EXPECT_EQ(maxAgeWith(int64_t{1} << 31), 86400);
  EXPECT_EQ(maxAgeWith(int64_t{1} << 32), 86400);
  EXPECT_EQ(maxAgeWith("99999999999999999999"), 86400);
  EXPECT_EQ(maxAgeWith(-(int64_t{1} << 32) + 5), INT32_MIN);
  expectDefaultLine("fetchStorebagForEnvironmentAndClientType: Store bag override MaxAge=600");
  expectDefaultLine("fetchStorebagForEnvironmentAndClientType: Store bag override MaxAge=-5");
  EXPECT_EQ(
      count(LogLevel::kDefault, "fetchStorebagForEnvironmentAndClientType: Store bag override MaxAge=86400"),
      5);
}

TEST_F(StorebagSectionTest, ReleaseTimeoutIsCopiedIntoTheSection) {
  Dictionary bag = storebag("1.0");
  EXPECT_FALSE(fetchOf(bag).section->contains("release_timeout"));
  bag.set("release_timeout", 120);
  EXPECT_EQ((*fetchOf(bag).section)["release_timeout"], Value(120));
}

TEST_F(StorebagSectionTest, VersionThatIsNoStringIsAbsent) {
  Dictionary bag = storebag("1.0");
  bag.set("version", 5);
  EXPECT_EQ(fetchOf(bag).version, std::nullopt);
  bag.remove("version");
  EXPECT_EQ(fetchOf(bag).version, std::nullopt);
}

TEST_F(StorebagSectionTest, TypesWithoutAStorebagFailBeforeAnyLookup) {
  for (const int32_t type : {4, 26, -1}) {
    const StorebagFetchOutcome outcome = fetch(type);
    EXPECT_FALSE(outcome.section);
    EXPECT_FALSE(outcome.unchanged);
    expectErrors({fmt::format(
        "fetchStorebagForEnvironmentAndClientType: Could not find storebag name for client type {}", type)});
  }
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(StorebagSectionTest, TypesOfOneNameShareItsFile) {
  EXPECT_EQ(fetchOf(storebag("1.0")).version, "1.0");
  for (const int32_t type : {11, 13, 20}) EXPECT_EQ(fetch(type).version, "1.0") << type;
}

// MARK: - Threads

}  // namespace
}  // namespace zun
