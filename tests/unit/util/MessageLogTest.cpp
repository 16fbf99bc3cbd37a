#include "util/MessageLog.h"

#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/TestPlatform.h"

namespace zun {
namespace {

namespace fs = std::filesystem;

constexpr double kNow = 1'700'000'000;  // 2023-11-14 22:13:20 UTC, where the fake clock starts

class MessageLogTest : public PlatformTest {
 protected:
  MessageLogTest() : directory_(platform_.files.resolve(MessageLog::kDirectory)) {}

  std::string pathOf(const std::string& name) const { return directory_ + "/" + name; }

  // A file that was created so many seconds before now.
  std::string addFile(const std::string& name, double age, const std::string& content = "old\n") {
    fs::create_directories(directory_);
    const std::string path = pathOf(name);
    std::ofstream(path) << content;
    platform_.files.setCreationDate(path, Date{kNow - age});
    return path;
  }

  static std::string contentOf(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
  }

  /// Its time, as the kernel's is too coarse for a test.
  void changeFolder() const {
    fs::last_write_time(directory_, fs::last_write_time(directory_) + std::chrono::milliseconds(1));
  }

  size_t countFiles() const {
    return static_cast<size_t>(std::distance(fs::directory_iterator(directory_), fs::directory_iterator()));
  }

