#include "connectivity/StorageContainers.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "support/TestPlatform.h"

namespace zun {
namespace {

class StorageContainersTest : public PlatformTest {
 protected:
  std::filesystem::path root() const { return platform_.files.resolve("/tmp/zunstorage"); }
  void put(const std::string& name) {
    std::filesystem::create_directories((root() / name).parent_path());
    std::ofstream(root() / name) << "content";
  }
  bool has(const std::string& name) const { return std::filesystem::exists(root() / name); }

  StorageContainers containers_{platform_.services};
};

TEST_F(StorageContainersTest, RootFolderIsADirectoryFileURL) {
  EXPECT_EQ(containers_.storageRootFolder(), "file://" + platform_.scratch.path() + "/tmp/zunstorage/");
}

TEST_F(StorageContainersTest, CleanupRemovesContainersWhateverTheirLetterCaseInSubfoldersToo) {
  put("x.zundiag");
  put("sub/deeper/x.ZUNDIAG");
  put("sub/.zundiag");
  containers_.cleanupStorageRootFolder(kBackgroundUploadMode);
  EXPECT_FALSE(has("x.zundiag"));
  EXPECT_FALSE(has("sub/deeper/x.ZUNDIAG"));
  EXPECT_FALSE(has("sub/.zundiag"));
  EXPECT_TRUE(has("sub/deeper"));
}

TEST_F(StorageContainersTest, CleanupKeepsWhatIsNotNamedLikeAContainer) {
  put("x.zundiag.bak");
  put("zundiag");
  put("x.zundiag2");
  containers_.cleanupStorageRootFolder(kBackgroundUploadMode);
  EXPECT_TRUE(has("x.zundiag.bak"));
  EXPECT_TRUE(has("zundiag"));
  EXPECT_TRUE(has("x.zundiag2"));
}

TEST_F(StorageContainersTest, CleanupRemovesAMatchingFolderWhole) {
  put("old.zundiag/inside.txt");
  containers_.cleanupStorageRootFolder(kBackgroundUploadMode);
  EXPECT_FALSE(has("old.zundiag"));
}

TEST_F(StorageContainersTest, CleanupMakesTheRootFolderForItsOwnerOnly) {
  containers_.cleanupStorageRootFolder(kBackgroundUploadMode);
  ASSERT_TRUE(std::filesystem::is_directory(root()));
  EXPECT_EQ(std::filesystem::status(root()).permissions(), std::filesystem::perms::owner_all);
}

// Whoever comes first in /tmp could have other people's files removed.
TEST_F(StorageContainersTest, CleanupLeavesAloneWhatALinkInPlaceOfTheRootLeadsTo) {
  const std::filesystem::path elsewhere = platform_.scratch.path("elsewhere");
  std::filesystem::create_directories(elsewhere);
  std::ofstream(elsewhere / "x.zundiag") << "content";
  std::filesystem::create_directories(root().parent_path());
  std::filesystem::create_symlink(elsewhere, root());
  containers_.cleanupStorageRootFolder(kBackgroundUploadMode);
  EXPECT_TRUE(std::filesystem::exists(elsewhere / "x.zundiag"));
}

TEST_F(StorageContainersTest, FolderOfAnotherUserIsNeitherCleanedNorWrittenTo) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs privilege";
  put("x.zundiag");
  ASSERT_EQ(::chown(root().c_str(), 65534, 65534), 0);
  containers_.cleanupStorageRootFolder(kBackgroundUploadMode);
  EXPECT_TRUE(has("x.zundiag"));
  EXPECT_FALSE(containers_.writeContainerAtURL(containers_.composeUniqueContainerURL(), "content"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root()), {}), 1);
}

TEST_F(StorageContainersTest, ContainerIsAlwaysANewFile) {
  containers_.cleanupStorageRootFolder(kBackgroundUploadMode);
  const std::string url = containers_.composeUniqueContainerURL();
  EXPECT_TRUE(containers_.writeContainerAtURL(url, "first"));
  EXPECT_FALSE(containers_.writeContainerAtURL(url, "second"));
  EXPECT_EQ(*platform_.files.readFile(*pathOfFileURL(url), 100), "first");
  EXPECT_FALSE(containers_.writeContainerAtURL("no file URL", "x"));
}

TEST_F(StorageContainersTest, CleanupDoesNothingUnlessPostsAreUploadedFromFiles) {
  for (const ConnectionMode mode : {kPOSTMode, kGETMode, kBackgroundGETMode, 0}) {
    containers_.cleanupStorageRootFolder(mode);
    EXPECT_FALSE(std::filesystem::exists(root())) << mode;
  }
  put("x.zundiag");
  containers_.cleanupStorageRootFolder(kPOSTMode);
  EXPECT_TRUE(has("x.zundiag"));
}

TEST_F(StorageContainersTest, CleanupIgnoresARootThatCannotBeMade) {
  std::ofstream(platform_.scratch.path("tmp")) << "a file is in the way";
  containers_.cleanupStorageRootFolder(kBackgroundUploadMode);
  EXPECT_FALSE(std::filesystem::exists(root()));
}

TEST_F(StorageContainersTest, EveryContainerHasItsOwnURLInTheRootFolder) {
  const std::string first = containers_.composeUniqueContainerURL();
  const std::string second = containers_.composeUniqueContainerURL();
  EXPECT_NE(first, second);
  const std::regex name("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}\\.zundiag");
  for (const std::string& url : {first, second}) {
    ASSERT_TRUE(url.starts_with(containers_.storageRootFolder())) << url;
    EXPECT_TRUE(std::regex_match(url.substr(containers_.storageRootFolder().size()), name)) << url;
  }
  EXPECT_FALSE(std::filesystem::exists(root()));
}

TEST_F(StorageContainersTest, DeletingAContainerTwiceIsHarmless) {
  std::filesystem::create_directories(root());
  const std::string url = containers_.composeUniqueContainerURL();
  const std::string path = *pathOfFileURL(url);
  std::ofstream(path) << "content";
  containers_.deleteContainerAtURL(url);
  EXPECT_FALSE(std::filesystem::exists(path));
  containers_.deleteContainerAtURL(url);
  containers_.deleteContainerAtURL("no file URL");
  EXPECT_TRUE(std::filesystem::exists(root()));
}

}  // namespace
}  // namespace zun
