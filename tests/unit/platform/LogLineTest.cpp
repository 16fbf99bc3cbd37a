#include "platform/SystemLog.h"

#include <gtest/gtest.h>

#include "support/RecordingLog.h"
#include "values/UTF8.h"

namespace zun {
namespace {

constexpr size_t kBound = SystemLog::kMaximumLineBytes;

std::string lineOf(const std::string& text) {
  RecordingLog log;
  log.note("{}", text);
  return log.lines().at(0).text;
}

TEST(LogLineTest, LinesUpToTheBoundAreWholeAndLongerOnesEndWithTheirLength) {
  const std::string fits(kBound, 'x');
  EXPECT_EQ(lineOf(fits), fits);
  EXPECT_EQ(lineOf(fits + "x"), fits + "... (16385 bytes)");
  EXPECT_EQ(lineOf(std::string(1 << 20, 'x')), fits + "... (1048576 bytes)");
}

TEST(LogLineTest, LinesAreCutBetweenCharacters) {
  for (size_t offset = 0; offset < 4; ++offset) {
    std::string text(kBound - offset, 'x');
    const size_t plain = text.size();
    text += "\U0001F600 and more";
    const std::string line = lineOf(text);
    EXPECT_TRUE(isValidUTF8(line)) << offset;
    EXPECT_EQ(line.substr(0, plain), text.substr(0, plain)) << offset;
    EXPECT_EQ(line.substr(plain), "... (" + std::to_string(text.size()) + " bytes)") << offset;
  }
}

TEST(LogLineTest, TheFirstLineThatIsCutIsFollowedByOneErrorLine) {
  RecordingLog log;
  for (int i = 0; i < 3; ++i) log.debug("{}", std::string(kBound + 1, 'x'));
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[1].level, LogLevel::kError);
  EXPECT_EQ(lines[1].text, "log: lines of more than 16384 bytes are cut, and end with their length");
}

TEST(LogLineTest, BytesThatAreNoTextAreCutAllTheSame) {
  EXPECT_EQ(lineOf(std::string(kBound + 9, '\x80')).size(),
            kBound - 3 + std::string("... (16393 bytes)").size());
}

}  // namespace
}  // namespace zun
