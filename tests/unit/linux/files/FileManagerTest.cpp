#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "linux/files/LinuxFileManager.h"
#include "platform/TemporaryFiles.h"
#include "support/ErrorCode.h"
#include "support/ScratchFolder.h"

namespace zun {
namespace {

using ::testing::ElementsAre;

class FileManagerTest : public ::testing::Test {
 protected:
  std::string at(const std::string& name) const { return scratch_.path(name); }
  mode_t modeOf(const std::string& name) const {
    struct stat status {};
    EXPECT_EQ(::stat(at(name).c_str(), &status), 0);
    return status.st_mode & 0777;
  }
  std::string contentOf(const std::string& name) const {
    const auto bytes = files_.readFile(at(name), 1 << 20);
    return bytes ? *bytes : "<" + bytes.error().description + ">";
  }
  std::optional<Error> append(const std::string& path, std::string_view lines) {
    const auto file = files_.openForAppending(path);
    return file ? (*file)->append(lines) : std::optional(file.error());
  }
  int readFailure(const std::string& path, uint64_t maximum = 1 << 20) const {
    const auto bytes = files_.readFile(path, maximum);
    return bytes ? 0 : bytes.error().code;
  }

  ScratchFolder scratch_;
  LinuxFileManager files_{"", "/home/tester"};
};

TEST_F(FileManagerTest, RootStandsBeforeAbsolutePathsAndTheHomeFolder) {
  const LinuxFileManager files("/scratch/", "/home/tester/");
  EXPECT_EQ(files.resolve("/tmp/zunstorage"), "/scratch/tmp/zunstorage");
  EXPECT_EQ(files.resolve("~/Library"), "/scratch/home/tester/Library");
  EXPECT_EQ(files.resolve("~"), "/scratch/home/tester");
  EXPECT_EQ(files.resolve("relative/path"), "relative/path");
  EXPECT_EQ(files.resolve("~other/file"), "~other/file");
}

TEST_F(FileManagerTest, NoRootLeavesPathsAsTheyAre) {
  for (const char* root : {"", "/"}) {
    const LinuxFileManager files(root, "/home/tester");
    EXPECT_EQ(files.resolve("/tmp"), "/tmp");
    EXPECT_EQ(files.resolve("~/a"), "/home/tester/a");
  }
  EXPECT_EQ(LinuxFileManager("", "/").resolve("~"), "/");
}

TEST_F(FileManagerTest, ReadsAWholeFileUpToTheBound) {
  ASSERT_EQ(files_.createFile(at("f"), "0123456789"), std::nullopt);
  EXPECT_EQ(*files_.readFile(at("f"), 10), "0123456789");
  EXPECT_EQ(readFailure(at("f"), 9), EFBIG);
  ASSERT_EQ(files_.createFile(at("empty"), ""), std::nullopt);
  EXPECT_EQ(*files_.readFile(at("empty"), 0), "");
}

TEST_F(FileManagerTest, ErrorsAreErrnosOfThePOSIXDomain) {
  const auto missing = files_.readFile(at("missing"), 10);
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error(), (Error{kPOSIXErrorDomain, ENOENT, "No such file or directory"}));
  EXPECT_EQ(readFailure(scratch_.path()), EISDIR);
  EXPECT_EQ(readFailure("/dev/zero"), EINVAL);
}

// A path of ours may be anything by the time it is opened.
TEST_F(FileManagerTest, PipesNeitherBlockNorRead) {
  ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
  EXPECT_EQ(readFailure(at("pipe")), EINVAL);
  EXPECT_EQ(codeOf(files_.createFile(at("pipe"), "x")), EEXIST);
  EXPECT_EQ(codeOf(append(at("pipe"), "x")), EINVAL);
}

TEST_F(FileManagerTest, FilesThatTellNoSizeAreReadWithinTheBound) {
  EXPECT_NE(files_.readFile("/proc/self/status", 1 << 20)->find("VmRSS"), std::string::npos);
  EXPECT_EQ(readFailure("/proc/self/status", 10), EFBIG);
}

TEST_F(FileManagerTest, PathsWithANulAreRefused) {
  const std::string path = at("a") + std::string("\0b", 2);
  ASSERT_EQ(files_.createFile(at("a"), "kept"), std::nullopt);
  EXPECT_EQ(readFailure(path), EINVAL);
  EXPECT_EQ(codeOf(files_.createFile(path, "")), EINVAL);
  EXPECT_EQ(codeOf(files_.writeFileAtomically(path, "")), EINVAL);
  EXPECT_EQ(codeOf(files_.removeItem(path)), EINVAL);
  EXPECT_EQ(codeOf(files_.createDirectories(path)), EINVAL);
  EXPECT_EQ(files_.attributes(path), std::nullopt);
  EXPECT_FALSE(files_.listDirectory(path));
  EXPECT_EQ(contentOf("a"), "kept");
}

TEST_F(FileManagerTest, AtomicWriteReplacesAndLeavesNothingBeside) {
  for (const auto durability : {Durability::kBestEffort, Durability::kSynced}) {
    ASSERT_EQ(files_.writeFileAtomically(at("f"), "first", durability), std::nullopt);
    ASSERT_EQ(files_.writeFileAtomically(at("f"), "second", durability), std::nullopt);
    EXPECT_EQ(contentOf("f"), "second");
    EXPECT_THAT(*files_.listDirectory(scratch_.path()), ElementsAre("f"));
  }
}

TEST_F(FileManagerTest, NewFilesArePrivateAndReplacedOnesKeepTheirMode) {
  ASSERT_EQ(files_.writeFileAtomically(at("atomic"), "x"), std::nullopt);
  ASSERT_EQ(files_.createFile(at("plain"), "x"), std::nullopt);
  EXPECT_EQ(modeOf("atomic"), 0600u);
  EXPECT_EQ(modeOf("plain"), 0600u);
  ASSERT_EQ(::chmod(at("atomic").c_str(), 0644), 0);
  ASSERT_EQ(files_.writeFileAtomically(at("atomic"), "y"), std::nullopt);
  EXPECT_EQ(modeOf("atomic"), 0644u);
}

TEST_F(FileManagerTest, AtomicWriteReplacesALinkAndNotItsTarget) {
  ASSERT_EQ(files_.createFile(at("target"), "untouched"), std::nullopt);
  ASSERT_EQ(::symlink(at("target").c_str(), at("link").c_str()), 0);
  ASSERT_EQ(files_.writeFileAtomically(at("link"), "new"), std::nullopt);
  EXPECT_EQ(contentOf("target"), "untouched");
  EXPECT_EQ(contentOf("link"), "new");
}

TEST_F(FileManagerTest, AtomicWriteOverAFolderFailsAndLeavesNothingBeside) {
  ASSERT_EQ(files_.createDirectories(at("folder/inner")), std::nullopt);
  EXPECT_EQ(codeOf(files_.writeFileAtomically(at("folder"), "x")), EISDIR);
  EXPECT_THAT(*files_.listDirectory(scratch_.path()), ElementsAre("folder"));
  EXPECT_EQ(codeOf(files_.writeFileAtomically(at("none/f"), "x")), ENOENT);
}

// A file-size limit stands for the disk that fills up half way.
TEST_F(FileManagerTest, AtomicWriteThatBreaksOffLeavesTheOldFile) {
  ASSERT_EQ(files_.writeFileAtomically(at("f"), "old"), std::nullopt);
  const pid_t child = ::fork();
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{4096, 4096};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    ::_exit(codeOf(files_.writeFileAtomically(at("f"), std::string(10000, 'x'))));
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), EFBIG);
  EXPECT_EQ(contentOf("f"), "old");
  EXPECT_THAT(*files_.listDirectory(scratch_.path()), ElementsAre("f"));
}

