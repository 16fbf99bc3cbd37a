#include "linux/service/EntitlementStore.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "linux/files/FileDescriptor.h"
#include "linux/service/KnownPeer.h"
#include "support/Fakes.h"
#include "support/RecordingLog.h"
#include "support/ScratchFolder.h"

namespace zun {
namespace {

constexpr const char* kName = "com.vantix.private.zunreportingd";

constexpr std::chrono::milliseconds kForLong = std::chrono::minutes(1);
constexpr const char* kUser = "<key>user</key><integer>1000</integer>";

std::string allow(bool value = true) {
  return std::string("<key>entitlements</key><dict><key>") + kName + "</key><" + (value ? "true" : "false") +
         "/></dict>";
}

/// A name service that answers what and when the test says.
class Names final {
 public:
  using Answer = Result<std::optional<uint32_t>, std::string>;

  Answer lookUp(NameKind kind, const std::string& name) {
    std::unique_lock lock(mutex_);
    ++lookUps_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return !isHung_; });
    const auto found = answers_.find({kind, name});
    return found == answers_.end() ? Answer(std::nullopt) : found->second;
  }
  void set(NameKind kind, const std::string& name, Answer answer) {
    const std::lock_guard lock(mutex_);
    answers_.insert_or_assign({kind, name}, std::move(answer));
  }
  void setHung(bool isHung) {
    const std::lock_guard lock(mutex_);
    isHung_ = isHung;
    changed_.notify_all();
  }
  void waitForLookUps(int count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return lookUps_ >= count; });
  }
  int lookUps() {
    const std::lock_guard lock(mutex_);
    return lookUps_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::pair<NameKind, std::string>, Answer> answers_;
  bool isHung_ = false;
  int lookUps_ = 0;
};

class EntitlementStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(folder_);
    peer_.program = programAt(makeProgram("client"));
  }
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
  std::string makeProgram(const std::string& name) {
    std::ofstream(scratch_.path(name)) << name;
    return scratch_.path(name);
  }
  static PeerProgram programAt(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return {status.st_dev, status.st_ino, 1, path};
  }
  static std::string executable(const std::string& path) {
    return "<key>executable</key><string>" + path + "</string>";
  }
  std::optional<bool> entitlement(const PeerIdentity& peer, const char* name = kName) {
    const PeerRights rights = store_.rightsOfPeer(peer);
    const auto found = rights.find(name);
    return found == rights.end() ? std::nullopt : std::optional(found->second.isEntitled);
  }
  void expectErrors(const std::vector<std::string>& lines) { EXPECT_EQ(log_.takeErrors(), lines); }
  /// The whole of a file with these rules, and one that is right before it, is not used.
  void expectRefused(const std::string& rule, const std::string& reason) {
    writeRules("a.plist", {kUser + allow(), rule});
    EXPECT_EQ(entitlement(peer_), std::nullopt) << rule;
    expectErrors({"entitlements: " + folder_ + "/a.plist is ignored: rule 2: " + reason});
  }

  ScratchFolder scratch_;
  std::string folder_ = scratch_.path("entitlements.d");
  RecordingLog log_;
  FakeClock clock_;
  const std::shared_ptr<Names> names_ = std::make_shared<Names>();
  EntitlementStore store_{folder_, clock_, log_, [names = names_](NameKind kind, const std::string& name) {
                            return names->lookUp(kind, name);
                          }};
  PeerIdentity peer_{100, 1000, 2000, {3000}, std::nullopt};
};

TEST_F(EntitlementStoreTest, WithoutAFolderNobodyIsEntitled) {
  std::filesystem::remove(folder_);
  EXPECT_EQ(entitlement(peer_), std::nullopt);
}

TEST_F(EntitlementStoreTest, AllConditionsOfARuleMustHold) {
  const std::string client = scratch_.path("client");
  writeRules("a.plist", {executable(client) + kUser + "<key>group</key><string>2000</string>" + allow()});
  EXPECT_EQ(entitlement(peer_), true);
  EXPECT_EQ(entitlement(peer_, "another"), std::nullopt);
  const std::string other = makeProgram("other");
  for (const auto& change : std::vector<std::function<void(PeerIdentity&)>>{
           [&](PeerIdentity& peer) { peer.program = programAt(other); },
           [](PeerIdentity& peer) { peer.program.reset(); }, [](PeerIdentity& peer) { peer.user = 0; },
           [](PeerIdentity& peer) { peer.group = 0; }}) {
    PeerIdentity changed = peer_;
    change(changed);
    EXPECT_EQ(entitlement(changed), std::nullopt);
  }
}

