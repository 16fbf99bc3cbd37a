#include "storebag/StorebagDiskCache.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <mutex>
#include <utility>

#include "StorebagFixture.h"

namespace {

/// What this process has had written to the disk since the last look.
class SyncedItems final {
 public:
  static void reset() { take(); }
  static std::vector<std::string> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(items_, {});
  }
  static void add(const struct stat& status) {
    const std::lock_guard lock(mutex_);
    items_.push_back(S_ISDIR(status.st_mode) ? "folder" : fmt::format("file of {} bytes", status.st_size));
  }

 private:
  static inline std::mutex mutex_;
  static inline std::vector<std::string> items_;
};

}  // namespace

// In the place of the C library's.
extern "C" int fsync(int descriptor) {
  struct stat status {};
  if (::fstat(descriptor, &status) == 0) SyncedItems::add(status);
  return static_cast<int>(::syscall(SYS_fsync, descriptor));
}

namespace zun {
namespace {

namespace fs = std::filesystem;

class StorebagDiskCacheTest : public StorebagTest {
 protected:
  using Headers = std::vector<std::pair<std::string, std::string>>;

  void saveMetrics(const Headers& headers) {
    URLResponse response;
    response.statusCode = 200;
    response.headers = headers;
    cache_.saveLastLoadedStorebagMetricsWithName("confero", cache_.stageMetrics("confero", response));
  }
  int64_t storedMaxAgeFor(const std::string& cacheControl) {
    saveMetrics({{"Cache-Control", cacheControl}});
    return getDefault("CACHED_confero_max-age").intValue();
  }

