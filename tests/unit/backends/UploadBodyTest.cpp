#include "backends/UploadBody.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>

#include "linux/files/FileExtensions.h"
#include "support/Gzip.h"
#include "support/TestPlatform.h"

namespace zun {
namespace {

/// A file that somebody changes while it is read.
class RestlessFile final : public SandboxExtension {
 public:
  using Read = std::function<Result<size_t, Error>(uint64_t offset, std::span<char> buffer)>;
  RestlessFile(uint64_t size, Read read) : size_(size), read_(std::move(read)) {}

  bool isRegularFile() const override { return true; }
  uint64_t size() const override { return size_; }
  Result<size_t, Error> read(uint64_t offset, std::span<char> buffer) const override {
    return read_(offset, buffer);
  }
  std::optional<Error> removeFile() override { return std::nullopt; }

 private:
  const uint64_t size_;
  const Read read_;
};

class UploadBodyTest : public PlatformTest {
 protected:
  static constexpr size_t kBudget = size_t{4} << 20;

  std::unique_ptr<SandboxExtension> open(const std::string& path) {
    FileExtensions extensions(FileSystemIdentity::ofProcess());
    auto token = extensions.issue(FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC)));
    auto file = extensions.consume(*token, path);
    EXPECT_TRUE(file) << file.error().description;
    return std::move(*file);
  }
  std::string write(const std::string& bytes) {
    const std::string path = platform_.scratch.path("file");
    std::ofstream(path) << bytes;
    return path;
  }
  static std::string noise(size_t length) {
    std::mt19937 generator(1);
    std::string bytes(length, '\0');
    for (char& byte : bytes) byte = static_cast<char>(generator());
    return bytes;
  }
  std::shared_ptr<const std::string> compress(const SandboxExtension& file,
                                              size_t maximumBytes = kMaximumUploadBytes) {
    return compressedContents(file, {.memory = budget_, .maximumBytes = maximumBytes}, platform_.log);
  }

  const std::shared_ptr<MemoryBudget> budget_ = std::make_shared<MemoryBudget>(kBudget);
};

TEST_F(UploadBodyTest, ContentsComeBackWhenInflated) {
  for (const std::string& contents : {std::string("x"), noise(300'000), std::string(200'000, '\0')}) {
    const auto file = open(write(contents));
    const auto body = compress(*file);
    ASSERT_NE(body, nullptr);
    EXPECT_EQ(inflatedGzip(*body), contents);
  }
}

