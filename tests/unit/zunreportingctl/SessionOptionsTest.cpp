#include <gtest/gtest.h>

#include <CLI/CLI.hpp>

#include "Session.h"

namespace zun {
namespace {

class SessionOptionsTest : public ::testing::Test {
 protected:
  /// The exit code of parsing; 0 is success.
  int parse(const std::vector<std::string>& arguments) {
    CLI::App app;
    addSessionOptions(app, options_);
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    try {
      app.parse(reversed);
    } catch (const CLI::ParseError& error) {
      error_ = error.what();
      return error.get_exit_code();
    }
    return 0;
  }

  SessionOptions options_;
  std::string error_;
};

TEST_F(SessionOptionsTest, ParentIsTokenAndLevel) {
  EXPECT_EQ(parse({"--parent", "family:2"}), 0);
  EXPECT_EQ(options_.info.hierarchyToken, "family");
  EXPECT_EQ(options_.info.hierarchyLevel, 2);
}

TEST_F(SessionOptionsTest, TokenMayHoldColons) {
  EXPECT_EQ(parse({"--parent", "a:b::0"}), 0);
  EXPECT_EQ(options_.info.hierarchyToken, "a:b:");
  EXPECT_EQ(options_.info.hierarchyLevel, 0);
}

TEST_F(SessionOptionsTest, ParentThatIsNoTokenAndLevelIsRefused) {
  for (const char* const text : {"", ":", "token", "token:", ":1", "token:x", "token:-1", "token:1x",
                                 "token: 1", "token:99999999999", "token:1.5"}) {
    EXPECT_NE(parse({"--parent", text}), 0) << text;
    EXPECT_NE(error_.find("--parent"), std::string::npos) << error_;
    EXPECT_TRUE(options_.info.hierarchyToken.empty()) << text;
  }
}

TEST_F(SessionOptionsTest, ParentExcludesItsParts) {
  EXPECT_NE(parse({"--parent", "a:1", "--hierarchy-level", "2"}), 0);
  EXPECT_EQ(parse({"--hierarchy-token", "a", "--hierarchy-level", "2"}), 0);
}

}  // namespace
}  // namespace zun
