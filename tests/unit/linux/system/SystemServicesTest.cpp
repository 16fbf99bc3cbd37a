#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <set>
#include <string>
#include <thread>

#include "linux/system/SystemClock.h"
#include "linux/system/SystemLocale.h"
#include "linux/system/SystemLogs.h"
#include "linux/system/SystemRandom.h"
#include "support/BlockedThread.h"
#include "support/Fakes.h"
#include "values/UUID.h"

namespace zun {
namespace {

// --- Clock and randomness ------------------------------------------------------------

TEST(TimeValueTest, MicrosecondsAreTheFractionOfItsSeconds) {
  EXPECT_DOUBLE_EQ(secondsOf({1'700'000'000, 250'000}), 1'700'000'000.25);
  EXPECT_DOUBLE_EQ(secondsOf({0, 999'999}), 0.999999);
}

TEST(SystemClockTest, TimeOfDayIsTheWallClocks) {
  const time_t before = ::time(nullptr);
  const TimeValue now = SystemClock().timeOfDay();
  const time_t after = ::time(nullptr);
  EXPECT_GE(now.seconds, before - 1);  // the coarse clock of `time` may lag
  EXPECT_LE(now.seconds, after + 1);
  EXPECT_GE(now.microseconds, 0);
  EXPECT_LT(now.microseconds, 1'000'000);
}

TEST(SystemClockTest, MonotonicTimeNeverGoesBack) {
  const SystemClock clock;
  auto last = clock.monotonic();
  for (int i = 0; i < 1000; ++i) {
    const auto next = clock.monotonic();
    ASSERT_GE(next, last);
    last = next;
  }
}

TEST(SystemRandomTest, DrawsStayBelowTheBoundAndReachAllOfIt) {
  SystemRandom random;
  std::array<int, 7> counts{};
  for (int i = 0; i < 7000; ++i) {
    const uint32_t draw = random.uniformBelow(7);
    ASSERT_LT(draw, 7U);
    ++counts[draw];
  }
  // Some 29 standard deviations on either side of 1000.
  for (const int count : counts) {
    EXPECT_GT(count, 150);
    EXPECT_LT(count, 1850);
  }
}

// Three quarters of the words lie below a bound of 3 * 2^30; a plain remainder would
// draw the lowest quarter of words twice as often.
TEST(SystemRandomTest, LargeBoundsAreNotBiased) {
  SystemRandom random;
  constexpr uint32_t kBound = 3U << 30;
  int lowThird = 0;
  int multiplesOfThree = 0;
  for (int i = 0; i < 6000; ++i) {
    const uint32_t draw = random.uniformBelow(kBound);
    if (draw < kBound / 3) ++lowThird;
    if (draw % 3 == 0) ++multiplesOfThree;
  }
  // 2000 expected of each. With a bias it is 3000: of the first where the remainder is
  // taken, of the second where the high half is.
  for (const int count : {lowThird, multiplesOfThree}) {
    EXPECT_GT(count, 1500);
    EXPECT_LT(count, 2500);
  }
}

TEST(SystemRandomTest, BoundsOfZeroAndOneGiveZero) {
  SystemRandom random;
  EXPECT_EQ(random.uniformBelow(0), 0U);
  EXPECT_EQ(random.uniformBelow(1), 0U);
}

TEST(SystemRandomTest, UUIDsAreRandomOnesAndDiffer) {
  SystemRandom random;
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string uuid = uuidString(random.uuidBytes());
    ASSERT_EQ(uuid.size(), 36U);
    EXPECT_EQ(uuid[14], '4');
    EXPECT_NE(std::string("89AB").find(uuid[19]), std::string::npos);
    EXPECT_TRUE(seen.insert(uuid).second);
  }
}

// --- Locale --------------------------------------------------------------------------

/// Sets environment variables for a scope; null takes one away.
class Environment final {
 public:
  Environment(std::initializer_list<std::pair<const char*, const char*>> variables) {
    for (const auto& [name, value] : variables) {
      const char* const before = ::getenv(name);
      before_.emplace_back(name, before == nullptr ? std::nullopt : std::optional<std::string>(before));
      set(name, value);
    }
  }
  ~Environment() {
    for (const auto& [name, value] : before_) set(name.c_str(), value ? value->c_str() : nullptr);
  }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

 private:
  static void set(const char* name, const char* value) {
    value == nullptr ? ::unsetenv(name) : ::setenv(name, value, 1);
  }
  std::vector<std::pair<std::string, std::optional<std::string>>> before_;
};

TEST(SystemLocaleTest, TheRegionStandsAfterTheUnderscore) {
  EXPECT_EQ(regionOfLocaleName("de_DE.UTF-8"), "DE");
  EXPECT_EQ(regionOfLocaleName("en_US"), "US");
  EXPECT_EQ(regionOfLocaleName("sr_RS@latin"), "RS");
  EXPECT_EQ(regionOfLocaleName("ca_ES.UTF-8@valencia_x"), "ES");
  EXPECT_EQ(regionOfLocaleName("zh_Hant_TW.UTF-8"), "TW");
  EXPECT_EQ(regionOfLocaleName("es_419"), "419");
  EXPECT_EQ(regionOfLocaleName("de_at.utf8"), "AT");
}

TEST(SystemLocaleTest, NamesWithoutARegionGiveNone) {
  for (const char* const name : {"", "C", "POSIX", "C.UTF-8", "de", "de.UTF-8", "de_", "de_D", "de_DEU", "_",
                                 "de_12", "de_D1", "de_\xC3\xA4\xC3\xB6", "C.a_DE"}) {
    EXPECT_EQ(regionOfLocaleName(name), std::nullopt) << name;
  }
}

TEST(SystemLocaleTest, TheFirstVariableThatIsNotEmptyDecides) {
  const FakeClock clock;
  {
    const Environment all({{"LC_ALL", "fr_FR"}, {"LC_MESSAGES", "de_DE"}, {"LANG", "en_US"}});
    EXPECT_EQ(SystemLocale(clock).regionCode(), "FR");
  }
  {
    const Environment messages({{"LC_ALL", ""}, {"LC_MESSAGES", "de_DE"}, {"LANG", "en_US"}});
    EXPECT_EQ(SystemLocale(clock).regionCode(), "DE");
  }
  {
    const Environment language({{"LC_ALL", nullptr}, {"LC_MESSAGES", nullptr}, {"LANG", "en_US"}});
    EXPECT_EQ(SystemLocale(clock).regionCode(), "US");
  }
  {
    const Environment plain({{"LC_ALL", "C"}, {"LC_MESSAGES", "de_DE"}, {"LANG", "en_US"}});
    EXPECT_EQ(SystemLocale(clock).regionCode(), std::nullopt);
  }
  {
    const Environment nothing({{"LC_ALL", nullptr}, {"LC_MESSAGES", nullptr}, {"LANG", nullptr}});
    EXPECT_EQ(SystemLocale(clock).regionCode(), std::nullopt);
  }
}

TEST(SystemLocaleTest, TheOffsetFollowsTheZoneAndItsSummerTime) {
  FakeClock clock;  // in November
  const SystemLocale locale(clock);
  const Environment zone({{"TZ", "CET-1CEST,M3.5.0,M10.5.0/3"}});
  EXPECT_EQ(locale.timeZoneOffsetSeconds(), 3600);
  EXPECT_EQ(locale.timeZoneOffsetSeconds(), 3600);
  clock.advance(std::chrono::hours(24 * 200));  // to June
  EXPECT_EQ(locale.timeZoneOffsetSeconds(), 7200);
}

TEST(SystemLocaleTest, AChangeOfTheZoneIsSeenWithinASecond) {
  FakeClock clock;
  const SystemLocale locale(clock);
  const Environment before({{"TZ", "UTC0"}});
  EXPECT_EQ(locale.timeZoneOffsetSeconds(), 0);
  const Environment after({{"TZ", "XXX3:30"}});  // west
  clock.advance(std::chrono::seconds(1));
  EXPECT_EQ(locale.timeZoneOffsetSeconds(), -12600);
}

// --- Logs ----------------------------------------------------------------------------

/// A pipe or a socket pair; closes what is left of it.
class Channel final {
 public:
  enum class Kind { kPipe, kSocket };
  explicit Channel(Kind kind) {
    const int outcome = kind == Kind::kPipe
                            ? ::pipe2(ends_.data(), O_CLOEXEC)
                            : ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_.data());
    EXPECT_EQ(outcome, 0);
  }
  ~Channel() {
    closeReader();
    ::close(ends_[1]);
  }
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  int writer() const { return ends_[1]; }
  int reader() const { return ends_[0]; }
  void closeReader() {
    if (ends_[0] >= 0) ::close(ends_[0]);
    ends_[0] = -1;
  }

  /// Until it takes no more.
  void fill() const {
    const std::string bytes(1000, '.');
    const int flags = ::fcntl(writer(), F_GETFL);
    ::fcntl(writer(), F_SETFL, flags | O_NONBLOCK);
    while (::write(writer(), bytes.data(), bytes.size()) > 0) {
    }
    ::fcntl(writer(), F_SETFL, flags);
  }

  /// What is there, without waiting for more.
  std::string readAll() {
    ::fcntl(reader(), F_SETFL, O_NONBLOCK);
    std::string text;
    char buffer[8192];
    ssize_t size = 0;
    while ((size = ::read(reader(), buffer, sizeof buffer)) > 0)
      text.append(buffer, static_cast<size_t>(size));
    return text;
  }

 private:
  std::array<int, 2> ends_{-1, -1};
};

std::string linePrefix(const std::string& level) {
  return "zunreportingd[" + std::to_string(::getpid()) + "] " + level + ": ";
}

class StreamLogTest : public ::testing::TestWithParam<Channel::Kind> {
 protected:
  Channel channel_{GetParam()};
  StreamLog log_{channel_.writer(), LogLevel::kDebug};
};

INSTANTIATE_TEST_SUITE_P(Channels, StreamLogTest,
                         ::testing::Values(Channel::Kind::kPipe, Channel::Kind::kSocket),
                         [](const auto& channel) {
                           return channel.param == Channel::Kind::kPipe ? "Pipe" : "Socket";
                         });

TEST_P(StreamLogTest, LinesSayProcessLevelAndText) {
  log_.debug("one {}", 1);
  log_.note("two");
  log_.error("three");
  EXPECT_EQ(channel_.readAll(), linePrefix("debug") + "one 1\n" + linePrefix("default") + "two\n" +
                                    linePrefix("error") + "three\n");
}

TEST_P(StreamLogTest, OneLineStaysOneLine) {
  log_.note("a\nb\r\tc\x1b[31m\x7f{}", std::string_view("\0x\n", 3));
  EXPECT_EQ(channel_.readAll(), linePrefix("default") + "a\\nb\\x0d\tc\\x1b[31m\\x7f\\x00x\\n\n");
}

TEST_P(StreamLogTest, LongLinesAndTextBeyondAsciiComeWhole) {
  const std::string text = "\xC3\xA4" + std::string(20'000, 'x');
  log_.write(LogLevel::kDefault, text);
  EXPECT_EQ(channel_.readAll(), linePrefix("default") + text + "\n");
}

TEST_P(StreamLogTest, LevelsBelowTheLogsOwnAreOff) {
  StreamLog quiet(channel_.writer(), LogLevel::kDefault);
  EXPECT_FALSE(quiet.isEnabled(LogLevel::kDebug));
  EXPECT_TRUE(quiet.isEnabled(LogLevel::kDefault));
  quiet.debug("not this");
  quiet.error("but this");
  EXPECT_EQ(channel_.readAll(), linePrefix("error") + "but this\n");
}

TEST_P(StreamLogTest, AReaderThatHasGoneNeitherFailsNorEndsTheProcess) {
  channel_.closeReader();
  for (int i = 0; i < 3; ++i) log_.error("nobody reads this");
  sigset_t pending;
  ASSERT_EQ(sigpending(&pending), 0);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

// Far more than the channel holds: lines are lost, the writer is not held up for good.
TEST_P(StreamLogTest, AReaderThatDoesNotReadLosesLinesAndGetsThemAgainLater) {
  const std::string text(1000, 'y');
  for (int i = 0; i < 5000; ++i) log_.note("{}", text);
  const std::string got = channel_.readAll();
  EXPECT_FALSE(got.empty());
  EXPECT_LT(got.size(), 5000U * 1000U);
  log_.note("back");
  const std::string later = channel_.readAll();
  EXPECT_EQ(later, linePrefix("default") + "back\n");
}

// For a moment, which a busy machine may let pass: so it may take several times.
TEST_P(StreamLogTest, ALineWaitsForAReaderThatIsBehind) {
  bool hasCome = false;
  for (int attempt = 0; attempt < 50 && !hasCome; ++attempt) {
    channel_.fill();
    std::atomic<pid_t> writer{0};
    std::atomic<bool> isOver{false};
    std::thread thread([&] {
      writer = ::gettid();
      log_.note("late");
      isOver = true;
    });
    while (!isOver && (writer == 0 || !isBlocked(writer))) std::this_thread::yield();
    std::string got = channel_.readAll();
    thread.join();
    got += channel_.readAll();
    hasCome = got.ends_with(linePrefix("default") + "late\n");
  }
  EXPECT_TRUE(hasCome);
}

// A line beyond what the channel holds is given up halfway; the next stands alone.
TEST_P(StreamLogTest, ALineThatWasGivenUpHalfwayDoesNotSwallowTheNext) {
  log_.write(LogLevel::kDefault, std::string(4'000'000, 'z'));
  const std::string torn = channel_.readAll();
  EXPECT_EQ(torn.find('\n'), std::string::npos);
  log_.note("next");
  EXPECT_EQ(channel_.readAll(), "\n" + linePrefix("default") + "next\n");
}

TEST_P(StreamLogTest, LinesOfManyThreadsDoNotMix) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 25; ++i) log_.note("{}", std::string(60, static_cast<char>('a' + t)));
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::string got = channel_.readAll();
  EXPECT_EQ(std::count(got.begin(), got.end(), '\n'), 100);
  for (char c = 'a'; c < 'e'; ++c) {
    size_t found = 0;
    const std::string line = linePrefix("default") + std::string(60, c) + "\n";
    for (size_t at = got.find(line); at != std::string::npos; at = got.find(line, at + 1)) ++found;
    EXPECT_EQ(found, 25U);
  }
}

TEST(SystemLogTest, AClosedDescriptorIsNoFailure) {
  StreamLog log(-1, LogLevel::kDebug);
  log.error("into the void");
}

TEST(SystemLogTest, TheJournalsStreamIsKnownByDeviceAndInode) {
  const Channel channel(Channel::Kind::kSocket);
  struct stat status {};
  ASSERT_EQ(::fstat(channel.writer(), &status), 0);
  const std::string name = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
  EXPECT_TRUE(isJournalStream(channel.writer(), name.c_str()));
  EXPECT_FALSE(isJournalStream(channel.reader(), name.c_str()));
  EXPECT_FALSE(isJournalStream(channel.writer(), (name + "1").c_str()));
  EXPECT_FALSE(isJournalStream(channel.writer(), ""));
  EXPECT_FALSE(isJournalStream(channel.writer(), nullptr));
  EXPECT_FALSE(isJournalStream(-1, name.c_str()));
}

TEST(SystemLogTest, TheTargetDecidesTheKindOfLog) {
  const Environment noJournal({{"JOURNAL_STREAM", nullptr}});
  EXPECT_NE(dynamic_cast<StreamLog*>(makeSystemLog(LogTarget::kStderr, LogLevel::kDebug, "").get()), nullptr);
  EXPECT_NE(dynamic_cast<JournalLog*>(makeSystemLog(LogTarget::kJournal, LogLevel::kDebug, "").get()),
            nullptr);
  EXPECT_NE(dynamic_cast<StreamLog*>(makeSystemLog(LogTarget::kAuto, LogLevel::kDebug, "").get()), nullptr);

  struct stat status {};
  ASSERT_EQ(::fstat(STDERR_FILENO, &status), 0);
  const std::string name = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
  const Environment journal({{"JOURNAL_STREAM", name.c_str()}});
  EXPECT_NE(dynamic_cast<JournalLog*>(makeSystemLog(LogTarget::kAuto, LogLevel::kDebug, "").get()), nullptr);
}

TEST(SystemLogTest, TheJournalsLevelIsKeptAndItsAbsenceIsNoFailure) {
  JournalLog log(LogLevel::kError);
  EXPECT_FALSE(log.isEnabled(LogLevel::kDefault));
  EXPECT_TRUE(log.isEnabled(LogLevel::kError));
  log.write(LogLevel::kError, "zunreportingd unit test\nof two lines");
}

}  // namespace
}  // namespace zun
