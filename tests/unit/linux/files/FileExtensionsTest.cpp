#include "linux/files/FileExtensions.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "support/DescriptorCount.h"
#include "support/ErrorCode.h"
#include "support/ScratchFolder.h"

namespace zun {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kSomebody = 4711;
constexpr gid_t kSomeGroup = 4712;
constexpr gid_t kOtherGroup = 4713;

using Consumed = Result<std::unique_ptr<SandboxExtension>, Error>;

FileDescriptor openFile(const std::string& path, int flags = O_RDONLY) {
  return FileDescriptor(::open(path.c_str(), flags | O_CLOEXEC));
}

int codeOf(const Consumed& consumed) {
  return consumed ? 0 : consumed.error().code;
}

std::string contentOf(const SandboxExtension& extension) {
  std::string content;
  std::array<char, 7> buffer{};
  while (true) {
    const auto count = extension.read(content.size(), buffer);
    if (!count || *count == 0) return count ? content : content + "(" + count.error().description + ")";
    content.append(buffer.data(), *count);
  }
}

class FileExtensionsTest : public ::testing::Test {
 protected:
  std::string makeFile(const std::string& name, const std::string& content = "one two three") const {
    const std::string path = scratch_.path(name);
    std::ofstream(path) << content;
    return path;
  }
  std::string makeFolder(const std::string& name, mode_t mode, uid_t owner = 0, gid_t group = 0) const {
    const std::string path = scratch_.path(name);
    EXPECT_EQ(::mkdir(path.c_str(), 0700), 0);
    EXPECT_EQ(::chown(path.c_str(), owner, group), 0);
    EXPECT_EQ(::chmod(path.c_str(), mode), 0);  // last: a change of owner takes bits away
    return path;
  }
  static std::string tokenFor(FileExtensions& extensions, const std::string& path, int flags = O_RDONLY) {
    const auto token = extensions.issue(openFile(path, flags));
    EXPECT_TRUE(token) << path;
    return token ? *token : "";
  }
  std::string tokenFor(const std::string& path, int flags = O_RDONLY) {
    return tokenFor(extensions_, path, flags);
  }

  ScratchFolder scratch_;
  FileExtensions extensions_{FileSystemIdentity::ofProcess()};
};

// --- Tokens -------------------------------------------------------------------------

TEST_F(FileExtensionsTest, TokensAreLongRandomTexts) {
  const std::string path = makeFile("a");
  std::set<std::string> tokens;
  for (size_t count = 0; count < FileExtensions::kMaximumUnused; ++count) {
    const std::string token = tokenFor(path);
    EXPECT_EQ(token.size(), 32u);
    EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos) << token;
    tokens.insert(token);
  }
  EXPECT_EQ(tokens.size(), FileExtensions::kMaximumUnused);
}

TEST_F(FileExtensionsTest, AZeroByteAtTheEndOfATokenDoesNotCount) {
  const std::string path = makeFile("a");
  EXPECT_TRUE(extensions_.consume(tokenFor(path), path));
  EXPECT_TRUE(extensions_.consume(tokenFor(path) + '\0', path));
  EXPECT_EQ(codeOf(extensions_.consume(tokenFor(path) + std::string(2, '\0'), path)), EACCES);
}

TEST_F(FileExtensionsTest, OnlyATokenThatWasIssuedHereServes) {
  const std::string path = makeFile("a");
  const std::string token = tokenFor(path);
  FileExtensions others(FileSystemIdentity::ofProcess());
  EXPECT_EQ(codeOf(others.consume(token, path)), EACCES);
  for (const std::string& forged : {std::string(), std::string(1, '\0'), std::string(32, '0'), token + "0",
                                    token.substr(1), std::string(1 << 20, 'f')}) {
    const auto consumed = extensions_.consume(forged, path);
    ASSERT_FALSE(consumed);
    EXPECT_EQ(consumed.error(), (Error{kPOSIXErrorDomain, EACCES, "The connection has no such token"}));
  }
  EXPECT_TRUE(extensions_.consume(token, path));
}