TEST_F(FileManagerTest, AppendMakesTheFileThatIsMissing) {
  EXPECT_EQ(codeOf(append(at("none/f"), "x")), ENOENT);
  ASSERT_EQ(append(at("f"), "one\n"), std::nullopt);
  ASSERT_EQ(append(at("f"), "two\n"), std::nullopt);
  EXPECT_EQ(contentOf("f"), "one\ntwo\n");
  EXPECT_EQ(modeOf("f"), 0600u);
}

TEST_F(FileManagerTest, AppendThatBreaksOffLeavesTheFileAsItWas) {
  ASSERT_EQ(append(at("f"), "old\n"), std::nullopt);
  const pid_t child = ::fork();
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{4096, 4096};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    ::_exit(codeOf(append(at("f"), std::string(10000, 'x'))));
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), EFBIG);
  EXPECT_EQ(contentOf("f"), "old\n");
}

TEST_F(FileManagerTest, LineWithoutAnEndIsEndedBeforeMoreIsAppended) {
  ASSERT_EQ(files_.createFile(at("f"), "a\nhal"), std::nullopt);
  ASSERT_EQ(append(at("f"), "b\n"), std::nullopt);
  ASSERT_EQ(append(at("f"), "c\n"), std::nullopt);
  EXPECT_EQ(contentOf("f"), "a\nhal\nb\nc\n");
}

