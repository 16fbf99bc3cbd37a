// What a signature does not say: which storebag it is, and how old.

#include <sys/resource.h>

#include "NetworkStorebagFetcherFixture.h"
#include "storebag/AcceptedSerials.h"
#include "storebag/StorebagVerifier.h"

using namespace std::chrono_literals;

namespace zun {
namespace {

constexpr const char* kSerialKey = "CACHED_confero_serial";

std::string lowerSerial(const std::string& name, int64_t serial, int64_t accepted) {
  return fmt::format("fetchStorebagWithName: storebag '{}' has serial {}, but {} was accepted before", name,
                     serial, accepted);
}

std::string withoutSerial(const std::string& name, int64_t accepted) {
  return fmt::format("fetchStorebagWithName: storebag '{}' has no serial, but {} was accepted before", name,
                     accepted);
}

std::string strangeSerial(const std::string& name) {
  return fmt::format("fetchStorebagWithName: the serial of storebag '{}' is no integer", name);
}

std::string otherName(const std::string& name, const std::string& signedFor) {
  return fmt::format("fetchStorebagWithName: storebag '{}' was signed as '{}'", name, signedFor);
}

/// No file can be opened meanwhile.
class NoDescriptors final {
 public:
  NoDescriptors() {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit none{0, before_.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
  }
  ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  rlimit before_{};
};

class StorebagSerialTest : public NetworkStorebagFetcherTest {
 protected:
  static Dictionary storebagWith(const std::string& version, const char* key, Value value) {
    Dictionary made = storebag(version);
    made.set(key, std::move(value));
    return made;
  }
  static Dictionary withSerial(int64_t serial) {
    return storebagWith(std::to_string(serial), "serial", serial);
  }