TEST_F(FileExtensionsTest, ATokenServesOnceAndAWrongPathLeavesIt) {
  const std::string path = makeFile("a");
  const std::string token = tokenFor(path);
  EXPECT_EQ(codeOf(extensions_.consume(token, scratch_.path("missing"))), ENOENT);
  EXPECT_EQ(codeOf(extensions_.consume(token, makeFile("b"))), ESTALE);
  EXPECT_TRUE(extensions_.consume(token, path));
  EXPECT_EQ(codeOf(extensions_.consume(token, path)), EACCES);
}

TEST_F(FileExtensionsTest, OfManyWhoUseATokenAtOnceOneSucceeds) {
  const std::string path = makeFile("a");
  for (int round = 0; round < 50; ++round) {
    const std::string token = tokenFor(path);
    std::atomic<int> succeeded{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
      threads.emplace_back([&] { succeeded += extensions_.consume(token, path) ? 1 : 0; });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(succeeded, 1);
  }
}

TEST_F(FileExtensionsTest, UnusedTokensAreLimited) {
  const std::string path = makeFile("a");
  std::vector<std::string> tokens;
  for (size_t count = 0; count < FileExtensions::kMaximumUnused; ++count) tokens.push_back(tokenFor(path));
  const size_t before = openDescriptors();
  const auto refused = extensions_.issue(openFile(path));
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error(), FileExtensions::Refusal::kTooMany);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_TRUE(extensions_.consume(tokens.front(), path));
  EXPECT_TRUE(extensions_.issue(openFile(path)));
}

TEST_F(FileExtensionsTest, AfterTheEndNothingIsIssuedOrGivenAndEverythingUnusedIsClosed) {
  const size_t before = openDescriptors();
  const std::string path = makeFile("a");
  const std::string token = tokenFor(path);
  auto used = extensions_.consume(tokenFor(path), path);
  ASSERT_TRUE(used);
  extensions_.invalidate();
  EXPECT_EQ(codeOf(extensions_.consume(token, path)), EACCES);
  const auto refused = extensions_.issue(openFile(path));
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error(), FileExtensions::Refusal::kEnded);
  EXPECT_EQ(contentOf(**used), "one two three");  // what is in use goes on
  (*used).reset();
  EXPECT_EQ(openDescriptors(), before);
}

// --- What may be handed over --------------------------------------------------------

TEST_F(FileExtensionsTest, OnlyADescriptorOpenForReadingIsTaken) {
  const std::string path = makeFile("a");
  const size_t before = openDescriptors();
  for (const int flags : {O_WRONLY, O_WRONLY | O_APPEND, O_PATH, O_ACCMODE}) {
    FileDescriptor descriptor = openFile(path, flags);
    ASSERT_TRUE(descriptor.isOpen()) << flags;
    const auto refused = extensions_.issue(std::move(descriptor));
    ASSERT_FALSE(refused) << flags;
    EXPECT_EQ(refused.error(), FileExtensions::Refusal::kNotReadable);
  }
  EXPECT_FALSE(extensions_.issue(FileDescriptor()));
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_TRUE(extensions_.issue(openFile(path, O_RDWR)));
}

TEST_F(FileExtensionsTest, WhatHasNoPathCannotBeUsed) {
  int pipe[2] = {-1, -1};
  int sockets[2] = {-1, -1};
  ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
  const FileDescriptor otherPipe(pipe[1]);
  const FileDescriptor otherSocket(sockets[1]);
  for (const int number : {pipe[0], sockets[0], ::memfd_create("memory", MFD_CLOEXEC)}) {
    const auto token = extensions_.issue(FileDescriptor(number));
    ASSERT_TRUE(token);
    EXPECT_EQ(codeOf(extensions_.consume(*token, makeFile("a"))), ESTALE);
    // The one name it has is a link of this process's.
    EXPECT_EQ(codeOf(extensions_.consume(*token, "/proc/self/fd/" + std::to_string(number))), ELOOP);
  }
}

