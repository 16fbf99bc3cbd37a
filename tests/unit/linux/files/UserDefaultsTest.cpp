#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "linux/files/FileDescriptor.h"
#include "linux/files/FileUserDefaults.h"
#include "linux/files/LinuxFileManager.h"
#include "support/RecordingLog.h"
#include "support/ScratchFolder.h"
#include "values/PropertyList.h"

namespace zun {
namespace {

constexpr std::string_view kSuite = "com.vantix.test";

class UserDefaultsTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (const std::string& line : log_.takeErrors()) ADD_FAILURE() << "unexpected error line: " << line;
  }

  std::string pathOf(std::string_view suite = kSuite) const {
    return files_.resolve("~/Library/Preferences/" + std::string(suite) + ".plist");
  }
  void replaceFile(const std::string& bytes) {
    ASSERT_EQ(files_.createDirectories(files_.resolve("~/Library/Preferences")), std::nullopt);
    ASSERT_EQ(files_.writeFileAtomically(pathOf(), bytes), std::nullopt);
  }
  bool exists(const std::string& path) const { return files_.attributes(path).has_value(); }

  ScratchFolder scratch_;
  RecordingLog log_;
  LinuxFileManager files_{scratch_.path(), "/home/tester"};
  FileUserDefaults defaults_{files_, log_};
};

TEST_F(UserDefaultsTest, ValuesOfEveryKindSurviveANewObject) {
  const Dictionary values{{"text", "Größe"},
                          {"number", -7},
                          {"large", ~uint64_t{0}},
                          {"real", 0.1},
                          {"flag", true},
                          {"data", Value::data("\x00\xff")},
                          {"date", Date{1700000000.25}},
                          {"list", Array{1, "two"}},
                          {"map", Dictionary{{"a", Dictionary{}}}}};
  for (const auto& [key, value] : values) defaults_.setObject(kSuite, key.stringValue(), value);
  const FileUserDefaults fresh(files_, log_);
  for (const auto& [key, value] : values) EXPECT_EQ(fresh.objectForKey(kSuite, key.stringValue()), value);
  EXPECT_TRUE(fresh.objectForKey(kSuite, "flag").isBoolean());
}

TEST_F(UserDefaultsTest, NoneRemovesTheKey) {
  defaults_.setObject(kSuite, "a", 1);
  defaults_.setObject(kSuite, "b", 2);
  defaults_.setObject(kSuite, "a", Value());
  EXPECT_TRUE(defaults_.objectForKey(kSuite, "a").isNone());
  EXPECT_EQ(defaults_.objectForKey(kSuite, "b"), Value(2));
}

TEST_F(UserDefaultsTest, MissingSuiteIsEmptyWithoutALine) {
  EXPECT_TRUE(defaults_.objectForKey("com.vantix.none", "a").isNone());
  EXPECT_EQ(defaults_.stringForKey("com.vantix.none", "a"), std::nullopt);
  EXPECT_FALSE(diagnosticSubmissionEnabled(defaults_));
  defaults_.setObject("com.vantix.none", "a", Value());
  EXPECT_FALSE(exists(pathOf("com.vantix.none")));
}

TEST_F(UserDefaultsTest, SuitesAreApart) {
  defaults_.setObject(kSuite, "a", 1);
  defaults_.setObject(kReportingSuite, "a", 2);
  EXPECT_EQ(defaults_.objectForKey(kSuite, "a"), Value(1));
  EXPECT_EQ(defaults_.objectForKey(kReportingSuite, "a"), Value(2));
}

TEST_F(UserDefaultsTest, StringsAndNumbersReadAsText) {
  defaults_.setObject(kSuite, "text", "x");
  defaults_.setObject(kSuite, "number", 5);
  defaults_.setObject(kSuite, "list", Array{});
  EXPECT_EQ(defaults_.stringForKey(kSuite, "text"), "x");
  EXPECT_EQ(defaults_.stringForKey(kSuite, "number"), "5");
  EXPECT_EQ(defaults_.stringForKey(kSuite, "list"), std::nullopt);
}

// Same size, same moment, an inode that comes again: only the content differs.
TEST_F(UserDefaultsTest, ChangedFileIsSeenByTheNextReadHoweverSoonItChanges) {
  for (int i = 100; i < 400; ++i) {
    replaceFile(serializeXMLPropertyList(Dictionary{{"n", i}}));
    ASSERT_EQ(defaults_.objectForKey(kSuite, "n"), Value(i));
  }
  ASSERT_EQ(files_.removeItem(pathOf()), std::nullopt);
  EXPECT_TRUE(defaults_.objectForKey(kSuite, "n").isNone());
}