  StorebagDiskCache cache_{platform_.services, identity_};
};

TEST_F(StorebagDiskCacheTest, WhatWasSavedIsLoadedByteForByte) {
  const std::string bytes("any\0bytes\xff", 10);
  EXPECT_TRUE(cache_.saveStorebagToDisk("tessel", cache_.stageEnvelope("tessel", bytes)));
  EXPECT_EQ(cache_.loadStorebagFromDisk("tessel"), bytes);
  EXPECT_EQ(cached("tessel"), bytes);
}

TEST_F(StorebagDiskCacheTest, FilesStandUnderTheirNamesInTheCachesFolder) {
  EXPECT_EQ(cache_.fileLocation("confero"),
            platform_.scratch.path() + "/home/tester/Library/Caches/zunreportingd/storebags/confero");
  EXPECT_TRUE(fs::is_directory(cacheFolder()));
}

TEST_F(StorebagDiskCacheTest, MissingFileIsAnErrorLine) {
  EXPECT_EQ(cache_.loadStorebagFromDisk("confero"), std::nullopt);
  expectErrors({notLoaded("confero")});
}

TEST_F(StorebagDiskCacheTest, FolderInTheFilesPlaceIsAnErrorLine) {
  fs::create_directories(cachePath("confero"));
  EXPECT_EQ(cache_.loadStorebagFromDisk("confero"), std::nullopt);
  expectErrors({notLoaded("confero", "Is a directory")});
  EXPECT_EQ(cache_.modificationDateOfStorebagFile("confero"), std::nullopt);
}

TEST_F(StorebagDiskCacheTest, OversizedFileIsAnErrorLine) {
  putInCache("confero", "x");
  fs::resize_file(cachePath("confero"), StorebagDiskCache::kMaximumBytes + 1);  // sparse
  EXPECT_EQ(cache_.loadStorebagFromDisk("confero"), std::nullopt);
  expectErrors({notLoaded("confero", "File too large")});
}

TEST_F(StorebagDiskCacheTest, FolderThatCannotBeWrittenIsAnErrorLine) {
  fs::create_directories(fs::path(cacheFolder()).parent_path());
  std::ofstream(cacheFolder()) << "a file in the way";
  EXPECT_FALSE(cache_.saveStorebagToDisk("confero", cache_.stageEnvelope("confero", "bytes")));
  expectErrors({"saveStorebagToDisk: could not save storebag 'confero' to file '" +
                fileURLOfPath(cachePath("confero")) + "'. Error is 'Not a directory'"});
}

// That the file's folder is missing is no reason.
TEST_F(StorebagDiskCacheTest, FolderThatCannotBeMadeIsToldWithItsReason) {
  const fs::path caches = fs::path(cacheFolder()).parent_path().parent_path();
  fs::create_directories(caches);
  fs::permissions(platform_.scratch.path(), fs::perms(0755));
  fs::permissions(caches, fs::perms(0555));
  const uid_t user = ::geteuid();
  ASSERT_EQ(user == 0 ? ::seteuid(65534) : 0, 0);  // whom permissions bind
  EXPECT_FALSE(cache_.saveStorebagToDisk("confero", cache_.stageEnvelope("confero", "bytes")));
  ASSERT_EQ(user == 0 ? ::seteuid(0) : 0, 0);
  fs::permissions(caches, fs::perms(0755));
  expectErrors(
      {"saveStorebagToDisk: could not save storebag 'confero' to file '" +
           fileURLOfPath(cachePath("confero")) + "'. Error is 'No such file or directory'",
       "saveStorebagToDisk: could not make folder '" + cacheFolder() + "'. Error is 'Permission denied'"});
}

TEST_F(StorebagDiskCacheTest, ModificationDateIsTheFilesAndNoneWithoutOne) {
  EXPECT_EQ(cache_.modificationDateOfStorebagFile("confero"), std::nullopt);
  putInCache("confero", "x", 12.5);
  EXPECT_EQ(cache_.modificationDateOfStorebagFile("confero"), (Date{1'700'000'000 - 12.5}));
}

TEST_F(StorebagDiskCacheTest, MaxAgeIsThePartAfterMaxAge) {
  EXPECT_EQ(storedMaxAgeFor("max-age=600, public"), 600);
  EXPECT_EQ(storedMaxAgeFor("public, max-age=60"), 60);
  EXPECT_EQ(storedMaxAgeFor("max-age 5"), 5);
  EXPECT_EQ(storedMaxAgeFor("max-age=0"), 0);
  EXPECT_EQ(storedMaxAgeFor("max-age=-5"), -5);
  EXPECT_EQ(storedMaxAgeFor("max-age=60 max-age=7"), 60);
}

TEST_F(StorebagDiskCacheTest, PartThatIsNoNumberCountsAsZero) {
  EXPECT_EQ(storedMaxAgeFor("max-age=soon"), 0);
  EXPECT_EQ(storedMaxAgeFor("max-age="), 0);
  EXPECT_EQ(storedMaxAgeFor("max-age =600"), 0);  // the part between the blank and the "="
}

TEST_F(StorebagDiskCacheTest, WithoutAPartMaxAgeADayIsStored) {
  for (const std::string header :
       {"no-cache", "", "max-age", "public,max-age=600", "Max-Age=600", "s-maxage=9"}) {
    EXPECT_EQ(storedMaxAgeFor(header), 86400) << header;
  }
  saveMetrics({});
  EXPECT_EQ(getDefault("CACHED_confero_max-age"), Value(86400));
}

TEST_F(StorebagDiskCacheTest, MaxAgeBeyondThirtyTwoBitsIsTheNearestThatTheyHold) {
  EXPECT_EQ(storedMaxAgeFor("max-age=2147483647"), INT32_MAX);
  EXPECT_EQ(storedMaxAgeFor("max-age=2147483648"), INT32_MAX);
  EXPECT_EQ(storedMaxAgeFor("max-age=4294967297"), INT32_MAX);
  EXPECT_EQ(storedMaxAgeFor("max-age=99999999999999999999"), INT32_MAX);
  EXPECT_EQ(storedMaxAgeFor("max-age=-4294967297"), INT32_MIN);
}

TEST_F(StorebagDiskCacheTest, SeveralCacheControlLinesAreOneList) {
  saveMetrics({{"Cache-Control", "public"}, {"ETag", "x"}, {"cache-control", "max-age=60"}});
  EXPECT_EQ(getDefault("CACHED_confero_max-age"), Value(60));
  saveMetrics({{"Cache-Control", "max-age=7"}, {"Cache-Control", "max-age=60"}});
  EXPECT_EQ(getDefault("CACHED_confero_max-age"), Value(7));
}

TEST_F(StorebagDiskCacheTest, MetricsAreSeenTogetherAndOnceTheyAreSaved) {
  saveMetrics({{"Cache-Control", "max-age=1"}, {"Last-Modified", "former"}});
  URLResponse response;
  response.headers = {{"Cache-Control", "max-age=2"}, {"Last-Modified", "latter"}};
  const auto staged = cache_.stageMetrics("confero", response);
  EXPECT_EQ(getDefault("CACHED_confero_max-age"), Value(1));
  EXPECT_EQ(getDefault("CACHED_confero_Last-Modified"), Value("former"));
  cache_.saveLastLoadedStorebagMetricsWithName("confero", staged);
  EXPECT_EQ(getDefault("CACHED_confero_max-age"), Value(2));
  EXPECT_EQ(getDefault("CACHED_confero_Last-Modified"), Value("latter"));
}

TEST_F(StorebagDiskCacheTest, EnvelopeThatIsNotSavedLeavesNothingBehind) {
  putInCache("confero", "former");
  { const auto staged = cache_.stageEnvelope("confero", "latter"); }
  EXPECT_EQ(cached("confero"), "former");
  EXPECT_EQ(std::distance(fs::directory_iterator(cacheFolder()), fs::directory_iterator()), 1);
}

// A power cut may leave neither an empty file nor the former one beside the new metrics.
TEST_F(StorebagDiskCacheTest, SavedEnvelopeIsSyncedWithItsFolder) {
  static_cast<void>(cache_.fileLocation("confero"));
  SyncedItems::reset();
  {
    const auto staged = cache_.stageEnvelope("confero", "bytes");
    EXPECT_EQ(SyncedItems::take(), (std::vector<std::string>{"file of 5 bytes"}));
    EXPECT_TRUE(cache_.saveStorebagToDisk("confero", staged));
    EXPECT_EQ(SyncedItems::take(), std::vector<std::string>());  // nobody waits at that moment
  }
  EXPECT_EQ(SyncedItems::take(), (std::vector<std::string>{"folder"}));
}

// A date cut below the time of a note would hide the file behind it.
TEST_F(StorebagDiskCacheTest, WhereDatesHaveWholeSecondsTheNextOneIsTaken) {
  platform_.files.keepsWholeSeconds = true;
  const double second = platform_.clock.now().secondsSince1970;
  EXPECT_TRUE(cache_.saveStorebagToDisk("confero", cache_.stageEnvelope("confero", "bytes")));
  EXPECT_EQ(cache_.modificationDateOfStorebagFile("confero"), (Date{second}));
  cache_.dateStorebagFileLater("confero");
  EXPECT_EQ(cache_.modificationDateOfStorebagFile("confero"), (Date{second + 1}));

  platform_.clock.advance(std::chrono::microseconds(123456));
  EXPECT_TRUE(cache_.saveStorebagToDisk("tessel", cache_.stageEnvelope("tessel", "bytes")));
  EXPECT_EQ(cache_.modificationDateOfStorebagFile("tessel"), (Date{second + 1}));
}

// The dates' arithmetic takes no microsecond for less than it is.
TEST_F(StorebagDiskCacheTest, WhereDatesHaveMicrosecondsEachIsKept) {
  for (int step = 0; step < 1000; ++step) {
    platform_.clock.advance(std::chrono::microseconds(1009));
    const double now = platform_.clock.now().secondsSince1970;
    putInCache("confero", "bytes");
    cache_.dateStorebagFileLater("confero");
    EXPECT_NEAR(cache_.modificationDateOfStorebagFile("confero")->secondsSince1970, now + 1e-6, 4e-7);
    EXPECT_GT(cache_.modificationDateOfStorebagFile("confero"), (Date{now}));
  }
}

TEST_F(StorebagDiskCacheTest, LastModifiedIsStoredAsItCame) {
  saveMetrics({{"last-modified", "any text; as it came"}, {"Cache-Control", "max-age=3"}});
  EXPECT_EQ(getDefault("CACHED_confero_Last-Modified"), Value("any text; as it came"));
  expectDebugLine(
      "saveLastLoadedStorebagMetricsWithName: New storebag 'confero' received: maxAge 3, Last-Modified 'any "
      "text; as it came'");
}

TEST_F(StorebagDiskCacheTest, ResponseWithoutLastModifiedRemovesTheStoredOne) {
  saveMetrics({{"Last-Modified", "earlier"}});
  saveMetrics({});
  EXPECT_TRUE(getDefault("CACHED_confero_Last-Modified").isNone());
  expectDebugLine(
      "saveLastLoadedStorebagMetricsWithName: New storebag 'confero' received: maxAge 86400, Last-Modified "
      "'(null)'");
}

TEST_F(StorebagDiskCacheTest, MetricsOfOneNameAreNotAnothers) {
  saveMetrics({{"Cache-Control", "max-age=3"}});
  uint32_t maxAge = 9;
  cache_.getLastLoadedStorebagMetricsWithName("tessel", &maxAge, nullptr, nullptr);
  EXPECT_EQ(maxAge, 0U);
  expectDebugLine("getLastLoadedStorebagMetricsWithName: maxAge is 0 for storebag tessel");
}

TEST_F(StorebagDiskCacheTest, StoredLastModifiedReplacesAnotherOne) {
  saveMetrics({{"Last-Modified", "new"}, {"Cache-Control", "max-age=3"}});
  uint32_t maxAge = 0;
  bool unchanged = false;
  std::optional<std::string> lastModified = "old";
  cache_.getLastLoadedStorebagMetricsWithName("confero", &maxAge, &unchanged, &lastModified);
  EXPECT_EQ(maxAge, 3U);
  EXPECT_FALSE(unchanged);
  EXPECT_EQ(lastModified, "new");
  expectDebugLine("getLastLoadedStorebagMetricsWithName: maxAge is 3 for storebag confero");
  expectDebugLine(
      "getLastLoadedStorebagMetricsWithName: 'Last-Modified' has changed to 'new' for storebag 'confero'");
}

TEST_F(StorebagDiskCacheTest, EqualLastModifiedMeansUnchanged) {
  saveMetrics({{"Last-Modified", "same"}});
  bool unchanged = false;
  std::optional<std::string> lastModified = "same";
  cache_.getLastLoadedStorebagMetricsWithName("confero", nullptr, &unchanged, &lastModified);
  EXPECT_TRUE(unchanged);
  expectDebugLine(
      "getLastLoadedStorebagMetricsWithName: 'Last-Modified' has not changed for storebag 'confero': 'same'");
  cache_.getLastLoadedStorebagMetricsWithName("confero", nullptr, nullptr, &lastModified);
}

TEST_F(StorebagDiskCacheTest, WithoutAStoredLastModifiedTheGivenOneStays) {
  bool unchanged = false;
  std::optional<std::string> lastModified = "given";
  cache_.getLastLoadedStorebagMetricsWithName("confero", nullptr, &unchanged, &lastModified);
  EXPECT_FALSE(unchanged);
  EXPECT_EQ(lastModified, "given");
}

TEST_F(StorebagDiskCacheTest, StoredValuesOfAnyTypeAreRead) {
  setDefault("CACHED_confero_max-age", "77 seconds");
  setDefault("CACHED_confero_Last-Modified", Array{"list"});
  uint32_t maxAge = 0;
  std::optional<std::string> lastModified;
  cache_.getLastLoadedStorebagMetricsWithName("confero", &maxAge, nullptr, &lastModified);
  EXPECT_EQ(maxAge, 77U);
  EXPECT_EQ(lastModified, std::nullopt);
}

TEST_F(StorebagDiskCacheTest, InternalBuildsTakeTheProtectionOffBeforeEveryLoad) {
  platform_.device.set("ReleaseType", "Internal");
  putInCache("confero", "bytes");
  const fs::path daemonFolder = fs::path(cacheFolder()).parent_path();
  fs::permissions(cachePath("confero"), fs::perms(0040));
  fs::permissions(cacheFolder(), fs::perms(0500));
  fs::permissions(daemonFolder, fs::perms(0500));
  EXPECT_EQ(cache_.loadStorebagFromDisk("confero"), "bytes");
  EXPECT_EQ(fs::status(cachePath("confero")).permissions(), fs::perms(0640));
  EXPECT_EQ(fs::status(cacheFolder()).permissions(), fs::perms(0700));
  EXPECT_EQ(fs::status(daemonFolder).permissions(), fs::perms(0700));
}

TEST_F(StorebagDiskCacheTest, OrdinaryBuildsLeavePermissionsAlone) {
  putInCache("confero", "bytes");
  fs::permissions(cachePath("confero"), fs::perms(0440));
  EXPECT_EQ(cache_.loadStorebagFromDisk("confero"), "bytes");
  EXPECT_EQ(fs::status(cachePath("confero")).permissions(), fs::perms(0440));
}

TEST_F(StorebagDiskCacheTest, ProtectionThatCannotBeTakenOffIsAnErrorLine) {
  platform_.device.set("ReleaseType", "Internal");
  EXPECT_EQ(cache_.loadStorebagFromDisk("confero"), std::nullopt);
  expectErrors(
      {"setStorageClassProtectionLevel: could not set attribute {protectionClass = \"none\"} to file '" +
           cachePath("confero") + "'. Error is 'No such file or directory'",
       notLoaded("confero")});
}

}  // namespace
}  // namespace zun