// Who has none need not be asked what it runs.
TEST_F(EntitlementStoreTest, ARuleIsForItsUserAndGroupWhateverTheProgram) {
  writeRules("a.plist",
             {executable("/none") + kUser + "<key>group</key><integer>3000</integer>" + allow(false)});
  EXPECT_TRUE(store_.hasRuleForAccount(peer_));
  EXPECT_EQ(entitlement(peer_), std::nullopt);
  PeerIdentity other = peer_;
  other.supplementaryGroups.clear();
  EXPECT_FALSE(store_.hasRuleForAccount(other));
  other = peer_;
  other.user = 1001;
  EXPECT_FALSE(store_.hasRuleForAccount(other));
  writeRules("b.plist", {"<key>group</key><integer>2000</integer>" + allow()});
  EXPECT_TRUE(store_.hasRuleForAccount(other));
}

// Another file under the entitled path, as a peer in a mount namespace of its own has it,
// and the other way round.
TEST_F(EntitlementStoreTest, AProgramIsKnownByItsFileAndNotByItsPath) {
  writeRules("a.plist", {executable(scratch_.path("client")) + kUser + allow()});
  PeerIdentity impostor = peer_;
  impostor.program = programAt(makeProgram("impostor"));
  impostor.program->path = scratch_.path("client");
  EXPECT_EQ(entitlement(impostor), std::nullopt);
  PeerIdentity otherDevice = peer_;
  ++otherDevice.program->device;
  EXPECT_EQ(entitlement(otherDevice), std::nullopt);
  PeerIdentity linked = peer_;
  linked.program->path = "/elsewhere";
  EXPECT_EQ(entitlement(linked), true);
  std::filesystem::remove(scratch_.path("client"));
  EXPECT_EQ(entitlement(peer_), std::nullopt);
}

TEST_F(EntitlementStoreTest, UsersAndGroupsHaveNamesOrNumbers) {
  names_->set(NameKind::kUser, "root", {0});
  names_->set(NameKind::kGroup, "root", {0});
  const PeerIdentity root;
  for (const char* condition :
       {"<key>user</key><string>root</string>", "<key>user</key><string>0</string>",
        "<key>user</key><integer>0</integer>", "<key>group</key><string>root</string>",
        "<key>group</key><integer>0</integer>"}) {
    writeRules("a.plist", {condition + allow()});
    store_.load(kForLong);
    EXPECT_EQ(entitlement(root), true) << condition;
    EXPECT_EQ(entitlement(peer_), std::nullopt) << condition;
  }
}

TEST_F(EntitlementStoreTest, TheSystemsNamesAreKnown) {
  EXPECT_EQ(*lookUpSystemName(NameKind::kUser, "root"), 0u);
  EXPECT_EQ(*lookUpSystemName(NameKind::kGroup, "root"), 0u);
  EXPECT_EQ(*lookUpSystemName(NameKind::kUser, "nobody-has-this-name"), std::nullopt);
  EXPECT_EQ(*lookUpSystemName(NameKind::kGroup, "nobody-has-this-name"), std::nullopt);
}

TEST_F(EntitlementStoreTest, SupplementaryGroupsCount) {
  writeRules("a.plist", {"<key>group</key><integer>3000</integer>" + allow()});
  EXPECT_EQ(entitlement(peer_), true);
}