TEST_F(FileExtensionsTest, FoldersPipesAndDevicesAreGivenButAreNoRegularFiles) {
  const std::string fifo = scratch_.path("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const auto& [path, flags] : {std::pair{scratch_.path(), O_RDONLY}, std::pair{fifo, O_RDWR},
                                    std::pair{std::string("/dev/zero"), O_RDONLY}}) {
    const auto consumed = extensions_.consume(tokenFor(path, flags), path);
    ASSERT_TRUE(consumed) << path << ": " << consumed.error().description;
    EXPECT_FALSE((*consumed)->isRegularFile()) << path;
    EXPECT_EQ((*consumed)->size(), 0u);
    std::array<char, 1> buffer{};
    EXPECT_FALSE((*consumed)->read(0, buffer)) << path;
    EXPECT_EQ(codeOf((*consumed)->removeFile()), EINVAL) << path;
    EXPECT_TRUE(fs::exists(path));
  }
}

// Such a file may show its reader more than it would have shown the client.
TEST_F(FileExtensionsTest, TheKernelsOwnFilesAreNoRegularFiles) {
  const std::string path = "/proc/" + std::to_string(::getpid()) + "/status";
  const auto consumed = extensions_.consume(tokenFor(path), path);
  ASSERT_TRUE(consumed) << consumed.error().description;
  EXPECT_FALSE((*consumed)->isRegularFile());
  std::array<char, 16> buffer{};
  EXPECT_FALSE((*consumed)->read(0, buffer));
}

// --- Paths --------------------------------------------------------------------------

TEST_F(FileExtensionsTest, ASymbolicLinkIsRefusedEvenToThatVeryFile) {
  const std::string path = makeFile("a");
  const std::string link = scratch_.path("link");
  fs::create_symlink(path, link);
  const std::string token = tokenFor(path);
  EXPECT_EQ(codeOf(extensions_.consume(token, link)), ELOOP);
  // Folders on the way may be links.
  fs::create_directory_symlink(scratch_.path(), scratch_.path("folder"));
  EXPECT_TRUE(extensions_.consume(token, scratch_.path("folder/a")));
}

TEST_F(FileExtensionsTest, APathThatWasSwappedMeanwhileIsRefused) {
  const std::string path = makeFile("a");
  const std::string token = tokenFor(path);
  fs::rename(path, scratch_.path("away"));
  EXPECT_EQ(codeOf(extensions_.consume(token, path)), ENOENT);
  makeFile("a", "another");
  EXPECT_EQ(codeOf(extensions_.consume(token, path)), ESTALE);
  fs::remove(path);
  fs::create_symlink(scratch_.path("away"), path);
  EXPECT_EQ(codeOf(extensions_.consume(token, path)), ELOOP);
  EXPECT_TRUE(extensions_.consume(token, scratch_.path("away")));
}

TEST_F(FileExtensionsTest, OnlyAWholePathIsTaken) {
  const std::string path = makeFile("a");
  const std::string token = tokenFor(path);
  for (const std::string& wrong :
       {std::string(), std::string("a"), std::string("./a"), std::string("/"), path + "/", path + "/.",
        path + "/..", path + std::string("\0b", 2), "file://" + path}) {
    EXPECT_EQ(codeOf(extensions_.consume(token, wrong)), EINVAL) << wrong;
  }
  EXPECT_EQ(codeOf(extensions_.consume(token, scratch_.path(std::string(PATH_MAX, 'a')))), ENAMETOOLONG);
  EXPECT_EQ(codeOf(extensions_.consume(token, scratch_.path(std::string(NAME_MAX + 1, 'a')))), ENAMETOOLONG);
  EXPECT_EQ(codeOf(extensions_.consume(token, path + "/b")), ENOTDIR);
  EXPECT_TRUE(extensions_.consume(token, path));
}