TEST_F(UploadBodyTest, OnlyCompressedBytesAreKeptAndTheyCountForAsLongAsTheyAreHeld) {
  const auto file = open(write(noise(100'000)));
  auto body = compress(*file);
  ASSERT_NE(body, nullptr);
  EXPECT_EQ(budget_->left(), kBudget - body->size());
  auto second = body;
  body.reset();
  EXPECT_EQ(budget_->left(), kBudget - second->size());
  second.reset();
  EXPECT_EQ(budget_->left(), kBudget);
}

// 256 MiB of nothing take a quarter of a MiB.
TEST_F(UploadBodyTest, LargeFileIsReadWithinABoundedPartOfTheBudget) {
  const std::string path = write("");
  std::filesystem::resize_file(path, size_t{256} << 20);
  const auto body = compress(*open(path));
  ASSERT_NE(body, nullptr);
  EXPECT_LT(body->capacity(), size_t{1} << 20);
  size_t length = 0;
  inflateGzip(*body, [&length](std::string_view piece) {
    length += piece.size();
    EXPECT_EQ(piece.find_first_not_of('\0'), std::string_view::npos);
  });
  EXPECT_EQ(length, size_t{256} << 20);
}

TEST_F(UploadBodyTest, EmptyFileIsAnErrorLine) {
  EXPECT_EQ(compress(*open(write(""))), nullptr);
  expectErrors({"UploadBackend(uploadFileAtPath): Input file is empty"});
  EXPECT_EQ(budget_->left(), kBudget);
}

TEST_F(UploadBodyTest, FileBeyondTheLimitIsAnErrorLine) {
  const auto file = open(write(noise(100'000)));
  const auto exact = compress(*file);
  ASSERT_NE(exact, nullptr);
  EXPECT_NE(compress(*file, exact->size()), nullptr);
  EXPECT_EQ(compress(*file, exact->size() - 1), nullptr);
  expectErrors(
      {fmt::format("UploadBackend(uploadFileAtPath): The file takes more than {} bytes when compressed",
                   exact->size() - 1)});
  EXPECT_EQ(budget_->left(), kBudget - exact->size());
}

TEST_F(UploadBodyTest, FileBeyondWhatOtherUploadsLeaveIsAnErrorLine) {
  const auto file = open(write(noise(1'000'000)));
  ASSERT_TRUE(budget_->take(kBudget - kUploadWorkingBytes - 500'000));
  EXPECT_EQ(compress(*file), nullptr);
  ASSERT_TRUE(budget_->take(500'001));  // not even what reading takes
  EXPECT_EQ(compress(*file), nullptr);
  const std::string line = "UploadBackend(uploadFileAtPath): Uploads under way leave no memory for this file";
  expectErrors({line, line});
  EXPECT_EQ(budget_->left(), kUploadWorkingBytes - 1);
}

// A sparse one takes nothing of a disk, and would keep a core busy for days.
TEST_F(UploadBodyTest, FileBeyondTheInputBoundIsAnErrorLineAndIsNotRead) {
  size_t reads = 0;
  const auto fileOf = [&reads](uint64_t size) {
    return RestlessFile(size, [&reads](uint64_t, std::span<char>) {
      ++reads;
      return Result<size_t, Error>(size_t{0});
    });
  };
  EXPECT_EQ(compress(fileOf(kMaximumUploadInputBytes + 1)), nullptr);
  expectErrors({"UploadBackend(uploadFileAtPath): The file has more than 17179869184 bytes"});
  EXPECT_EQ(reads, 0U);
  EXPECT_EQ(compress(fileOf(kMaximumUploadInputBytes)), nullptr);
  expectErrors({"UploadBackend(uploadFileAtPath): Input file is empty"});
  EXPECT_EQ(reads, 1U);
}

TEST_F(UploadBodyTest, FileThatNobodyWaitsForAnyMoreIsNotReadOn) {
  size_t reads = 0;
  const RestlessFile file(10'000'000, [&reads](uint64_t, std::span<char> buffer) {
    ++reads;
    std::memset(buffer.data(), 'w', buffer.size());
    return Result<size_t, Error>(buffer.size());
  });
  const auto isWanted = [&reads] { return reads < 3; };
  EXPECT_EQ(compressedContents(file, {.memory = budget_, .isWanted = isWanted}, platform_.log), nullptr);
  EXPECT_EQ(reads, 3U);
  expectDefaultLine("UploadBackend(uploadFileAtPath): Nobody waits for the file any more");
  EXPECT_EQ(budget_->left(), kBudget);
}

TEST_F(UploadBodyTest, FileIsHeldToTheShareOfItsHolder) {
  const BudgetHolder holder{1000, 1};
  const auto compressFor = [&](size_t length) {
    return compressedContents(*open(write(noise(length))), {.memory = budget_, .holder = holder},
                              platform_.log);
  };
  const auto body = compressFor(kBudget / 4 - kUploadWorkingBytes - 10'000);
  EXPECT_NE(body, nullptr);
  EXPECT_EQ(compressFor(20'000), nullptr);  // what the first keeps counts
  expectErrors({"UploadBackend(uploadFileAtPath): Uploads under way leave no memory for this file"});
  const auto ofAnother = compressedContents(*open(write(noise(20'000))),
                                            {.memory = budget_, .holder = {1001, 1}}, platform_.log);
  EXPECT_NE(ofAnother, nullptr);
}

TEST_F(UploadBodyTest, FileThatGrowsIsReadToWhereItsEndWas) {
  const RestlessFile file(300'000, [](uint64_t, std::span<char> buffer) {
    std::memset(buffer.data(), 'g', buffer.size());
    return Result<size_t, Error>(buffer.size());
  });
  const auto body = compress(file);
  ASSERT_NE(body, nullptr);
  EXPECT_EQ(inflatedGzip(*body), std::string(300'000, 'g'));
}

TEST_F(UploadBodyTest, FileThatShrinksIsReadToWhereItsEndIs) {
  const RestlessFile file(uint64_t{1} << 33, [](uint64_t offset, std::span<char> buffer) {
    const size_t count = offset >= 10 ? 0 : std::min<size_t>(10 - offset, std::min<size_t>(buffer.size(), 3));
    std::memset(buffer.data(), 's', count);
    return Result<size_t, Error>(count);
  });
  const auto body = compress(file);
  ASSERT_NE(body, nullptr);
  EXPECT_EQ(inflatedGzip(*body), std::string(10, 's'));
}

TEST_F(UploadBodyTest, FileThatIsEmptiedIsEmpty) {
  EXPECT_EQ(
      compress(RestlessFile(10, [](uint64_t, std::span<char>) { return Result<size_t, Error>(size_t{0}); })),
      nullptr);
  expectErrors({"UploadBackend(uploadFileAtPath): Input file is empty"});
}

TEST_F(UploadBodyTest, FileThatCannotBeReadIsAnErrorLine) {
  const RestlessFile file(10, [](uint64_t, std::span<char>) {
    return Result<size_t, Error>::failure({kPOSIXErrorDomain, EIO, "Input/output error"});
  });
  EXPECT_EQ(compress(file), nullptr);
  expectErrors({"UploadBackend(uploadFileAtPath): Cannot read the file: Input/output error"});
}

}  // namespace
}  // namespace zun
