#include "values/GzipReader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support/Gzip.h"

namespace zun {
namespace {

struct Outcome {
  bool isGood = true;
  bool isAtTheEnd = false;
  std::string bytes;
};

Outcome read(const std::string& compressed, size_t pieceBytes) {
  GzipReader reader;
  Outcome outcome;
  for (size_t i = 0; i < compressed.size() && outcome.isGood; i += pieceBytes) {
    outcome.isGood =
        reader.feed(std::string_view(compressed).substr(i, pieceBytes), [&](std::string_view piece) {
          outcome.bytes += piece;
          return true;
        });
  }
  outcome.isAtTheEnd = reader.isAtTheEnd();
  return outcome;
}

const std::string kText = std::string(300'000, 'a') + "the end";

TEST(GzipReaderTest, AnyDivisionGivesTheSame) {
  const std::string compressed = gzipped(kText);
  for (const size_t pieceBytes : {size_t{1}, size_t{7}, compressed.size()}) {
    const Outcome outcome = read(compressed, pieceBytes);
    EXPECT_TRUE(outcome.isGood && outcome.isAtTheEnd) << pieceBytes;
    EXPECT_EQ(outcome.bytes, kText) << pieceBytes;
  }
}

TEST(GzipReaderTest, AStreamThatIsCutNeverComesToItsEnd) {
  const std::string compressed = gzipped(kText);
  for (size_t length = 0; length < compressed.size(); ++length) {
    EXPECT_FALSE(read(compressed.substr(0, length), 64).isAtTheEnd) << length;
  }
}

TEST(GzipReaderTest, WhatIsNoGzipIsRefused) {
  EXPECT_FALSE(read("plain text", 100).isGood);
  std::string wrong = gzipped(kText);
  wrong[wrong.size() - 6] ^= 1;  // in the checksum
  EXPECT_FALSE(read(wrong, 100).isAtTheEnd);
  EXPECT_FALSE(read(gzipped(kText) + "more", 1 << 20).isGood);
  EXPECT_FALSE(read(gzipped(kText) + "more", 1).isGood);
}

TEST(GzipReaderTest, ASinkThatStopsEndsIt) {
  GzipReader reader;
  size_t taken = 0;
  EXPECT_FALSE(reader.feed(gzipped(kText), [&taken](std::string_view piece) {
    taken += piece.size();
    return false;
  }));
  EXPECT_LT(taken, kText.size());
}

}  // namespace
}  // namespace zun
