#include "util/DeviceIdentity.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <thread>

#include "support/TestPlatform.h"
#include "values/PropertyList.h"

namespace zun {
namespace {

// "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX", X an upper-case hexadecimal digit.
bool isUUID(const std::string& text) {
  if (text.size() != 36) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool isDash = i == 8 || i == 13 || i == 18 || i == 23;
    if (isDash ? text[i] != '-'
               : std::string_view("0123456789ABCDEF").find(text[i]) == std::string_view::npos) {
      return false;
    }
  }
  return true;
}

class DeviceIdentityTest : public PlatformTest {
 protected:
  DeviceIdentity identity_{platform_.services};
};

TEST_F(DeviceIdentityTest, PropertiesAreAskedAfreshOnEachCall) {
  EXPECT_EQ(identity_.productVersion(), "12.11");
  EXPECT_EQ(identity_.buildVersion(), "21A329");
  EXPECT_EQ(identity_.hardwareModel(), "N841AP");
  EXPECT_EQ(identity_.serialNumber(), "C39VX0A1JC6K");
  EXPECT_EQ(identity_.productType(), "Pallax12,3");
  EXPECT_EQ(identity_.deviceName(), "Test Pallax");
  platform_.device.set("DeviceName", "Renamed");
  platform_.device.remove("ProductVersion");
  EXPECT_EQ(identity_.deviceName(), "Renamed");
  EXPECT_EQ(identity_.productVersion(), std::nullopt);
}

TEST_F(DeviceIdentityTest, UniqueIdentifierIsCopiedWithItsZeros) {
  platform_.device.set("UniqueDeviceID", "ABC");
  std::array<char, 8> buffer;
  buffer.fill('#');
  identity_.copyUniqueDeviceID(buffer);
  EXPECT_STREQ(buffer.data(), "ABC");
  EXPECT_EQ(buffer[7], '\0');
}

TEST_F(DeviceIdentityTest, UnavailableUniqueIdentifierLeavesTheBufferUntouched) {
  platform_.device.remove("UniqueDeviceID");
  std::array<char, 4> buffer{'a', 'b', 'c', 'd'};
  identity_.copyUniqueDeviceID(buffer);
  EXPECT_EQ(buffer, (std::array<char, 4>{'a', 'b', 'c', 'd'}));
}

TEST_F(DeviceIdentityTest, LongUniqueIdentifierIsCutBetweenCharacters) {
  platform_.device.set("UniqueDeviceID", "ab\u00e9cd");  // 'é' takes the bytes 2 and 3
  std::array<char, 4> four{};
  identity_.copyUniqueDeviceID(four);
  EXPECT_STREQ(four.data(), "ab");
  std::array<char, 5> five{};
  identity_.copyUniqueDeviceID(five);
  EXPECT_STREQ(five.data(), "ab\u00e9");
  std::array<char, 1> one{'x'};
  identity_.copyUniqueDeviceID(one);
  EXPECT_EQ(one[0], '\0');
  identity_.copyUniqueDeviceID({});
}

TEST_F(DeviceIdentityTest, DeviceWithoutReleaseTypeIsNotInternal) {
  EXPECT_FALSE(identity_.isInternalBuild());
}

TEST_F(DeviceIdentityTest, OnlyTheExactReleaseTypeIsInternal) {
  platform_.device.set("ReleaseType", "internal");
  EXPECT_FALSE(DeviceIdentity(platform_.services).isInternalBuild());
  platform_.device.set("ReleaseType", "Internal");
  EXPECT_TRUE(DeviceIdentity(platform_.services).isInternalBuild());
}

TEST_F(DeviceIdentityTest, InternalBuildIsAskedOnce) {
  platform_.device.set("ReleaseType", "Internal");
  EXPECT_TRUE(identity_.isInternalBuild());
  platform_.device.remove("ReleaseType");
  EXPECT_TRUE(identity_.isInternalBuild());
}

TEST_F(DeviceIdentityTest, InternalBuildIsTheSameForEveryThread) {
  platform_.device.set("ReleaseType", "Internal");
  std::vector<std::thread> threads;
  std::atomic<int> internal{0};
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([this, &internal] { internal += identity_.isInternalBuild() ? 1 : 0; });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(internal, 8);
}

TEST_F(DeviceIdentityTest, IdentifierWithoutPartsIsKeptUnderUuidColonColon) {
  const std::string identifier =
      identity_.getPersistentIdentifierForCustomClientIDSuffix(std::nullopt, std::nullopt);
  EXPECT_TRUE(isUUID(identifier)) << identifier;
  EXPECT_EQ(platform_.defaults.stringForKey(kReportingSuite, "uuid::"), identifier);
  EXPECT_EQ(identity_.getPersistentIdentifierForCustomClientIDSuffix(std::nullopt, std::nullopt), identifier);
  expectDefaultLine("getPersistentIdentifierForCustomClientIDSuffix: The value for uuid::: " + identifier);
}

TEST_F(DeviceIdentityTest, IdentifierOutlivesTheProcess) {
  const std::string identifier =
      identity_.getPersistentIdentifierForCustomClientIDSuffix("com.example", "Camera");
  // What a new process has: the same disk, everything else anew.
  FileUserDefaults defaults(platform_.files, platform_.log);
  EXPECT_EQ(defaults.stringForKey(kReportingSuite, "uuid:com.example:Camera"), identifier);
  EXPECT_EQ(DeviceIdentity(platform_.services)
                .getPersistentIdentifierForCustomClientIDSuffix("com.example", "Camera"),
            identifier);
}

TEST_F(DeviceIdentityTest, EachSuffixHasItsOwnIdentifier) {
  const auto identifier = [this](const char* client, const char* service) {
    return identity_.getPersistentIdentifierForCustomClientIDSuffix(client, service);
  };
  EXPECT_NE(identifier("a", "b"), identifier("a", "c"));
  EXPECT_NE(identifier("a", "b"), identifier("b", "a"));
}

// Clients choose the names: a thousand of them may cost disk, not more.
TEST_F(DeviceIdentityTest, IdentifiersBeyondTheBoundAreHandedOutButNotStored) {
  const auto identifier = [this](const std::string& client) {
    return identity_.getPersistentIdentifierForCustomClientIDSuffix(client, "s");
  };
  const std::string first = identifier("first");
  Dictionary full;
  for (size_t i = 0; i + 2 < DeviceIdentity::kMaximumCustomIdentifiers; ++i) {
    full.set("uuid:" + std::to_string(i) + ":s", "x");
  }
  full.set("uuid:first:s", first);
  full.set("other", 1);
  ASSERT_EQ(platform_.files.writeFileAtomically(
                platform_.files.resolve("~/Library/Preferences/com.vantix.zunreporting.plist"),
                serializeBinaryPropertyList(full), Durability::kBestEffort),
            std::nullopt);

  const std::string last = identifier("last");
  EXPECT_EQ(identifier("last"), last);
  EXPECT_EQ(platform_.defaults.countOfKeys(kReportingSuite, "uuid:"),
            DeviceIdentity::kMaximumCustomIdentifiers);

  const std::string beyond = identifier("beyond");
  EXPECT_TRUE(isUUID(beyond));
  expectDefaultLine("getPersistentIdentifierForCustomClientIDSuffix: The value for uuid:beyond:s: " + beyond);
  EXPECT_NE(identifier("beyond"), beyond);
  expectErrors(
      {"getPersistentIdentifierForCustomClientIDSuffix: Not storing identifiers beyond a client's share of "
       "1024 of them or 512 bytes of key"});  // once
  EXPECT_EQ(platform_.defaults.countOfKeys(kReportingSuite, "uuid:"),
            DeviceIdentity::kMaximumCustomIdentifiers);
  EXPECT_EQ(identifier("first"), first);
  EXPECT_EQ(identifier("last"), last);
}

TEST_F(DeviceIdentityTest, IdentifiersAreStoredForAClientWithinItsShareForGood) {
  const auto isKept = [this](const DeviceIdentity& identity, int name, BudgetHolder holder) {
    const auto identifier = [&] {
      return identity.getPersistentIdentifierForCustomClientIDSuffix(std::to_string(name), "s", holder);
    };
    return identifier() == identifier();
  };
  constexpr BudgetHolder kClient{1000, 1};
  int kept = 0;
  while (isKept(identity_, kept, kClient)) ++kept;
  EXPECT_EQ(kept, 256);
  DeviceIdentity restarted(platform_.services);
  EXPECT_FALSE(isKept(restarted, 10'000, kClient));
  EXPECT_TRUE(isKept(restarted, 0, kClient));
  EXPECT_TRUE(isKept(restarted, 1, {1001, 1}));  // that are stored, whoever asks
  EXPECT_TRUE(isKept(restarted, 20'000, {1000, 2}));
  EXPECT_TRUE(isKept(restarted, 30'000, {1001, 1}));
  EXPECT_TRUE(isKept(restarted, 40'000, {10, 1}));  // no part of another's number
  EXPECT_EQ(platform_.log.takeErrors().size(), 2U);
}

TEST_F(DeviceIdentityTest, IdentifiersOfOverlongNamesAreNotStored) {
  const auto keyBytes = [](const std::string& client) { return ("uuid:" + client + ":").size(); };
  std::string client(500, 'c');
  while (keyBytes(client) < DeviceIdentity::kMaximumKeyBytes) client += 'c';
  const auto identifier = [this](const std::string& name) {
    return identity_.getPersistentIdentifierForCustomClientIDSuffix(name, std::nullopt);
  };
  EXPECT_EQ(identifier(client), identifier(client));
  client += 'c';
  EXPECT_NE(identifier(client), identifier(client));
  EXPECT_EQ(platform_.defaults.countOfKeys(kReportingSuite, "uuid:"), 1U);
  EXPECT_EQ(platform_.log.takeErrors().size(), 1U);
}

TEST_F(DeviceIdentityTest, ForbiddenDiagnosticsGiveAFreshIdentifierEachTime) {
  EXPECT_NE(identity_.getPersistentIdentifierForDNU(true), identity_.getPersistentIdentifierForDNU(true));
  const std::string overriding = identity_.getPersistentIdentifierForDNU(false);
  EXPECT_EQ(identity_.getPersistentIdentifierForDNU(false), overriding);
  EXPECT_NE(identity_.getPersistentIdentifierForDNU(true), overriding);

  platform_.defaults.setObject("com.vantix.diagnostics", "DiagnosticSubmissionEnabled", true);
  EXPECT_EQ(identity_.getPersistentIdentifierForDNU(true), overriding);
}

}  // namespace
}  // namespace zun