// A user who is added later is found, and a name service is not asked with each connection.
TEST_F(EntitlementStoreTest, AnUnknownNameIsOneLineAndLookedUpAgainAfterTenSeconds) {
  writeRules("a.plist", {"<key>user</key><string>camera</string>" + allow()});
  store_.load(kForLong);
  expectErrors({"entitlements: the user 'camera' is not known: nobody has it"});
  names_->set(NameKind::kUser, "camera", {1000});
  clock_.advance(std::chrono::milliseconds(9999));
  EXPECT_EQ(entitlement(peer_), std::nullopt);
  EXPECT_EQ(names_->lookUps(), 1);
  names_->set(NameKind::kUser, "camera", Names::Answer(std::nullopt));
  clock_.advance(std::chrono::milliseconds(1));
  EXPECT_EQ(entitlement(peer_), std::nullopt);
  store_.load(kForLong);
  EXPECT_EQ(names_->lookUps(), 2);  // and no second line
  names_->set(NameKind::kUser, "camera", {1000});
  clock_.advance(std::chrono::seconds(10));
  (void)entitlement(peer_);
  store_.load(kForLong);
  EXPECT_EQ(entitlement(peer_), true);
}

// Its number may be another's by now. Until the answer it is what it was.
TEST_F(EntitlementStoreTest, AKnownNameIsLookedUpAgainAfterTenMinutes) {
  names_->set(NameKind::kUser, "camera", {1000});
  writeRules("a.plist", {"<key>user</key><string>camera</string>" + allow()});
  store_.load(kForLong);
  names_->set(NameKind::kUser, "camera", {1001});
  clock_.advance(std::chrono::minutes(10) - std::chrono::milliseconds(1));
  EXPECT_EQ(entitlement(peer_), true);
  store_.load(kForLong);
  EXPECT_EQ(names_->lookUps(), 1);
  names_->setHung(true);
  clock_.advance(std::chrono::milliseconds(1));
  EXPECT_EQ(entitlement(peer_), true);
  names_->waitForLookUps(2);
  EXPECT_EQ(entitlement(peer_), true);
  names_->setHung(false);
  store_.load(kForLong);
  EXPECT_EQ(entitlement(peer_), std::nullopt);
  EXPECT_EQ(names_->lookUps(), 2);
}

TEST_F(EntitlementStoreTest, ANameThatCannotBeLookedUpStaysWhatItWas) {
  names_->set(NameKind::kGroup, "users", {3000});
  writeRules("a.plist", {"<key>group</key><string>users</string>" + allow()});
  store_.load(kForLong);
  EXPECT_EQ(entitlement(peer_), true);
  names_->set(NameKind::kGroup, "users", Names::Answer::failure("Too many open files"));
  writeRules("b.plist", {});  // with a change of the rules names are looked up again
  store_.load(kForLong);
  expectErrors({"entitlements: the group 'users' is not known: Too many open files"});
  EXPECT_EQ(entitlement(peer_), true);
  names_->set(NameKind::kGroup, "users", Names::Answer(std::nullopt));
  writeRules("c.plist", {});
  store_.load(kForLong);
  expectErrors({"entitlements: the group 'users' is not known: nobody has it"});
  EXPECT_EQ(entitlement(peer_), std::nullopt);
}

TEST_F(EntitlementStoreTest, AHungNameServiceHoldsUpNobody) {
  names_->setHung(true);
  writeRules("a.plist", {"<key>user</key><string>camera</string>" + allow(), kUser + allow(false)});
  store_.load(std::chrono::milliseconds(1));
  EXPECT_EQ(entitlement(peer_), false);  // what is not known does not hold
  names_->waitForLookUps(1);
  EXPECT_EQ(entitlement(peer_), false);
  names_->set(NameKind::kUser, "camera", {1000});
  names_->setHung(false);
  store_.load(kForLong);
  EXPECT_EQ(entitlement(peer_), true);
}

TEST_F(EntitlementStoreTest, AHungLookUpIsLeftToItself) {
  names_->setHung(true);
  {
    EntitlementStore store(folder_, clock_, log_, [names = names_](NameKind kind, const std::string& name) {
      return names->lookUp(kind, name);
    });
    writeRules("a.plist", {"<key>user</key><string>camera</string>" + allow()});
    store.load(std::chrono::milliseconds(1));
    names_->waitForLookUps(1);
  }
  names_->setHung(false);  // and its answer is nobody's: no line
}