TEST_F(FileManagerTest, FileThatIsAppendedToTellsItsSizeUntilItIsRemoved) {
  const auto file = files_.openForAppending(at("f"));
  ASSERT_TRUE(file);
  EXPECT_EQ((*file)->size(), 0U);
  ASSERT_EQ((*file)->append("one\n"), std::nullopt);
  ASSERT_EQ(append(at("f"), "two\n"), std::nullopt);
  EXPECT_EQ((*file)->size(), 8U);
  ASSERT_EQ((*file)->append("three\n"), std::nullopt);
  EXPECT_EQ(contentOf("f"), "one\ntwo\nthree\n");
  ASSERT_EQ(files_.removeItem(at("f")), std::nullopt);
  EXPECT_EQ((*file)->size(), std::nullopt);
}

TEST_F(FileManagerTest, OnlyANewFileIsCreated) {
  ASSERT_EQ(files_.createFile(at("f"), "first"), std::nullopt);
  EXPECT_EQ(codeOf(files_.createFile(at("f"), "second")), EEXIST);
  EXPECT_EQ(contentOf("f"), "first");
  EXPECT_EQ(codeOf(files_.createFile(at("none/f"), "x")), ENOENT);
}

TEST_F(FileManagerTest, NewFileThatCannotBeWrittenWholeIsNotThere) {
  const pid_t child = ::fork();
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{4096, 4096};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    ::_exit(codeOf(files_.createFile(at("f"), std::string(10000, 'x'))));
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), EFBIG);
  EXPECT_THAT(*files_.listDirectory(scratch_.path()), ElementsAre());
}

TEST_F(FileManagerTest, CreatingAndAppendingFollowNoLink) {
  ASSERT_EQ(files_.createFile(at("target"), "untouched"), std::nullopt);
  for (const char* target : {"target", "missing"}) {
    ASSERT_EQ(::symlink(target, at(std::string("to-") + target).c_str()), 0);
    EXPECT_EQ(codeOf(files_.createFile(at(std::string("to-") + target), "x")), EEXIST);
    EXPECT_EQ(codeOf(append(at(std::string("to-") + target), "x")), ELOOP);
  }
  EXPECT_EQ(contentOf("target"), "untouched");
  EXPECT_FALSE(std::filesystem::exists(at("missing")));
}

TEST_F(FileManagerTest, CreatesFoldersAboveAndAcceptsExistingOnes) {
  ASSERT_EQ(files_.createDirectories(at("a/b/c")), std::nullopt);
  EXPECT_EQ(files_.createDirectories(at("a/b/c")), std::nullopt);
  EXPECT_EQ(files_.createDirectories(at("a/b/d/")), std::nullopt);
  EXPECT_TRUE(files_.attributes(at("a/b/c"))->isDirectory);
  EXPECT_EQ(modeOf("a/b/d"), 0700u);
  EXPECT_EQ(files_.createDirectories("/"), std::nullopt);
  EXPECT_EQ(codeOf(files_.createDirectories("")), EINVAL);
}

TEST_F(FileManagerTest, AFileInTheWayOfAFolderIsAnError) {
  ASSERT_EQ(files_.createFile(at("f"), ""), std::nullopt);
  EXPECT_EQ(codeOf(files_.createDirectories(at("f"))), ENOTDIR);
  EXPECT_EQ(codeOf(files_.createDirectories(at("f/below"))), ENOTDIR);
}