// What this process has open must be no way around the folders above.
TEST_F(FileExtensionsTest, AWayThroughThisProcesssDescriptorsIsRefused) {
  const std::string path = makeFile("a");
  const FileDescriptor folder = openFile(scratch_.path(), O_PATH | O_DIRECTORY);
  const std::string way = "/proc/self/fd/" + std::to_string(folder.get()) + "/a";
  EXPECT_EQ(codeOf(extensions_.consume(tokenFor(path), way)), ELOOP);
}

// --- Reading ------------------------------------------------------------------------

TEST_F(FileExtensionsTest, BytesComeThroughTheClientsDescriptorWithoutMovingItsPosition) {
  const std::string path = makeFile("a", "0123456789");
  const FileDescriptor clients = openFile(path);
  ASSERT_EQ(::lseek(clients.get(), 4, SEEK_SET), 4);
  const auto token = extensions_.issue(FileDescriptor(::dup(clients.get())));
  ASSERT_TRUE(token);
  auto consumed = extensions_.consume(*token, path);
  ASSERT_TRUE(consumed);
  const SandboxExtension& extension = **consumed;
  fs::remove(path);
  makeFile("a", "another file by now");
  EXPECT_TRUE(extension.isRegularFile());
  EXPECT_EQ(extension.size(), 10u);
  EXPECT_EQ(contentOf(extension), "0123456789");
  std::array<char, 4> buffer{};
  EXPECT_EQ(*extension.read(8, buffer), 2u);
  EXPECT_EQ(*extension.read(10, buffer), 0u);
  EXPECT_EQ(*extension.read(uint64_t{1} << 40, buffer), 0u);
  EXPECT_EQ(*extension.read(0, {}), 0u);
  EXPECT_EQ(extension.read(UINT64_MAX, buffer).error().code, EINVAL);
  EXPECT_EQ(::lseek(clients.get(), 0, SEEK_CUR), 4);
}

TEST_F(FileExtensionsTest, AReadThatFailsIsToldWithItsReason) {
  const std::string path = makeFile("a");
  const auto consumed = extensions_.consume(tokenFor(path), path);
  ASSERT_TRUE(consumed);
  void* const nowhere = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(nowhere, MAP_FAILED);
  EXPECT_EQ((*consumed)->read(0, {static_cast<char*>(nowhere), 4}).error().code, EFAULT);
  ::munmap(nowhere, 4096);
}

TEST_F(FileExtensionsTest, AFileThatIsCutWhileItIsReadEndsEarly) {
  const std::string path = makeFile("a", std::string(100, 'x'));
  const auto consumed = extensions_.consume(tokenFor(path), path);
  ASSERT_TRUE(consumed);
  fs::resize_file(path, 30);
  EXPECT_EQ((*consumed)->size(), 30u);
  EXPECT_EQ(contentOf(**consumed), std::string(30, 'x'));
}

// --- Removal ------------------------------------------------------------------------

TEST_F(FileExtensionsTest, AFileIsRemovedWhileThePathStillNamesIt) {
  const std::string path = makeFile("a");
  fs::create_hard_link(path, scratch_.path("b"));
  const auto consumed = extensions_.consume(tokenFor(path), path);
  ASSERT_TRUE(consumed);
  EXPECT_EQ((*consumed)->removeFile(), std::nullopt);
  EXPECT_FALSE(fs::exists(path));
  EXPECT_TRUE(fs::exists(scratch_.path("b")));
  EXPECT_EQ(codeOf((*consumed)->removeFile()), ENOENT);
}

TEST_F(FileExtensionsTest, WhatTookTheFilesPlaceIsNotRemoved) {
  const std::string path = makeFile("a");
  const auto consumed = extensions_.consume(tokenFor(path), path);
  ASSERT_TRUE(consumed);
  fs::rename(path, scratch_.path("away"));
  makeFile("a", "another");
  EXPECT_EQ(codeOf((*consumed)->removeFile()), ESTALE);
  EXPECT_TRUE(fs::exists(path));
  fs::remove(path);
  fs::create_symlink(scratch_.path("away"), path);
  EXPECT_EQ(codeOf((*consumed)->removeFile()), ELOOP);
  EXPECT_TRUE(fs::is_symlink(path));
  EXPECT_TRUE(fs::exists(scratch_.path("away")));
}