TEST_F(EntitlementStoreTest, TheFirstRuleThatNamesAnEntitlementDecides) {
  writeRules("b.plist", {kUser + allow()});
  writeRules("a.plist",
             {"<key>group</key><integer>7</integer>" + allow(), kUser + allow(false), kUser + allow()});
  EXPECT_EQ(entitlement(peer_), false);
  PeerIdentity seven = peer_;
  seven.group = 7;
  EXPECT_EQ(entitlement(seven), true);
}

TEST_F(EntitlementStoreTest, ChangedFilesAreReadAgain) {
  writeRules("a.plist", {kUser + allow()});
  EXPECT_EQ(entitlement(peer_), true);
  writeRules("a.plist", {kUser + allow(false)});
  EXPECT_EQ(entitlement(peer_), false);
  std::filesystem::remove(folder_ + "/a.plist");
  EXPECT_EQ(entitlement(peer_), std::nullopt);
}

TEST_F(EntitlementStoreTest, OtherFilesAreNotRead) {
  writeRules("a.plist.bak", {kUser + allow()});
  writeRules(".a.plist", {kUser + allow()});
  EXPECT_EQ(entitlement(peer_), std::nullopt);
}

TEST_F(EntitlementStoreTest, FilesThatOthersCanWriteAreIgnored) {
  const std::string path = folder_ + "/a.plist";
  writeRules("a.plist", {kUser + allow()});
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
  writeRules("a.plist", {kUser + allow()});
  ASSERT_EQ(::chown(path.c_str(), 12345, 0), 0);
  EXPECT_EQ(entitlement(peer_), std::nullopt);
  expectErrors({"entitlements: " + path + " is ignored: it belongs neither to root nor to this user"});
}

