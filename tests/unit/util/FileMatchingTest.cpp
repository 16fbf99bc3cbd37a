#include "util/FileMatching.h"

#include <filesystem>

#include "support/TestPlatform.h"

namespace zun {
namespace {

class FileMatchingTest : public PlatformTest {
 protected:
  FileMatchingTest() : folder_(platform_.scratch.path("folder")) {
    platform_.files.createDirectories(folder_);
  }

  void add(const std::string& relative) {
    const std::filesystem::path path = folder_ + "/" + relative;
    std::filesystem::create_directories(path.parent_path());
    ASSERT_FALSE(platform_.files.createFile(path.string(), "content"));
  }
  bool exists(const std::string& relative) const { return std::filesystem::exists(folder_ + "/" + relative); }

  const std::string folder_;
};

TEST_F(FileMatchingTest, ItemsWithAMatchInTheirRelativePathAreDeletedAtAnyDepth) {
  add("a.zundiag");
  add("deep/er/b.zundiag");
  add("deep/er/b.zundiag.txt");
  add("c.txt");
  deleteMatchingItems(platform_.files, "^.*\\.zundiag$", LetterCase::kIgnored, folder_);
  EXPECT_FALSE(exists("a.zundiag"));
  EXPECT_FALSE(exists("deep/er/b.zundiag"));
  EXPECT_TRUE(exists("deep/er/b.zundiag.txt"));
  EXPECT_TRUE(exists("c.txt"));
}

TEST_F(FileMatchingTest, LetterCaseCountsWhereItIsSaidTo) {
  add("A.ZUNDIAG");
  deleteMatchingItems(platform_.files, "\\.zundiag$", LetterCase::kSignificant, folder_);
  EXPECT_TRUE(exists("A.ZUNDIAG"));
  deleteMatchingItems(platform_.files, "\\.zundiag$", LetterCase::kIgnored, folder_);
  EXPECT_FALSE(exists("A.ZUNDIAG"));
}

TEST_F(FileMatchingTest, ExpressionsAreExtendedOnes) {
  add("old");
  add("new");
  add("(old|new)");
  deleteMatchingItems(platform_.files, "^(old|new)$", LetterCase::kSignificant, folder_);
  EXPECT_FALSE(exists("old"));
  EXPECT_FALSE(exists("new"));
  EXPECT_TRUE(exists("(old|new)"));
}

TEST_F(FileMatchingTest, PathIsRelativeToTheFolder) {
  add("x");
  deleteMatchingItems(platform_.files, "folder", LetterCase::kSignificant, folder_);
  EXPECT_TRUE(exists("x"));
}

TEST_F(FileMatchingTest, MatchingFolderGoesWithItsContent) {
  add("old/inside");
  add("new/inside");
  deleteMatchingItems(platform_.files, "^old", LetterCase::kSignificant, folder_);
  EXPECT_FALSE(exists("old"));
  EXPECT_TRUE(exists("new/inside"));
}

// Links are items like any other; what they lead to is not ours.
TEST_F(FileMatchingTest, LinkIsRemovedAndItsTargetStays) {
  const std::string outside = platform_.scratch.path("outside.txt");
  ASSERT_FALSE(platform_.files.createFile(outside, "keep"));
  std::filesystem::create_symlink(outside, folder_ + "/link.zundiag");
  deleteMatchingItems(platform_.files, "zundiag", LetterCase::kSignificant, folder_);
  EXPECT_FALSE(std::filesystem::is_symlink(folder_ + "/link.zundiag"));
  EXPECT_TRUE(std::filesystem::exists(outside));
}

TEST_F(FileMatchingTest, InvalidExpressionAndMissingFolderDeleteNothing) {
  add("x");
  for (const std::string& expression :
       std::vector<std::string>{"(", "[", "x{99999999}", std::string(5000, 'x')}) {
    deleteMatchingItems(platform_.files, expression, LetterCase::kSignificant, folder_);
  }
  EXPECT_TRUE(exists("x"));
  deleteMatchingItems(platform_.files, ".*", LetterCase::kSignificant, folder_ + "/missing");
}

// Backtracking would need years, or a stack without end, for these.
TEST_F(FileMatchingTest, LongPathsAndNestedRepetitionAreMatchedInLinearTime) {
  std::string path;
  for (int level = 0; level < 14; ++level) path += std::string(200, 'a') + "/";
  add(path + "file");
  deleteMatchingItems(platform_.files, "(a*)*(a*)*b$", LetterCase::kSignificant, folder_);
  EXPECT_TRUE(exists(path + "file"));
  deleteMatchingItems(platform_.files, "^.*/file$", LetterCase::kSignificant, folder_);
  EXPECT_FALSE(exists(path + "file"));
}

}  // namespace
}  // namespace zun