TEST_F(UserDefaultsTest, ChangeInPlaceIsSeenAfterTheFileHasSettled) {
  replaceFile(serializeXMLPropertyList(Dictionary{{"n", 111}}));
  const auto settled = [this] {
    // The file's age is measured by its change time, which no one can set: wait for it.
    struct stat status {};
    ::stat(pathOf().c_str(), &status);
    while (std::chrono::system_clock::now().time_since_epoch() <
           std::chrono::seconds(status.st_ctim.tv_sec) + std::chrono::nanoseconds(status.st_ctim.tv_nsec) +
               std::chrono::milliseconds(110)) {
      std::this_thread::yield();
    }
  };
  settled();
  EXPECT_EQ(defaults_.objectForKey(kSuite, "n"), Value(111));
  EXPECT_EQ(defaults_.objectForKey(kSuite, "n"), Value(111));
  std::ofstream(pathOf()) << serializeXMLPropertyList(Dictionary{{"n", 222}});
  EXPECT_EQ(defaults_.objectForKey(kSuite, "n"), Value(222));
}

TEST_F(UserDefaultsTest, CorruptFileIsOneErrorLinePerChangeAndAnEmptySuite) {
  replaceFile("garbage");
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(defaults_.objectForKey(kSuite, "a").isNone());
  const std::string line = "FileUserDefaults: could not read '" + pathOf() + "': line 1: syntax error";
  EXPECT_THAT(log_.takeErrors(), ::testing::ElementsAre(line));
  replaceFile("more garbage");
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(defaults_.objectForKey(kSuite, "a").isNone());
  EXPECT_THAT(log_.takeErrors(), ::testing::ElementsAre(line));
}

TEST_F(UserDefaultsTest, CorruptFileIsKeptBesideOnTheNextWrite) {
  replaceFile("garbage");
  defaults_.setObject(kSuite, "a", 1);
  EXPECT_EQ(log_.takeErrors().size(), 1u);
  EXPECT_EQ(defaults_.objectForKey(kSuite, "a"), Value(1));
  EXPECT_EQ(*files_.readFile(pathOf() + ".corrupt", 100), "garbage");
  defaults_.setObject(kSuite, "b", 2);
  EXPECT_EQ(defaults_.objectForKey(kSuite, "a"), Value(1));
}

TEST_F(UserDefaultsTest, WhateverStandsInTheFilesPlaceCountsAsCorrupt) {
  const auto expectReplaced = [this](const char* what) {
    EXPECT_TRUE(defaults_.objectForKey(kSuite, "a").isNone()) << what;
    defaults_.setObject(kSuite, "a", what);
    EXPECT_EQ(defaults_.stringForKey(kSuite, "a"), what);
    EXPECT_EQ(log_.takeErrors().size(), 1u) << what;
    EXPECT_TRUE(exists(pathOf() + ".corrupt")) << what;
    std::filesystem::remove_all(pathOf());
    std::filesystem::remove_all(pathOf() + ".corrupt");
  };
  replaceFile(serializeBinaryPropertyList(Array{1}));
  expectReplaced("an array");
  replaceFile("");
  expectReplaced("an empty file");
  ASSERT_EQ(::mkfifo(pathOf().c_str(), 0600), 0);
  expectReplaced("a pipe");
  ASSERT_EQ(files_.createDirectories(pathOf()), std::nullopt);
  expectReplaced("a folder");
  ASSERT_EQ(::symlink(pathOf().c_str(), pathOf().c_str()), 0);
  const bool isLoopSeen = defaults_.objectForKey(kSuite, "a").isNone();
  EXPECT_TRUE(isLoopSeen);
  EXPECT_EQ(log_.takeErrors().size(), 1u);
}

TEST_F(UserDefaultsTest, CorruptFileThatCannotBeKeptAsideIsNotReplaced) {
  replaceFile("garbage");
  ASSERT_EQ(files_.createDirectories(pathOf() + ".corrupt"), std::nullopt);
  defaults_.setObject(kSuite, "a", 1);
  EXPECT_EQ(log_.takeErrors().back(), "FileUserDefaults: could not keep '" + pathOf() + "' as '" + pathOf() +
                                          ".corrupt': Is a directory");
  EXPECT_EQ(*files_.readFile(pathOf(), 100), "garbage");
}

