#include "linux/service/EntitlementStore.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "support/RecordingLog.h"
#include "support/ScratchFolder.h"

namespace zun {
namespace {

constexpr const char* kName = "com.vantix.private.zunreportingd";

std::string allow(bool value = true) {
  return std::string("<key>entitlements</key><dict><key>") + kName + "</key><" + (value ? "true" : "false") +
         "/></dict>";
}

class EntitlementStoreTest : public ::testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(folder_); }
  void TearDown() override { EXPECT_EQ(log_.takeErrors(), std::vector<std::string>()); }

  void write(const std::string& name, const std::string& content) {
    std::ofstream(folder_ + "/" + name) << content;
    ASSERT_EQ(::chmod((folder_ + "/" + name).c_str(), 0644), 0);
  }
  /// A file with rules, each the content of a dictionary.
  void writeRules(const std::string& name, const std::vector<std::string>& rules) {
    std::string text = "<?xml version=\"1.0\"?><plist version=\"1.0\"><array>";
    for (const std::string& rule : rules) text += "<dict>" + rule + "</dict>";
    write(name, text + "</array></plist>");
  }
  std::optional<bool> entitlement(const PeerIdentity& peer, const char* name = kName) {
    const Dictionary entitlements = store_.entitlementsOfPeer(peer);
    const Value& value = entitlements[name];
    if (value.isNone()) return std::nullopt;
    EXPECT_TRUE(value.isBoolean());
    return value.boolValue();
  }
  void expectErrors(const std::vector<std::string>& lines) { EXPECT_EQ(log_.takeErrors(), lines); }

  ScratchFolder scratch_;
  std::string folder_ = scratch_.path("entitlements.d");
  RecordingLog log_;
  EntitlementStore store_{folder_, log_};
  PeerIdentity peer_{100, 1000, 2000, {3000}, "/usr/bin/client"};
};

TEST_F(EntitlementStoreTest, WithoutAFolderNobodyIsEntitled) {
  std::filesystem::remove(folder_);
  EXPECT_EQ(entitlement(peer_), std::nullopt);
}

TEST_F(EntitlementStoreTest, ARuleWithoutConditionsIsForEverybody) {
  writeRules("a.plist", {allow()});
  EXPECT_EQ(entitlement(peer_), true);
  EXPECT_EQ(entitlement({}), true);
  EXPECT_EQ(entitlement(peer_, "another"), std::nullopt);
}

TEST_F(EntitlementStoreTest, AllConditionsOfARuleMustHold) {
  writeRules("a.plist",
             {"<key>executable</key><string>/usr/bin/client</string><key>user</key><integer>1000</integer>"
              "<key>group</key><string>2000</string>" +
              allow()});
  EXPECT_EQ(entitlement(peer_), true);
  for (const auto& change : std::vector<std::function<void(PeerIdentity&)>>{
           [](PeerIdentity& peer) { peer.executable = "/usr/bin/other"; },
           [](PeerIdentity& peer) { peer.executable.clear(); }, [](PeerIdentity& peer) { peer.user = 0; },
           [](PeerIdentity& peer) { peer.group = 0; }}) {
    PeerIdentity other = peer_;
    change(other);
    EXPECT_EQ(entitlement(other), std::nullopt);
  }
}

TEST_F(EntitlementStoreTest, UsersAndGroupsHaveNamesOrNumbers) {
  PeerIdentity root;
  root.executable = "/bin/true";
  for (const char* condition :
       {"<key>user</key><string>root</string>", "<key>user</key><string>0</string>",
        "<key>user</key><integer>0</integer>", "<key>group</key><string>root</string>",
        "<key>group</key><integer>0</integer>"}) {
    writeRules("a.plist", {condition + allow()});
    EXPECT_EQ(entitlement(root), true) << condition;
    EXPECT_EQ(entitlement(peer_), std::nullopt) << condition;
  }
}

TEST_F(EntitlementStoreTest, SupplementaryGroupsCount) {
  writeRules("a.plist", {"<key>group</key><integer>3000</integer>" + allow()});
  EXPECT_EQ(entitlement(peer_), true);
}

