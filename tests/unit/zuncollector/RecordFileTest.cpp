#include "zuncollector/RecordFile.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <fstream>
#include <sstream>

#include "support/ScratchFolder.h"

namespace zun {
namespace {

/// Lets files of this process grow to `bytes`, then fails their writes.
class FileSizeLimit final {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit{bytes, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, handler_);
  }

 private:
  rlimit before_{};
  void (*handler_)(int);
};

class RecordFileTest : public ::testing::Test {
 protected:
  [[nodiscard]] std::string content() const {
    std::ostringstream text;
    text << std::ifstream(path_, std::ios::binary).rdbuf();
    return text.str();
  }

  ScratchFolder scratch_;
  const std::string path_ = scratch_.path("records");
};

TEST_F(RecordFileTest, LinesAreAppendedToWhatIsThere) {
  std::ofstream(path_) << "before\n";
  RecordFile file(path_);
  EXPECT_TRUE(file.isOpen());
  EXPECT_EQ(file.append("one\n"), "");
  EXPECT_EQ(file.append("two\nthree\n"), "");
  EXPECT_EQ(content(), "before\none\ntwo\nthree\n");
}

TEST_F(RecordFileTest, NoPathKeepsNothing) {
  RecordFile file("");
  EXPECT_TRUE(file.isOpen());
  EXPECT_EQ(file.append("one\n"), "");
}

TEST_F(RecordFileTest, AFolderThatIsMissingIsNotOpen) {
  EXPECT_FALSE(RecordFile(scratch_.path("missing/records")).isOpen());
}

TEST_F(RecordFileTest, WhatAFullDiskCutsIsTakenBack) {
  RecordFile file(path_);
  ASSERT_EQ(file.append("one\n"), "");
  {
    const FileSizeLimit limit(10);
    EXPECT_EQ(file.append("a second line\n"), "cannot write to " + path_ + ": File too large");
  }
  EXPECT_EQ(content(), "one\n");
  EXPECT_EQ(file.append("three\n"), "");
  EXPECT_EQ(content(), "one\nthree\n");
}

// Somebody else's lines must not be cut off with ours.
TEST_F(RecordFileTest, WhatAnotherHasWrittenSinceStays) {
  RecordFile file(path_);
  RecordFile other(path_);
  ASSERT_EQ(file.append("one\n"), "");
  ASSERT_EQ(other.append("other\n"), "");
  {
    const FileSizeLimit limit(12);
    EXPECT_NE(file.append("second\n"), "");
  }
  EXPECT_EQ(file.append("third\n"), "");
  EXPECT_EQ(content(), "one\nother\nthird\n");
}

TEST_F(RecordFileTest, ALineThatWasCutBeforeGetsItsEnd) {
  std::ofstream(path_) << "whole\n{\"cut\":";
  RecordFile file(path_);
  EXPECT_EQ(file.append("one\n"), "");
  EXPECT_EQ(file.append("two\n"), "");
  EXPECT_EQ(content(), "whole\n{\"cut\":\none\ntwo\n");
}

TEST_F(RecordFileTest, ADeviceWithoutRoomIsAnError) {
  RecordFile file("/dev/full");
  ASSERT_TRUE(file.isOpen());
  EXPECT_EQ(file.append("one\n"), "cannot write to /dev/full: No space left on device");
}

}  // namespace
}  // namespace zun