TEST_F(UserDefaultsTest, SuiteThatBeginsWithADotHasNoHiddenFile) {
  defaults_.setObject(".suite", "a", 1);
  EXPECT_TRUE(exists(pathOf("%2Esuite")));
}

TEST_F(UserDefaultsTest, UnwritableFolderIsAnErrorLineAndTheValueIsLost) {
  ASSERT_EQ(files_.createDirectories(files_.resolve("~/Library")), std::nullopt);
  ASSERT_EQ(files_.createFile(files_.resolve("~/Library/Preferences"), "a file"), std::nullopt);
  defaults_.setObject(kSuite, "a", 1);
  EXPECT_THAT(log_.takeErrors(), ::testing::ElementsAre("FileUserDefaults: could not make the folder of '" +
                                                        pathOf() + "': Not a directory"));
  EXPECT_TRUE(defaults_.objectForKey(kSuite, "a").isNone());
}

TEST_F(UserDefaultsTest, FullDiskLosesTheValueAndKeepsTheSuite) {
  defaults_.setObject(kSuite, "a", 1);
  const pid_t child = ::fork();
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{4096, 4096};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    defaults_.setObject(kSuite, "b", std::string(10000, 'x'));
    const std::vector<std::string> expected{"FileUserDefaults: could not write '" + pathOf() +
                                            "': File too large"};
    ::_exit(log_.takeErrors() == expected ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(defaults_.objectForKey(kSuite, "a"), Value(1));
  EXPECT_TRUE(defaults_.objectForKey(kSuite, "b").isNone());
}

// Written once, such a value would cost every other key of the suite.
TEST_F(UserDefaultsTest, ValueThatCouldNotBeReadAgainIsRefused) {
  defaults_.setObject(kSuite, "a", 1);
  Value deep;
  for (int i = 0; i < 70; ++i) deep = Array{deep};
  defaults_.setObject(kSuite, "deep", deep);
  EXPECT_THAT(log_.takeErrors(), ::testing::ElementsAre("FileUserDefaults: could not write '" + pathOf() +
                                                        "': nested too deep"));
  EXPECT_EQ(defaults_.objectForKey(kSuite, "a"), Value(1));
}

TEST_F(UserDefaultsTest, TextThatIsNotUTF8CostsItsBadBytesOnly) {
  defaults_.setObject(kSuite, "a", "x\xFFy");
  EXPECT_EQ(defaults_.stringForKey(kSuite, "a"), "x\xEF\xBF\xBDy");
}

TEST_F(UserDefaultsTest, SuiteNamesStayInTheirFolderAndApart) {
  for (const char* suite : {"../../escape", "/etc/x", "..", ".", "", "a/b", "a%2Fb", "..%2F..%2Fescape"}) {
    defaults_.setObject(suite, "name", suite);
  }
  for (const char* suite : {"../../escape", "/etc/x", "..", ".", "", "a/b", "a%2Fb", "..%2F..%2Fescape"}) {
    EXPECT_EQ(defaults_.stringForKey(suite, "name"), suite);
  }
  for (const std::string& path : files_.enumerateRecursively(scratch_.path())) {
    EXPECT_TRUE(std::string_view("home/tester/Library/Preferences").starts_with(path) ||
                path.starts_with("home/tester/Library/Preferences/"))
        << path;
  }
  const std::string longName(300, 'x');
  defaults_.setObject(longName, "a", 1);
  EXPECT_EQ(log_.takeErrors().size(), 1u);
}

TEST_F(UserDefaultsTest, LockThatIsNeverLetGoCostsTheValueAndNotTheCaller) {
  FileUserDefaults impatient(files_, log_, std::chrono::milliseconds(0));
  impatient.setObject(kSuite, "a", 1);
  const FileDescriptor held(::open((pathOf() + ".lock").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(held.get(), LOCK_EX), 0);
  impatient.setObject(kSuite, "a", 2);
  EXPECT_THAT(log_.takeErrors(), ::testing::ElementsAre("FileUserDefaults: could not lock '" + pathOf() +
                                                        "': Connection timed out"));
  EXPECT_EQ(impatient.objectForKey(kSuite, "a"), Value(1));
}

TEST_F(UserDefaultsTest, WritersInTwoProcessesLoseNoKeys) {
  constexpr int kKeys = 40;
  const auto write = [this](const char* prefix) {
    for (int i = 0; i < kKeys; ++i) defaults_.setObject(kSuite, fmt::format("{}{}", prefix, i), i);
  };
  const pid_t child = ::fork();
  if (child == 0) {
    write("child");
    ::_exit(static_cast<int>(log_.takeErrors().size()));
  }
  write("parent");
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  for (int i = 0; i < kKeys; ++i) {
    EXPECT_EQ(defaults_.objectForKey(kSuite, fmt::format("child{}", i)), Value(i));
    EXPECT_EQ(defaults_.objectForKey(kSuite, fmt::format("parent{}", i)), Value(i));
  }
}

TEST_F(UserDefaultsTest, KeysAreCountedByTheirBeginning) {
  EXPECT_EQ(defaults_.countOfKeys(kSuite, ""), 0U);
  for (const char* key : {"a:1", "a:2", "a", "b:1"}) defaults_.setObject(kSuite, key, 1);
  EXPECT_EQ(defaults_.countOfKeys(kSuite, "a:"), 2U);
  EXPECT_EQ(defaults_.countOfKeys(kSuite, ""), 4U);
  defaults_.setObject(kSuite, "a:1", Value());
  EXPECT_EQ(defaults_.countOfKeys(kSuite, "a:"), 1U);
}

TEST_F(UserDefaultsTest, ThreadsMayReadWhileOthersWrite) {
  constexpr int kKeys = 25;
  defaults_.setObject(kSuite, "constant", "here");
  std::atomic<int> missed = 0;
  std::atomic<bool> isDone = false;
  std::thread reader([&] {
    while (!isDone) missed += defaults_.stringForKey(kSuite, "constant") != "here";
  });
  const auto write = [this](int first) {
    for (int i = first; i < first + kKeys; ++i) defaults_.setObject(kSuite, std::to_string(i), i);
  };
  std::thread writer([&write] { write(0); });
  write(kKeys);
  writer.join();
  isDone = true;
  reader.join();
  EXPECT_EQ(missed, 0);
  for (int i = 0; i < 2 * kKeys; ++i) EXPECT_EQ(defaults_.objectForKey(kSuite, std::to_string(i)), Value(i));
}

TEST_F(UserDefaultsTest, StagedObjectsAreSeenTogetherOnceTheyArePublished) {
  defaults_.setObject(kSuite, "first", 1);
  defaults_.setObject(kSuite, "third", 3);
  {
    const auto staged = defaults_.stageObjects(kSuite, {{"first", 10}, {"second", 20}, {"third", Value()}});
    ASSERT_NE(staged, nullptr);
    EXPECT_EQ(defaults_.objectForKey(kSuite, "first"), Value(1));
    EXPECT_EQ(defaults_.objectForKey(kSuite, "third"), Value(3));
    staged->publish();
    EXPECT_EQ(defaults_.objectForKey(kSuite, "first"), Value(10));
    EXPECT_EQ(defaults_.objectForKey(kSuite, "second"), Value(20));
    EXPECT_TRUE(defaults_.objectForKey(kSuite, "third").isNone());
  }
  { ASSERT_NE(defaults_.stageObjects(kSuite, {{"first", 100}}), nullptr); }
  EXPECT_EQ(defaults_.objectForKey(kSuite, "first"), Value(10));
  EXPECT_EQ(defaults_.stageObjects(kSuite, {{"third", Value()}}), nullptr);  // nothing changes
}

// Else the other one's change would be lost.
TEST_F(UserDefaultsTest, OtherWritersWaitForAStagedChange) {
  FileUserDefaults other(files_, log_, std::chrono::milliseconds(0));
  auto staged = defaults_.stageObjects(kSuite, {{"first", 1}});
  other.setObject(kSuite, "second", 2);
  EXPECT_THAT(log_.takeErrors(), ::testing::SizeIs(1));
  staged->publish();
  other.setObject(kSuite, "second", 2);
  EXPECT_THAT(log_.takeErrors(), ::testing::SizeIs(1));
  staged.reset();
  other.setObject(kSuite, "second", 2);
  EXPECT_EQ(defaults_.objectForKey(kSuite, "first"), Value(1));
  EXPECT_EQ(defaults_.objectForKey(kSuite, "second"), Value(2));
}

}  // namespace
}  // namespace zun