TEST_F(FileManagerTest, RemovingAFolderFollowsNoLink) {
  ASSERT_EQ(files_.createDirectories(at("kept")), std::nullopt);
  ASSERT_EQ(files_.createFile(at("kept/f"), "x"), std::nullopt);
  ASSERT_EQ(files_.createDirectories(at("gone/inner")), std::nullopt);
  ASSERT_EQ(::symlink(at("kept").c_str(), at("gone/inner/link").c_str()), 0);
  EXPECT_EQ(files_.removeItem(at("gone")), std::nullopt);
  EXPECT_EQ(files_.attributes(at("gone")), std::nullopt);
  EXPECT_EQ(contentOf("kept/f"), "x");
  ASSERT_EQ(::symlink(at("kept").c_str(), at("link").c_str()), 0);
  EXPECT_EQ(files_.removeItem(at("link")), std::nullopt);
  EXPECT_EQ(contentOf("kept/f"), "x");
  EXPECT_EQ(codeOf(files_.removeItem(at("link"))), ENOENT);
}

TEST_F(FileManagerTest, ListsNamesSortedAndTellsAMissingFolder) {
  for (const char* name : {"b", "a", ".hidden", "C"})
    ASSERT_EQ(files_.createFile(at(name), ""), std::nullopt);
  EXPECT_THAT(*files_.listDirectory(scratch_.path()), ElementsAre(".hidden", "C", "a", "b"));
  EXPECT_EQ(files_.listDirectory(at("missing")).error().code, ENOENT);
  EXPECT_EQ(files_.listDirectory(at("a")).error().code, ENOTDIR);
}

TEST_F(FileManagerTest, EnumerationGoesDownButFollowsNoLink) {
  ASSERT_EQ(files_.createDirectories(at("a/b")), std::nullopt);
  ASSERT_EQ(files_.createFile(at("a/b/f"), ""), std::nullopt);
  ASSERT_EQ(files_.createFile(at("z"), ""), std::nullopt);
  ASSERT_EQ(::symlink(scratch_.path().c_str(), at("a/loop").c_str()), 0);
  EXPECT_THAT(files_.enumerateRecursively(scratch_.path()), ElementsAre("a", "a/b", "a/b/f", "a/loop", "z"));
  EXPECT_TRUE(files_.enumerateRecursively(at("missing")).empty());
}

TEST_F(FileManagerTest, AttributesTellSizeAndTimes) {
  ASSERT_EQ(files_.createFile(at("f"), "12345"), std::nullopt);
  const std::filesystem::path path = at("f");
  std::filesystem::last_write_time(path,
                                   std::filesystem::file_time_type::clock::now() - std::chrono::hours(24));
  const auto attributes = files_.attributes(path);
  ASSERT_TRUE(attributes);
  EXPECT_EQ(attributes->size, 5u);
  EXPECT_FALSE(attributes->isDirectory);
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_NEAR(attributes->modificationDate.secondsSince1970, static_cast<double>(status.st_mtim.tv_sec), 1);
  struct statx born {};
  ASSERT_EQ(::statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &born), 0);
  const bool hasBirthTime = (born.stx_mask & STATX_BTIME) != 0;
  ASSERT_TRUE(attributes->creationDate);
  EXPECT_NEAR(attributes->creationDate->secondsSince1970,
              static_cast<double>(hasBirthTime ? born.stx_btime.tv_sec : status.st_mtim.tv_sec), 1);
  EXPECT_EQ(files_.attributes(at("missing")), std::nullopt);
}

TEST_F(FileManagerTest, AttributesTellTheKindAndTheOwner) {
  ASSERT_EQ(files_.createFile(at("f"), ""), std::nullopt);
  ASSERT_EQ(::symlink("f", at("link").c_str()), 0);
  ASSERT_EQ(::symlink("missing", at("dangling").c_str()), 0);
  EXPECT_TRUE(files_.attributes(at("f"))->isRegularFile);
  EXPECT_TRUE(files_.attributes(at("f"))->isOwn);
  EXPECT_FALSE(files_.attributes(scratch_.path())->isRegularFile);
  EXPECT_TRUE(files_.attributes(scratch_.path())->isDirectory);
  EXPECT_TRUE(files_.attributes(at("link"))->isRegularFile);
  EXPECT_FALSE(files_.attributes(at("link"), Links::kNotFollowed)->isRegularFile);
  EXPECT_EQ(files_.attributes(at("dangling")), std::nullopt);
  EXPECT_NE(files_.attributes(at("dangling"), Links::kNotFollowed), std::nullopt);
  if (::geteuid() != 0) GTEST_SKIP() << "the rest needs privilege";
  ASSERT_EQ(::chown(at("f").c_str(), 65534, 65534), 0);
  EXPECT_FALSE(files_.attributes(at("f"))->isOwn);
}

