#include "zuncollector/EventSink.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "support/ScratchFolder.h"

namespace zun {
namespace {

TEST(EventSinkTest, RecordsAreKeptJustAsTheyCame) {
  const ScratchFolder scratch;
  RecordFile file(scratch.path("records"));
  EventSink sink(file);
  const auto count =
      sink.accept(R"({"postTime":1.5,"clientId":"x","events":[{"b":1,"a":"\u00e4"},{"c":[]}]})", 20);
  ASSERT_TRUE(count) << count.error();
  EXPECT_EQ(*count, 2U);
  std::ostringstream kept;
  kept << std::ifstream(scratch.path("records")).rdbuf();
  EXPECT_EQ(kept.str(), "{\"b\":1,\"a\":\"ä\"}\n{\"c\":[]}\n");
  EXPECT_EQ(sink.totals().events, 2U);
  EXPECT_EQ(sink.totals().wireBytes, 20U);
}

TEST(EventSinkTest, WhatIsNoPostBodyIsRefusedWithItsReason) {
  RecordFile file("");
  EventSink sink(file);
  const auto error = [&sink](std::string_view body) { return sink.accept(body, 0).error(); };
  EXPECT_TRUE(error("{").starts_with("the body is no JSON: "));
  EXPECT_EQ(error("[]"), "the body is no JSON object");
  EXPECT_EQ(error(R"({"clientId":"x","events":[]})"), "\"postTime\" is missing or no number");
  EXPECT_EQ(error(R"({"postTime":1,"events":[]})"), "\"clientId\" is missing or no string");
  EXPECT_EQ(error(R"({"postTime":1,"clientId":"x"})"), "\"events\" is missing or no array");
  EXPECT_EQ(error(R"({"postTime":1,"clientId":"x","events":[1]})"), "an element of \"events\" is no object");
  EXPECT_EQ(sink.totals().refusedPosts, 6U);
  EXPECT_EQ(sink.totals().posts, 0U);
}

TEST(EventSinkTest, APostThatCannotBeWrittenIsRefused) {
  RecordFile file("/dev/full");
  EventSink sink(file);
  const auto count = sink.accept(R"({"postTime":1,"clientId":"x","events":[{}]})", 0);
  ASSERT_FALSE(count);
  EXPECT_EQ(count.error(), "cannot write to /dev/full: No space left on device");
  EXPECT_EQ(sink.totals().refusedPosts, 1U);
}

}  // namespace
}  // namespace zun