  /// Has the server answer with `bag`, refreshes the file on disk, and waits for the end.
  void refreshWith(const Dictionary& bag, const std::string& name = "confero", int32_t type = kConfero) {
    setAge(name, 100'000);
    server_.answer("/" + name, answerWith(bag));
    const int ended = countEndedRequests();
    EXPECT_TRUE(fetch(type).section);  // the file that was there
    waitForEndOfRequests(ended + 1);
  }

  /// As after a start of the daemon: nothing is known but what is on disk.
  void restart() {
    fetcher_.reset();
    fetcher_ = NetworkStorebagFetcher::create(platform_.services, identity_, {.requestTimeout = 2s});
  }
};

TEST_F(StorebagSerialTest, StorebagOfAnotherNameIsRefusedAndTheGoodFileStays) {
  const std::string good = sealed(storebagWith("1.0", "name", "confero"));
  putInCache("confero", good);
  refreshWith(storebagWith("2.0", "name", "tessel"));
  expectErrors({otherName("confero", "tessel")});
  refreshWith(storebagWith("2.0", "name", 7));
  expectErrors({otherName("confero", "7")});
  EXPECT_EQ(cached("confero"), good);
}

TEST_F(StorebagSerialTest, FirstStorebagOfAnotherNameIsNeitherSavedNorGivenOut) {
  server_.answer("/tessel", answerWith(storebagWith("1.0", "name", "confero")));
  EXPECT_FALSE(fetch(kTessel).section);
  expectErrors({notLoaded("tessel"), otherName("tessel", "confero"), otherName("tessel", "confero"),
                notFetched(kTessel)});
  EXPECT_EQ(cached("tessel"), "");
}

TEST_F(StorebagSerialTest, StorebagsWithoutNameAndSerialAreTakenAsEver) {
  putInCache("confero", sealed(storebagWith("1.0", "name", "confero")));
  refreshWith(storebag("2.0"));
  refreshWith(storebag("1.0"));
  EXPECT_EQ(cached("confero"), sealed(storebag("1.0")));
  EXPECT_TRUE(getDefault(kSerialKey).isNone());
}

TEST_F(StorebagSerialTest, LowerSerialThanWasAcceptedIsRefusedAndTheGoodFileStays) {
  putInCache("confero", sealed(withSerial(5)));
  refreshWith(withSerial(7));
  EXPECT_EQ(getDefault(kSerialKey), Value(7));
  refreshWith(withSerial(6));
  expectErrors({lowerSerial("confero", 6, 7)});
  EXPECT_EQ(cached("confero"), sealed(withSerial(7)));
  restart();
  refreshWith(withSerial(6));
  expectErrors({lowerSerial("confero", 6, 7)});
  EXPECT_EQ(cached("confero"), sealed(withSerial(7)));
  EXPECT_EQ(getDefault(kSerialKey), Value(7));
}

TEST_F(StorebagSerialTest, EqualSerialIsTakenAgain) {
  putInCache("confero", sealed(withSerial(7)));
  refreshWith(storebagWith("again", "serial", 7));
  EXPECT_EQ(cached("confero"), sealed(storebagWith("again", "serial", 7)));
  restart();
  EXPECT_EQ(fetch().version, "again");
}

TEST_F(StorebagSerialTest, OnceANameHadASerialAStorebagWithoutOneIsRefused) {
  putInCache("confero", sealed(withSerial(-3)));
  refreshWith(storebag("2.0"));
  expectErrors({withoutSerial("confero", -3)});
  EXPECT_EQ(cached("confero"), sealed(withSerial(-3)));
}

TEST_F(StorebagSerialTest, SerialThatIsNoIntegerIsRefusedEvenTheFirstTime) {
  putInCache("confero", sealed(storebag("1.0")));
  for (const Value& serial :
       {Value("8"), Value(8.0), Value(true), Value(uint64_t{1} << 63), Value(Array{8})}) {
    refreshWith(storebagWith("2.0", "serial", serial));
    expectErrors({strangeSerial("confero")});
  }
  EXPECT_EQ(cached("confero"), sealed(storebag("1.0")));
  EXPECT_TRUE(getDefault(kSerialKey).isNone());
}

TEST_F(StorebagSerialTest, SerialsOfOneNameAreNotAnothers) {
  putInCache("confero", sealed(withSerial(9)));
  EXPECT_TRUE(fetch().section);
  putInCache("tessel", sealed(storebag("1.0")));
  refreshWith(withSerial(2), "tessel", kTessel);
  EXPECT_EQ(cached("tessel"), sealed(withSerial(2)));
  EXPECT_EQ(getDefault("CACHED_tessel_serial"), Value(2));
  EXPECT_EQ(getDefault(kSerialKey), Value(9));
}

// Nobody is served it, and the next refresh heals it, whatever the server remembers.
TEST_F(StorebagSerialTest, OlderFileThatWasPutBackIsRefusedAndReplaced) {
  putInCache("confero", sealed(withSerial(7)));
  EXPECT_TRUE(fetch().section);
  restart();
  putInCache("confero", sealed(withSerial(6)), 3601);
  putFreshness("confero", 3600);
  server_.handle("/confero", [](const TestRequest& request) {
    return request.header("If-Modified-Since") ? TestAnswer{.status = 304} : answerWith(withSerial(7));
  });
  EXPECT_FALSE(fetch().section);
  expectErrors({lowerSerial("confero", 6, 7), notFetched(kConfero)});
  waitForEndOfRequests(2);
  EXPECT_EQ(fetch().version, "7");
}

// As after a kill between the two: the file is kept first, so that it is never older than
// what is asked of it.
TEST_F(StorebagSerialTest, SerialOfAFileThatWasNotKeptWithItIsKeptByTheNextLookup) {
  setDefault(kSerialKey, 4);
  putInCache("confero", sealed(withSerial(5)));
  EXPECT_EQ(fetch().version, "5");
  EXPECT_EQ(getDefault(kSerialKey), Value(5));
  refreshWith(withSerial(4));
  expectErrors({lowerSerial("confero", 4, 5)});
}

TEST_F(StorebagSerialTest, SerialOfAStorebagThatCouldNotBeSavedIsNotAskedOfTheFileThatIsThere) {
  putInCache("confero", sealed(withSerial(5)), 100'000);
  TestAnswer answer = answerWith(withSerial(6));
  answer.gate = std::make_shared<TestGate>();
  server_.answer("/confero", answer);
  EXPECT_EQ(fetch().version, "5");
  std::filesystem::rename(cacheFolder(), cacheFolder() + ".moved");
  std::ofstream(cacheFolder()) << "a file in the way";
  answer.gate->open();
  waitForEndOfRequests(1);
  EXPECT_EQ(platform_.log.takeErrors().size(), 1U);  // could not save
  std::filesystem::remove(cacheFolder());
  std::filesystem::rename(cacheFolder() + ".moved", cacheFolder());
  EXPECT_EQ(getDefault(kSerialKey), Value(5));
  EXPECT_EQ(fetch().version, "5");  // and asks the server again
  waitForEndOfRequests(2);
}

TEST_F(StorebagSerialTest, StoredSerialThatIsNoIntegerIsNone) {
  setDefault(kSerialKey, "9");
  putInCache("confero", sealed(withSerial(5)));
  EXPECT_EQ(fetch().version, "5");
  EXPECT_EQ(getDefault(kSerialKey), Value(5));
}

// MARK: - What is remembered

TEST_F(StorebagSerialTest, NotedSerialCountsAtOnceAndLastsOnceItIsKept) {
  AcceptedSerials serials(platform_.defaults);
  EXPECT_EQ(*serials.of("confero"), std::nullopt);
  serials.note("confero", 5);
  EXPECT_EQ(*serials.of("confero"), 5);
  EXPECT_EQ(*AcceptedSerials(platform_.defaults).of("confero"), std::nullopt);
  serials.keep("tessel");
  EXPECT_EQ(*AcceptedSerials(platform_.defaults).of("confero"), std::nullopt);
  serials.keep("confero");
  EXPECT_EQ(*AcceptedSerials(platform_.defaults).of("confero"), 5);
}

TEST_F(StorebagSerialTest, KeptSerialNeverFalls) {
  AcceptedSerials serials(platform_.defaults);
  serials.note("confero", 5);
  serials.note("confero", 3);
  EXPECT_EQ(*serials.of("confero"), 5);
  setDefault(kSerialKey, 8);
  EXPECT_EQ(*serials.of("confero"), 8);
  serials.keep("confero");
  EXPECT_EQ(getDefault(kSerialKey), Value(8));
  setDefault(kSerialKey, Value());
  EXPECT_EQ(*serials.of("confero"), 5);
}

TEST_F(StorebagSerialTest, SerialThatCouldNotBeWrittenIsWrittenWithTheNextLookup) {
  const std::string lock =
      platform_.files.resolve("~/Library/Preferences/com.vantix.zunreporting.plist.lock");
  AcceptedSerials serials(platform_.defaults);
  serials.note("confero", 5);
  std::filesystem::remove(lock);
  std::filesystem::create_directory(lock);
  serials.keep("confero");
  EXPECT_EQ(platform_.log.takeErrors().size(), 1U);
  EXPECT_TRUE(getDefault(kSerialKey).isNone());
  std::filesystem::remove(lock);
  serials.note("confero", 5);
  serials.keep("confero");
  EXPECT_EQ(getDefault(kSerialKey), Value(5));
}

// Without a descriptor nothing is known of what was accepted, which is not that nothing was.
TEST_F(StorebagSerialTest, NothingIsTakenWhileSerialsCannotBeRead) {
  AcceptedSerials serials(platform_.defaults);
  const StorebagDiskCache cache(platform_.services, identity_);
  const StorebagVerifier verifier(platform_.services, cache, serials);
  const std::string older = sealed(withSerial(4));
  setDefault(kSerialKey, 5);
  {
    const NoDescriptors none;
    EXPECT_EQ(verifier.verifyAndParse("confero", older), std::nullopt);
    serials.note("confero", 8);
    serials.note("confero", 7);
    serials.keep("confero");
  }
  const auto errors = platform_.log.takeErrors();
  ASSERT_EQ(errors.size(), 2U);  // the first is of the file
  EXPECT_EQ(
      errors[1],
      "fetchStorebagWithName: storebag 'confero' is not taken while the serials that were accepted before "
      "cannot be read");
  EXPECT_EQ(*serials.of("confero"), 8);
  serials.keep("confero");
  EXPECT_EQ(getDefault(kSerialKey), Value(8));
}

// A lookup that finds nothing new waits for no other process.
TEST_F(StorebagSerialTest, SerialThatIsKeptIsNotWrittenAgain) {
  AcceptedSerials serials(platform_.defaults);
  serials.note("confero", 5);
  serials.keep("confero");
  setDefault(kSerialKey, Value());
  serials.keep("confero");
  serials.note("confero", 5);
  serials.keep("confero");
  EXPECT_TRUE(getDefault(kSerialKey).isNone());
}

}  // namespace
}  // namespace zun