// --- A daemon that could do more than its client ------------------------------------

class FileExtensionsAsRootTest : public FileExtensionsTest {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs to be root";
    ASSERT_EQ(::chmod(scratch_.path().c_str(), 0755), 0);
  }
  void TearDown() override { EXPECT_TRUE(isSelf()); }

  /// What the kernel says about the rights of this thread.
  static std::string rights() {
    std::ifstream status("/proc/thread-self/status");
    std::string found;
    for (std::string line; std::getline(status, line);) {
      for (const char* const name : {"Uid:", "Gid:", "Groups:", "CapEff:", "CapPrm:"}) {
        if (line.starts_with(name)) found += line + "\n";
      }
    }
    return found;
  }
  [[nodiscard]] bool isSelf() const { return rights() == ownRights_; }
  static FileSystemIdentity somebody(std::vector<gid_t> groups = {}) {
    return {kSomebody, kSomeGroup, std::move(groups)};
  }
  /// The file as `client` hands it over, readable to it or not.
  static std::unique_ptr<SandboxExtension> handedOver(const FileSystemIdentity& client,
                                                      const std::string& path) {
    FileExtensions extensions(client);
    auto consumed = extensions.consume(tokenFor(extensions, path), path);
    EXPECT_TRUE(consumed) << consumed.error().description;
    return consumed ? std::move(*consumed) : nullptr;
  }

  const std::string ownRights_ = rights();
};

TEST_F(FileExtensionsAsRootTest, AFileInAFolderThatTheClientMayNotWriteStays) {
  const std::string folder = makeFolder("folder", 0755);
  const std::string path = makeFile("folder/a");
  const auto file = handedOver(somebody(), path);
  EXPECT_EQ(contentOf(*file), "one two three");
  EXPECT_EQ(codeOf(file->removeFile()), EACCES);
  EXPECT_TRUE(fs::exists(path));
  EXPECT_TRUE(isSelf());
}