TEST_F(FileManagerTest, StagedFileIsSeenOnceItIsPublishedAndElseNever) {
  ASSERT_EQ(files_.writeFileAtomically(at("file"), "former"), std::nullopt);
  {
    const auto staged = files_.stageFile(at("file"), "latter", Durability::kSynced);
    ASSERT_TRUE(staged);
    EXPECT_EQ(contentOf("file"), "former");
    EXPECT_EQ((*staged)->publish(), std::nullopt);
    EXPECT_EQ(contentOf("file"), "latter");
  }
  EXPECT_EQ(contentOf("file"), "latter");
  { ASSERT_TRUE(files_.stageFile(at("file"), "dropped")); }
  EXPECT_EQ(contentOf("file"), "latter");
  const auto names = files_.listDirectory(scratch_.path());
  ASSERT_TRUE(names);
  EXPECT_THAT(*names, ElementsAre("file"));
  EXPECT_FALSE(files_.stageFile(at("missing/file"), "x"));
}

TEST_F(FileManagerTest, ModificationDateIsSetToTheMicrosecond) {
  ASSERT_EQ(files_.writeFileAtomically(at("file"), "x"), std::nullopt);
  for (const double date : {1'700'000'000.123456, 1'700'000'000.0, 1'700'000'000.999999}) {
    EXPECT_EQ(files_.setModificationDate(at("file"), Date{date}), std::nullopt);
    EXPECT_EQ(files_.attributes(at("file"))->modificationDate, Date{date});
  }
  EXPECT_EQ(files_.setModificationDate(at("missing"), Date{1})->code, ENOENT);
}

// The folder may be one that other programs keep their files in as well.
TEST_F(FileManagerTest, LeftoversAreOldRegularFilesOfThisUserWithThatVeryName) {
  for (const char* name : {".zun-aZ09xY", ".zun-mInute", ".zun-short", ".zun-toolong", ".zun-a_b2c3",
                           "zun-a1B2c3", ".zum-a1B2c3", "kept", ".zun-nObody"}) {
    ASSERT_EQ(files_.createFile(at(name), ""), std::nullopt);
    ASSERT_EQ(files_.setModificationDate(at(name), Date{999}), std::nullopt);
  }
  ASSERT_EQ(files_.setModificationDate(at(".zun-mInute"), Date{1000}), std::nullopt);
  ASSERT_EQ(::symlink("kept", at(".zun-linked").c_str()), 0);
  ASSERT_EQ(files_.createDirectories(at(".zun-folder/file")), std::nullopt);
  ASSERT_EQ(files_.setModificationDate(at(".zun-folder"), Date{999}), std::nullopt);
  const bool isRoot = ::geteuid() == 0;
  if (isRoot) {
    ASSERT_EQ(::chown(at(".zun-nObody").c_str(), 65534, 65534), 0);
  }
  const auto before = *files_.listDirectory(scratch_.path());
  removeLeftovers(files_, scratch_.path(), Date{1000});
  auto expected = before;
  std::erase(expected, ".zun-aZ09xY");
  if (!isRoot) std::erase(expected, ".zun-nObody");
  EXPECT_EQ(*files_.listDirectory(scratch_.path()), expected);
  removeLeftovers(files_, scratch_.path());
  std::erase(expected, ".zun-mInute");
  EXPECT_EQ(*files_.listDirectory(scratch_.path()), expected);
  removeLeftovers(files_, at("missing"));
}

TEST_F(FileManagerTest, WhatIsBeingWrittenCountsAsALeftoverOnceItIsOld) {
  const auto staged = files_.stageFile(at("file"), "x");
  ASSERT_TRUE(staged);
  removeLeftovers(files_, scratch_.path());
  EXPECT_THAT(*files_.listDirectory(scratch_.path()), ElementsAre());
}

}  // namespace
}  // namespace zun
