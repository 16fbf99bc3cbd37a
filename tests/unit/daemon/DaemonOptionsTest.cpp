#include "daemon/DaemonOptions.h"

#include <gtest/gtest.h>

#include <vector>

namespace zun {
namespace {

std::variant<DaemonOptions, int> parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "zunreportingd");
  return parseDaemonOptions(static_cast<int>(arguments.size()), arguments.data(), "3.2.1");
}

TEST(DaemonOptionsTest, NothingGivenMeansTheDefaults) {
  const auto result = parse({});
  const auto& options = std::get<DaemonOptions>(result);
  EXPECT_EQ(options.listenPath, "");
  EXPECT_EQ(options.root, "");
  EXPECT_EQ(options.logLevel, LogLevel::kDefault);
  EXPECT_EQ(options.logTarget, LogTarget::kAuto);
  EXPECT_EQ(options.idleExit, std::nullopt);
  EXPECT_EQ(options.stopGrace, std::chrono::seconds(20));
  EXPECT_EQ(options.maxConnections, 4096u);
  EXPECT_EQ(options.maxConnectionsPerUser, 256u);
}

TEST(DaemonOptionsTest, EveryOptionIsTaken) {
  const auto result = parse({"--listen",
                             "unix:path=/tmp/socket",
                             "--root",
                             "/tmp",
                             "--resources",
                             "/usr/share/x",
                             "--ca-file",
                             "/etc/passwd",
                             "--log-level",
                             "debug",
                             "--log-target",
                             "stderr",
                             "--idle-exit",
                             "5",
                             "--stop-grace",
                             "0",
                             "--max-connections",
                             "10",
                             "--max-connections-per-user",
                             "3"});
  const auto& options = std::get<DaemonOptions>(result);
  EXPECT_EQ(options.listenPath, "/tmp/socket");
  EXPECT_EQ(options.root, "/tmp");
  EXPECT_EQ(options.resources, "/usr/share/x");
  EXPECT_EQ(options.caFile, "/etc/passwd");
  EXPECT_EQ(options.logLevel, LogLevel::kDebug);
  EXPECT_EQ(options.logTarget, LogTarget::kStderr);
  EXPECT_EQ(options.idleExit, std::chrono::seconds(5));
  EXPECT_EQ(options.stopGrace, std::chrono::seconds(0));
  EXPECT_EQ(options.maxConnections, 10u);
  EXPECT_EQ(options.maxConnectionsPerUser, 3u);
}

TEST(DaemonOptionsTest, HelpAndVersionEndWithSuccess) {
  EXPECT_EQ(std::get<int>(parse({"--help"})), 0);
  EXPECT_EQ(std::get<int>(parse({"--version"})), 0);
}

TEST(DaemonOptionsTest, WrongUsageEndsWithTwo) {
  EXPECT_EQ(std::get<int>(parse({"--listen", "tcp:host=x"})), 2);
  EXPECT_EQ(std::get<int>(parse({"--listen", "unix:path="})), 2);
  EXPECT_EQ(std::get<int>(parse({"--root", "/does/not/exist"})), 2);
  EXPECT_EQ(std::get<int>(parse({"--log-level", "loud"})), 2);
  EXPECT_EQ(std::get<int>(parse({"--log-level", "0"})), 2);  // names alone will do
  EXPECT_EQ(std::get<int>(parse({"--idle-exit", "-1"})), 2);
  EXPECT_EQ(std::get<int>(parse({"--stop-grace", "soon"})), 2);
  EXPECT_EQ(std::get<int>(parse({"--max-connections", "0"})), 2);
  EXPECT_EQ(std::get<int>(parse({"--unknown"})), 2);
  EXPECT_EQ(std::get<int>(parse({"stray"})), 2);
}

}  // namespace
}  // namespace zun