TEST_F(FileExtensionsAsRootTest, AnothersFileInAStickyFolderStays) {
  const std::string folder = makeFolder("folder", 01777);
  const std::string path = makeFile("folder/a");
  EXPECT_EQ(codeOf(handedOver(somebody(), path)->removeFile()), EPERM);
  EXPECT_TRUE(fs::exists(path));
  ASSERT_EQ(::chown(path.c_str(), kSomebody, kSomeGroup), 0);
  EXPECT_EQ(handedOver(somebody(), path)->removeFile(), std::nullopt);
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(FileExtensionsAsRootTest, TheClientsUserAndGroupsDecide) {
  makeFolder("own", 0700, kSomebody, 0);
  EXPECT_EQ(handedOver(somebody(), makeFile("own/a"))->removeFile(), std::nullopt);
  makeFolder("group", 0770, 0, kSomeGroup);
  EXPECT_EQ(handedOver(somebody(), makeFile("group/a"))->removeFile(), std::nullopt);
  makeFolder("other", 0775, 0, kOtherGroup);
  const std::string path = makeFile("other/a");
  EXPECT_EQ(codeOf(handedOver(somebody(), path)->removeFile()), EACCES);
  EXPECT_EQ(handedOver(somebody({1, kOtherGroup}), path)->removeFile(), std::nullopt);
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(FileExtensionsAsRootTest, PathsAreLookedUpWithTheClientsRights) {
  makeFolder("secret", 0700);
  const std::string path = makeFile("secret/a");
  FileExtensions extensions(somebody());
  const std::string token = tokenFor(extensions, path);
  EXPECT_EQ(codeOf(extensions.consume(token, path)), EACCES);
  EXPECT_EQ(codeOf(extensions.consume(token, scratch_.path("secret/missing"))), EACCES);
  EXPECT_TRUE(isSelf());
  ASSERT_EQ(::chmod(scratch_.path("secret").c_str(), 0711), 0);
  EXPECT_TRUE(extensions.consume(token, path));
}

TEST_F(FileExtensionsAsRootTest, OnlyTheCallingThreadActsForTheClient) {
  const std::string folder = makeFolder("folder", 0700);
  const auto canMake = [&folder](const std::string& name) {
    return FileDescriptor(::open((folder + "/" + name).c_str(), O_CREAT | O_WRONLY, 0600)).isOpen();
  };
  std::atomic<bool> isSeen{false};
  std::atomic<bool> isDone{false};
  bool couldMeanwhile = true;
  std::thread bystander([&] {
    while (!isDone) {
      couldMeanwhile = couldMeanwhile && canMake("b") && isSelf();
      isSeen = true;
    }
  });
  while (!isSeen) std::this_thread::yield();
  for (int round = 0; round < 200; ++round) {
    const auto assumed = AssumedFileSystemIdentity::assume(somebody({kOtherGroup}));
    ASSERT_TRUE(assumed);
    const FileSystemIdentity now = FileSystemIdentity::ofProcess();
    EXPECT_EQ(now.user, kSomebody);
    EXPECT_EQ(now.group, kSomeGroup);
    EXPECT_EQ(now.supplementaryGroups, std::vector<gid_t>{kOtherGroup});
    EXPECT_NE(rights(), ownRights_);
    EXPECT_FALSE(canMake("a"));
  }
  isDone = true;
  bystander.join();
  EXPECT_TRUE(couldMeanwhile);
  EXPECT_TRUE(canMake("a"));
}

TEST_F(FileExtensionsAsRootTest, RootsClientsKeepRootsRights) {
  makeFolder("own", 0700, kSomebody, kSomeGroup);
  EXPECT_EQ(handedOver({0, 0, {}}, makeFile("own/a"))->removeFile(), std::nullopt);
}

/// 0, or the line of the first expectation that does not hold, in a process that is no
/// longer root's.
int removalsAsSomebody(const std::string& ownFile, const std::string& othersFile) {
  const gid_t group = kOtherGroup;
  if (::setgroups(1, &group) != 0 || ::setresgid(kSomeGroup, kSomeGroup, kSomeGroup) != 0 ||
      ::setresuid(kSomebody, kSomebody, kSomebody) != 0) {
    return __LINE__;
  }
  const auto removal = [](const FileSystemIdentity& client, const std::string& path) {
    FileExtensions extensions(client);
    const auto token = extensions.issue(openFile(path));
    const auto consumed = extensions.consume(token ? *token : "", path);
    if (!consumed || contentOf(**consumed) != "one two three") return -1;
    return codeOf((*consumed)->removeFile());
  };
  if (removal({kSomebody + 1, kSomeGroup, {kOtherGroup}}, ownFile) != EPERM) return __LINE__;
  if (removal({0, 0, {}}, ownFile) != EPERM) return __LINE__;
  if (removal({kSomebody, kSomeGroup, {}}, ownFile) != EPERM) return __LINE__;  // it lacks a group
  if (removal({kSomebody, kSomeGroup, {kOtherGroup}}, othersFile) != EACCES) return __LINE__;
  if (::access(ownFile.c_str(), F_OK) != 0) return __LINE__;
  if (removal({kSomebody, kOtherGroup, {1, kSomeGroup}}, ownFile) != 0) return __LINE__;
  return ::access(ownFile.c_str(), F_OK) == 0 ? __LINE__ : 0;
}

// Without the right to become somebody else, a daemon removes nothing for other users.
TEST_F(FileExtensionsAsRootTest, ADaemonThatIsNotRootRemovesFilesForItsOwnUserAlone) {
  makeFolder("own", 0755, kSomebody, kSomeGroup);
  makeFolder("others", 0755);
  const std::string own = makeFile("own/a");
  const std::string others = makeFile("others/a");
  EXPECT_EXIT(std::_Exit(removalsAsSomebody(own, others) % 256), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace zun