  const std::string directory_;
  const std::string newFile_ = pathOf("zunreportingd_1700000000_messageLog.diag");
  MessageLog log_{platform_.services};
};

TEST_F(MessageLogTest, FirstEntryMakesFolderAndFile) {
  log_.writeToLogFile("hello");
  EXPECT_EQ(contentOf(newFile_), "(2023-11-14 22:13:20 +0000) hello\n");
  expectDefaultLine("writeToLogFile: Creating zunreportingd log directory at " + directory_);
  expectDebugLine("writeToLogFile: Saved log message to " + newFile_);
  bool isCreationLogged = false;
  for (const std::string& line : platform_.log.linesOf(LogLevel::kDefault)) {
    isCreationLogged |=
        line.starts_with("writeToLogFile: Created new zunreportingd log file " + newFile_ + " (");
  }
  EXPECT_TRUE(isCreationLogged);
}

TEST_F(MessageLogTest, LaterEntriesAreAppendedToTheSameFile) {
  log_.writeToLogFile("one");
  platform_.files.setCreationDate(newFile_, Date{kNow});
  platform_.clock.advance(std::chrono::seconds(61));
  log_.writeToLogFile("two\nlines");
  EXPECT_EQ(contentOf(newFile_), "(2023-11-14 22:13:20 +0000) one\n(2023-11-14 22:14:21 +0000) two\nlines\n");
  EXPECT_EQ(countFiles(), 1U);
}

// A kill can cut an entry of more than a page.
TEST_F(MessageLogTest, EntryAfterOneThatWasCutOffBeginsALineOfItsOwn) {
  const std::string file =
      addFile("zunreportingd_1_messageLog.diag", 10, "(2023-11-14 22:13:10 +0000) cut o");
  log_.writeToLogFile("whole");
  log_.writeToLogFile("whole too");
  EXPECT_EQ(contentOf(file),
            "(2023-11-14 22:13:10 +0000) cut o\n"
            "(2023-11-14 22:13:20 +0000) whole\n"
            "(2023-11-14 22:13:20 +0000) whole too\n");
}

TEST_F(MessageLogTest, FolderIsListedAgainWhenASecondHasPassed) {
  const std::string first = addFile("zunreportingd_1_messageLog.diag", 600, "");
  log_.writeToLogFile("one");
  const auto changed = fs::last_write_time(directory_);
  const std::string newer = addFile("zunreportingd_2_messageLog.diag", 300, "");
  fs::last_write_time(directory_, changed);
  platform_.clock.advance(std::chrono::milliseconds(999));
  log_.writeToLogFile("two");
  EXPECT_EQ(contentOf(newer), "");
  EXPECT_TRUE(contentOf(first).ends_with("one\n(2023-11-14 22:13:20 +0000) two\n"));
  platform_.clock.advance(std::chrono::milliseconds(1));
  log_.writeToLogFile("three");
  EXPECT_TRUE(contentOf(newer).ends_with(" three\n"));
  EXPECT_FALSE(fs::exists(first));
}

// What is opened for each line costs as much as the line.
TEST_F(MessageLogTest, FileStaysOpenUntilTheFolderIsLookedAtAgain) {
  const std::string file = addFile("zunreportingd_1_messageLog.diag", 600, "");
  for (int line = 0; line < 10; ++line) log_.writeToLogFile("m");
  EXPECT_EQ(platform_.files.openedForAppending, 1);
  platform_.clock.advance(std::chrono::seconds(1));
  for (int line = 0; line < 10; ++line) log_.writeToLogFile("m");
  EXPECT_EQ(platform_.files.openedForAppending, 2);
  EXPECT_EQ(std::ranges::count(contentOf(file), '\n'), 20);
}

// Even where the folder looks as it did: the file that is open has no name any more.
TEST_F(MessageLogTest, NoEntryGoesIntoAFileThatWasRemoved) {
  const std::string file = addFile("zunreportingd_1_messageLog.diag", 600, "");
  log_.writeToLogFile("one");
  const auto changed = fs::last_write_time(directory_);
  fs::remove(file);
  addFile("zunreportingd_1_messageLog.diag", 600, "");
  fs::last_write_time(directory_, changed);
  log_.writeToLogFile("two");
  EXPECT_TRUE(contentOf(file).ends_with(" two\n"));
}

TEST_F(MessageLogTest, FolderIsListedAgainWhenTheClockWasSetBack) {
  addFile("zunreportingd_1_messageLog.diag", 600, "");
  log_.writeToLogFile("one");
  const auto changed = fs::last_write_time(directory_);
  const std::string newer = addFile("zunreportingd_2_messageLog.diag", 300, "");
  fs::last_write_time(directory_, changed);
  platform_.clock.setTimeOfDay({static_cast<int64_t>(kNow) - 3600, 0});
  log_.writeToLogFile("two");
  EXPECT_TRUE(contentOf(newer).ends_with(" two\n"));
}

TEST_F(MessageLogTest, FolderIsListedAgainWhenItChanged) {
  addFile("zunreportingd_1_messageLog.diag", 600, "");
  log_.writeToLogFile("one");
  const auto changed = fs::last_write_time(directory_);
  const std::string newer = addFile("zunreportingd_2_messageLog.diag", 300, "");
  fs::last_write_time(directory_, changed);
  changeFolder();
  log_.writeToLogFile("two");
  EXPECT_TRUE(contentOf(newer).ends_with(" two\n"));
}

// Clients decide how much is written.
TEST_F(MessageLogTest, EntryThatWouldTakeTheFileOverItsBoundBeginsItAnew) {
  const std::string entry = "(2023-11-14 22:13:20 +0000) one\n";
  std::string content(MessageLog::kMaximumBytes - entry.size(), '\0');
  content.back() = '\n';
  const std::string file = addFile("zunreportingd_1_messageLog.diag", 600, content);
  log_.writeToLogFile("one");
  EXPECT_EQ(fs::file_size(file), MessageLog::kMaximumBytes);
  log_.writeToLogFile("");
  EXPECT_FALSE(fs::exists(file));
  EXPECT_EQ(contentOf(newFile_), "(2023-11-14 22:13:20 +0000) \n");
  log_.writeToLogFile("two");
  EXPECT_EQ(contentOf(newFile_), "(2023-11-14 22:13:20 +0000) \n(2023-11-14 22:13:20 +0000) two\n");
  EXPECT_EQ(countFiles(), 1U);
  expectErrors({"writeToLogFile: " + file + " has reached 67108864 bytes and is begun anew"});
}

TEST_F(MessageLogTest, FileThatIsBegunAnewMayHaveTheSameName) {
  log_.writeToLogFile("one");
  fs::resize_file(newFile_, MessageLog::kMaximumBytes);
  log_.writeToLogFile("two");
  EXPECT_EQ(contentOf(newFile_), "(2023-11-14 22:13:20 +0000) two\n");
  expectErrors({"writeToLogFile: " + newFile_ + " has reached 67108864 bytes and is begun anew"});
}

TEST_F(MessageLogTest, OfTwoFilesTheOlderIsDeletedAndTheNewerGetsTheMessage) {
  const std::string older = addFile("zunreportingd_1_messageLog.diag", 1200);
  const std::string newer = addFile("zunreportingd_2_messageLog.diag", 600);
  log_.writeToLogFile("m");
  EXPECT_FALSE(fs::exists(older));
  EXPECT_EQ(contentOf(newer), "old\n(2023-11-14 22:13:20 +0000) m\n");
  expectDefaultLine("writeToLogFile: Deleted expired zunreportingd log file " + older +
                    " (2023-11-14 21:53:20 +0000)");
}

TEST_F(MessageLogTest, OrderOfTheListingDoesNotMatter) {
  const std::string newer = addFile("zunreportingd_1_messageLog.diag", 600);
  const std::string older = addFile("zunreportingd_2_messageLog.diag", 1200);
  log_.writeToLogFile("m");
  EXPECT_FALSE(fs::exists(older));
  EXPECT_TRUE(fs::exists(newer));
  expectDefaultLine("writeToLogFile: Deleted expired zunreportingd log file " + older +
                    " (2023-11-14 21:53:20 +0000)");
}

TEST_F(MessageLogTest, FileOfExactlyOneDayIsKept) {
  const std::string file = addFile("zunreportingd_5_messageLog.diag", 86400);
  log_.writeToLogFile("m");
  EXPECT_EQ(contentOf(file), "old\n(2023-11-14 22:13:20 +0000) m\n");
  EXPECT_EQ(countFiles(), 1U);
}

TEST_F(MessageLogTest, FileOfMoreThanOneDayIsDeletedAndANewOneMade) {
  const std::string file = addFile("zunreportingd_5_messageLog.diag", 86401);
  log_.writeToLogFile("m");
  EXPECT_FALSE(fs::exists(file));
  EXPECT_EQ(contentOf(newFile_), "(2023-11-14 22:13:20 +0000) m\n");
  expectDefaultLine("writeToLogFile: Deleted expired zunreportingd log file " + file +
                    " (2023-11-13 22:13:19 +0000)");
}

TEST_F(MessageLogTest, NothingBetweenTheNamesPartsIsALogFilesNameToo) {
  const std::string file = addFile("zunreportingd__messageLog.diag", 86401);
  log_.writeToLogFile("m");
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(MessageLogTest, FilesOfOthersAreLeftAlone) {
  const std::vector<std::string> names{
      "zunreportingd_1_other.log", "zunreportingd_1_2_messageLog.diag", "zunreportingd_messageLog.diag",
      "other_1_messageLog.diag",   "zunreportingd_1_messageLog.diag~",  "x-zunreportingd_1_messageLog.diag",
  };
  for (const std::string& name : names) addFile(name, 200'000);
  log_.writeToLogFile("m");
  for (const std::string& name : names) EXPECT_EQ(contentOf(pathOf(name)), "old\n") << name;
  EXPECT_EQ(contentOf(newFile_), "(2023-11-14 22:13:20 +0000) m\n");
}

TEST_F(MessageLogTest, FolderWithTheNameOfALogFileIsLeftAlone) {
  fs::create_directories(pathOf("zunreportingd_7_messageLog.diag/inside"));
  log_.writeToLogFile("m");
  EXPECT_TRUE(fs::exists(pathOf("zunreportingd_7_messageLog.diag/inside")));
  EXPECT_EQ(contentOf(newFile_), "(2023-11-14 22:13:20 +0000) m\n");
}

// Whoever may write to the folder could have the daemon write where he likes, or nowhere.
TEST_F(MessageLogTest, LinksAreNeverFollowedAndLoseNoMessage) {
  addFile("precious", 60);
  fs::create_symlink("precious", pathOf("zunreportingd_7_messageLog.diag"));
  fs::create_symlink("nothing", pathOf("zunreportingd_8_messageLog.diag"));
  log_.writeToLogFile("m");
  EXPECT_EQ(contentOf(newFile_), "(2023-11-14 22:13:20 +0000) m\n");
  EXPECT_EQ(contentOf(pathOf("precious")), "old\n");
  EXPECT_FALSE(fs::exists(pathOf("nothing")));
}

TEST_F(MessageLogTest, LinkInTheNewFilesPlaceIsNotFollowed) {
  fs::create_directories(directory_);
  fs::create_symlink("nothing", newFile_);
  log_.writeToLogFile("m");
  expectErrors({"writeToLogFile: Failed to create new zunreportingd log file " + newFile_,
                "writeToLogFile: Cannot write to " + directory_ + ": File exists"});
  EXPECT_FALSE(fs::exists(pathOf("nothing")));
}

TEST_F(MessageLogTest, FileWithoutADateIsKeptAndGivesWayToOneWithADate) {
  const std::string undated = addFile("zunreportingd_1_messageLog.diag", 60);
  platform_.files.setCreationDate(undated, std::nullopt);
  log_.writeToLogFile("one");
  EXPECT_EQ(contentOf(undated), "old\n(2023-11-14 22:13:20 +0000) one\n");
  const std::string dated = addFile("zunreportingd_2_messageLog.diag", 86400);
  changeFolder();
  log_.writeToLogFile("two");
  EXPECT_EQ(contentOf(dated), "old\n(2023-11-14 22:13:20 +0000) two\n");
  EXPECT_FALSE(fs::exists(undated));
  expectDefaultLine("writeToLogFile: Deleted expired zunreportingd log file " + undated + " ((null))");
}

TEST_F(MessageLogTest, FileWithoutADateIsDeletedWhereThereIsOneWithADate) {
  const std::string dated = addFile("zunreportingd_1_messageLog.diag", 86400);
  const std::string undated = addFile("zunreportingd_2_messageLog.diag", 60);
  platform_.files.setCreationDate(undated, std::nullopt);
  log_.writeToLogFile("m");
  EXPECT_EQ(contentOf(dated), "old\n(2023-11-14 22:13:20 +0000) m\n");
  EXPECT_FALSE(fs::exists(undated));
}

// Somebody cleans the folder up between the look at it and the writing.
TEST_F(MessageLogTest, FileThatVanishesIsMadeAgainAndTheMessageKept) {
  const std::string file = addFile("zunreportingd_1_messageLog.diag", 60);
  platform_.files.beforeAttributes = [&file](const std::string& path) {
    if (path == file) fs::remove(path);
  };
  log_.writeToLogFile("m");
  EXPECT_EQ(contentOf(file), "(2023-11-14 22:13:20 +0000) m\n");
}

TEST_F(MessageLogTest, CreationTimeInTheNameIsCutToThirtyTwoBits) {
  platform_.clock.setTimeOfDay({(int64_t{1} << 32) + 5, 900'000});
  log_.writeToLogFile("m");
  EXPECT_TRUE(fs::exists(pathOf("zunreportingd_5_messageLog.diag")));
}

TEST_F(MessageLogTest, FolderThatCannotBeMadeIsAnErrorLineAndNothingElse) {
  fs::create_directories(fs::path(directory_).parent_path());
  std::ofstream(directory_) << "a file in the way";
  log_.writeToLogFile("m");
  expectErrors({"writeToLogFile: Error reading from log directory: Not a directory",
                "writeToLogFile: Failed to create new zunreportingd log file " + newFile_,
                "writeToLogFile: Cannot write to " + directory_ + ": Not a directory"});
  EXPECT_EQ(contentOf(directory_), "a file in the way");
}

// Each event brings several messages.
TEST_F(MessageLogTest, ReasonOfALossIsToldOnceUntilAMessageIsWrittenOrItIsAnother) {
  const fs::path parent = fs::path(directory_).parent_path();
  const std::string reason = "writeToLogFile: Cannot write to " + directory_ + ": ";
  const std::vector<std::string> given{"writeToLogFile: Failed to create new zunreportingd log file " +
                                       newFile_};
  fs::create_directories(parent.parent_path());
  std::ofstream(parent) << "a file in the way";
  log_.writeToLogFile("m");
  EXPECT_EQ(platform_.log.takeErrors().back(), reason + "Not a directory");
  log_.writeToLogFile("m");
  EXPECT_EQ(platform_.log.takeErrors().back(), given.back());
  fs::remove(parent);
  fs::create_symlink("nothing", parent);
  log_.writeToLogFile("m");
  expectErrors({given[0], reason + "No such file or directory"});
  fs::remove(parent);
  log_.writeToLogFile("m");
  EXPECT_EQ(contentOf(newFile_), "(2023-11-14 22:13:20 +0000) m\n");
  fs::remove_all(parent);
  fs::create_symlink("nothing", parent);
  log_.writeToLogFile("m");
  expectErrors({given[0], reason + "No such file or directory"});
}

TEST_F(MessageLogTest, FileThatCannotBeWrittenIsAnErrorLineAndKept) {
  const std::string file = addFile("zunreportingd_5_messageLog.diag", 60);
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit whole{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &whole), 0);
  const rlimit none{0, whole.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &none), 0);
  log_.writeToLogFile("m");
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &whole), 0);
  expectErrors({"writeToLogFile: Cannot write to " + file + ": File too large"});
  EXPECT_EQ(platform_.log.count(LogLevel::kDebug, "writeToLogFile: Saved log message to " + file), 0);
  EXPECT_EQ(contentOf(file), "old\n");
}

TEST_F(MessageLogTest, EntriesOfManyThreadsAreWhole) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([this] {
      for (int i = 0; i < 25; ++i) log_.writeToLogFile(std::string(300, 'x'));
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::ifstream file(newFile_);
  int lines = 0;
  for (std::string line; std::getline(file, line); ++lines) {
    EXPECT_EQ(line, "(2023-11-14 22:13:20 +0000) " + std::string(300, 'x'));
  }
  EXPECT_EQ(lines, 100);
}

TEST_F(MessageLogTest, MessageIsWrittenAsItIs) {
  const std::string message = "{} %@ %s \xff ünï " + std::string(1 << 20, 'm');
  log_.writeToLogFile(message);
  EXPECT_EQ(contentOf(newFile_), "(2023-11-14 22:13:20 +0000) " + message + "\n");
}

}  // namespace
}  // namespace zun