TEST_F(EntitlementStoreTest, AGarbageFileIsOneErrorLineAndOthersStillCount) {
  write("a.plist", "garbage");
  writeRules("b.plist", {kUser + allow()});
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

// A moment without descriptors must not take entitlements away for good.
TEST_F(EntitlementStoreTest, WhereTheMachineFailsTheRulesStayAndAreReadAgain) {
  writeRules("a.plist", {kUser + allow()});
  EXPECT_EQ(entitlement(peer_), true);
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const auto entitlementWithoutDescriptors = [&] {
    const rlimit none{3, before.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const auto answer = entitlement(peer_);
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    return answer;
  };
  writeRules("b.plist", {"<key>user</key><integer>1001</integer>" + allow()});
  EXPECT_EQ(entitlementWithoutDescriptors(), true);
  EXPECT_EQ(entitlementWithoutDescriptors(), true);  // and that is one line
  const std::string line = "entitlements: the rules stay as they are: " + folder_ + ": Too many open files";
  expectErrors({line});
  PeerIdentity second = peer_;
  second.user = 1001;
  EXPECT_EQ(entitlement(second), true);
  EXPECT_EQ(entitlement(second), true);
  for (int count = 0; count < 2; ++count) {
    EXPECT_EQ(entitlementWithoutDescriptors(), true);
    expectErrors({line});  // again: it had been over
    EXPECT_EQ(entitlement(second), true);
  }
}

// What is not understood must not turn into no condition, nor the rest of the file into a
// meaning that nobody gave it.
TEST_F(EntitlementStoreTest, AFileWithAnythingWrongInItIsIgnoredAsAWhole) {
  expectRefused("<key>executeable</key><string>/x</string>" + allow(), "there is no key 'executeable'");
  expectRefused("<key>user</key><true/>" + allow(), "'user' is neither a name nor a number");
  for (const char* user : {"<string></string>", "<integer>-1</integer>", "<integer>4294967295</integer>",
                           "<integer>4294968296</integer>", "<string>18446744073709552616</string>",
                           "<integer>18446744073709551615</integer>", "<real>1000</real>"}) {
    expectRefused(std::string("<key>user</key>") + user + allow(), "'user' is neither a name nor a number");
  }
  expectRefused(kUser + std::string("<key>group</key><array/>") + allow(),
                "'group' is neither a name nor a number");
  for (const char* path : {"<integer>1</integer>", "<string></string>", "<string>usr/bin/x</string>"}) {
    expectRefused(kUser + std::string("<key>executable</key>") + path + allow(),
                  "'executable' is no absolute path");
  }
  expectRefused(kUser, "'entitlements' is no dictionary");
  expectRefused(kUser + std::string("<key>entitlements</key><true/>"), "'entitlements' is no dictionary");
  for (const char* value : {"<string>yes</string>", "<integer>1</integer>"}) {
    expectRefused(kUser + std::string("<key>entitlements</key><dict><key>e</key>") + value + "</dict>",
                  "the entitlement 'e' is no boolean");
  }
  write("a.plist", std::string("<plist version=\"1.0\"><dict>") + kUser + allow() + "</dict></plist>");
  EXPECT_EQ(entitlement(peer_), std::nullopt);
  expectErrors({"entitlements: " + folder_ + "/a.plist is ignored: it is no array of rules"});
  write("a.plist", std::string("<plist version=\"1.0\"><array><dict>") + kUser + allow() +
                       "</dict><true/></array></plist>");
  EXPECT_EQ(entitlement(peer_), std::nullopt);
  expectErrors({"entitlements: " + folder_ + "/a.plist is ignored: rule 2: it is no dictionary"});
}

TEST_F(EntitlementStoreTest, AnExecutableAloneAuthenticatesNobody) {
  expectRefused(executable(scratch_.path("client")) + allow(),
                "it has neither 'user' nor 'group', and an executable alone authenticates nobody");
  expectRefused(allow(), "it has neither 'user' nor 'group'");
}

TEST_F(EntitlementStoreTest, TheDecidingRuleSaysWhatMayBeClaimed) {
  writeRules("a.plist",
             {kUser +
                  std::string("<key>clientTypes</key><array><integer>7</integer><integer>9</integer></array>"
                              "<key>clientNames</key><array><string>camera</string></array>"
                              "<key>hierarchies</key><string>own</string>") +
                  allow(),
              "<key>group</key><integer>3000</integer>" + allow()});
  const ClientClaims narrow = store_.rightsOfPeer(peer_)[kName].claims;
  EXPECT_EQ(narrow.clientTypes, (std::vector<int64_t>{7, 9}));
  EXPECT_EQ(narrow.clientNames, (std::vector<std::string>{"camera"}));
  EXPECT_TRUE(narrow.onlyOwnHierarchies);
  PeerIdentity other = peer_;
  other.user = 1001;
  const ClientClaims wide = store_.rightsOfPeer(other)[kName].claims;
  EXPECT_EQ(wide.clientTypes, std::nullopt);
  EXPECT_EQ(wide.clientNames, std::nullopt);
  EXPECT_FALSE(wide.onlyOwnHierarchies);
}

TEST(KnownPeerTest, APeerHasTheClaimsOfTheEntitlementThatIsAsked) {
  ClientClaims claims;
  claims.clientTypes = std::vector<int64_t>{7};
  const KnownPeer peer({}, {{"narrow", {true, claims}}});
  EXPECT_EQ(peer.claims("narrow").clientTypes, std::vector<int64_t>{7});
  EXPECT_EQ(peer.booleanEntitlement("narrow"), true);
  EXPECT_EQ(peer.claims("other").clientTypes, std::nullopt);
  EXPECT_EQ(peer.booleanEntitlement("other"), std::nullopt);
}

TEST_F(EntitlementStoreTest, ClaimsOfTheWrongFormAreRefused) {
  const auto claim = [](const std::string& key, const std::string& value) {
    return kUser + allow() + "<key>" + key + "</key>" + value;
  };
  expectRefused(claim("clientTypes", "<integer>7</integer>"), "'clientTypes' is no array");
  for (const char* type : {"<string>7</string>", "<true/>", "<integer>18446744073709551615</integer>"}) {
    expectRefused(claim("clientTypes", std::string("<array>") + type + "</array>"),
                  "'clientTypes' holds what is no integer");
  }
  expectRefused(claim("clientNames", "<string>camera</string>"), "'clientNames' is no array");
  expectRefused(claim("clientNames", "<array><integer>1</integer></array>"),
                "'clientNames' holds what is no string");
  expectRefused(claim("hierarchies", "<string>all</string>"), "'hierarchies' is not \"own\"");
  expectRefused(claim("hierarchies", "<true/>"), "'hierarchies' is not \"own\"");
}

}  // namespace
}  // namespace zun