TEST_F(EntitlementStoreTest, AnUnknownNameNeverMatches) {
  writeRules("a.plist",
             {"<key>user</key><string>nobody-has-this-name</string>" + allow(),
              "<key>group</key><string>nobody-has-this-name</string>" + allow(),
              "<key>user</key><string></string>" + allow(), "<key>user</key><integer>-1</integer>" + allow(),
              "<key>user</key><integer>4294967296</integer>" + allow()});
  PeerIdentity root;
  EXPECT_EQ(entitlement(root), std::nullopt);
  EXPECT_EQ(entitlement(peer_), std::nullopt);
}

TEST_F(EntitlementStoreTest, TheFirstRuleThatNamesAnEntitlementDecides) {
  writeRules("b.plist", {allow()});
  writeRules("a.plist", {"<key>user</key><integer>7</integer>" + allow(), allow(false), allow()});
  EXPECT_EQ(entitlement(peer_), false);
  PeerIdentity seven = peer_;
  seven.user = 7;
  EXPECT_EQ(entitlement(seven), true);
}

TEST_F(EntitlementStoreTest, ChangedFilesAreReadAgain) {
  writeRules("a.plist", {allow()});
  EXPECT_EQ(entitlement(peer_), true);
  writeRules("a.plist", {allow(false)});
  EXPECT_EQ(entitlement(peer_), false);
  std::filesystem::remove(folder_ + "/a.plist");
  EXPECT_EQ(entitlement(peer_), std::nullopt);
}

TEST_F(EntitlementStoreTest, OtherFilesAreNotRead) {
  writeRules("a.plist.bak", {allow()});
  writeRules(".a.plist", {allow()});
  EXPECT_EQ(entitlement(peer_), std::nullopt);
}

TEST_F(EntitlementStoreTest, FilesThatOthersCanWriteAreIgnored) {
  const std::string path = folder_ + "/a.plist";
  writeRules("a.plist", {allow()});
  for (const mode_t mode : {0664, 0646}) {
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
    EXPECT_EQ(entitlement(peer_), std::nullopt);
    expectErrors({"entitlements: " + path + " is ignored: others can write it"});
  }
  ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
  EXPECT_EQ(entitlement(peer_), true);
}

TEST_F(EntitlementStoreTest, FilesOfOtherUsersAreIgnored) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  const std::string path = folder_ + "/a.plist";
  writeRules("a.plist", {allow()});
  ASSERT_EQ(::chown(path.c_str(), 12345, 0), 0);
  EXPECT_EQ(entitlement(peer_), std::nullopt);
  expectErrors({"entitlements: " + path + " is ignored: it belongs neither to root nor to this user"});
}

TEST_F(EntitlementStoreTest, AGarbageFileIsOneErrorLineAndOthersStillCount) {
  write("a.plist", "garbage");
  writeRules("b.plist", {allow()});
  EXPECT_EQ(entitlement(peer_), true);
  EXPECT_EQ(entitlement(peer_), true);
  const auto errors = log_.takeErrors();
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_TRUE(errors[0].starts_with("entitlements: " + folder_ + "/a.plist is ignored: ")) << errors[0];
}

TEST_F(EntitlementStoreTest, WhatIsNoRegularFileIsIgnored) {
  std::filesystem::create_directories(folder_ + "/d.plist");
  ASSERT_EQ(::mkfifo((folder_ + "/p.plist").c_str(), 0600), 0);
  std::filesystem::create_symlink("/nowhere", folder_ + "/s.plist");
  EXPECT_EQ(entitlement(peer_), std::nullopt);
  expectErrors({"entitlements: " + folder_ + "/d.plist is ignored: it is no regular file",
                "entitlements: " + folder_ + "/p.plist is ignored: it is no regular file",
                "entitlements: " + folder_ + "/s.plist is ignored: No such file or directory"});
}

// A condition that is not understood must not turn into no condition.
TEST_F(EntitlementStoreTest, RulesOfTheWrongFormAreIgnored) {
  writeRules("a.plist",
             {"<key>user</key><true/>" + allow(), "<key>executable</key><integer>1</integer>" + allow(),
              "<key>entitlements</key><true/>", "<key>group</key><array/>" + allow()});
  EXPECT_EQ(entitlement(peer_), std::nullopt);
  expectErrors({"entitlements: " + folder_ + "/a.plist has rules of the wrong form, which are ignored"});
  write("a.plist", "<plist version=\"1.0\"><dict>" + allow() + "</dict></plist>");
  EXPECT_EQ(entitlement(peer_), std::nullopt);
  expectErrors({"entitlements: " + folder_ + "/a.plist is ignored: it is no array of rules"});
}

}  // namespace
}  // namespace zun
