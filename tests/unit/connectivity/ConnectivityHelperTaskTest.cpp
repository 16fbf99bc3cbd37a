#include "connectivity/ConnectivityHelperTask.h"

#include <gtest/gtest.h>

#include "support/RecordingLog.h"

namespace zun {
namespace {

TEST(ConnectivityTaskCounterTest, FirstTaskIsNumberOne) {
  ConnectivityTaskCounter counter;
  EXPECT_EQ(counter.nextTaskID(), "Task_00000001");
  EXPECT_EQ(counter.nextTaskID(), "Task_00000002");
}

TEST(ConnectivityTaskCounterTest, NumbersBeginAgainAfter32Bits) {
  ConnectivityTaskCounter counter(0xfffffffeU);
  EXPECT_EQ(counter.nextTaskID(), "Task_ffffffff");
  EXPECT_EQ(counter.nextTaskID(), "Task_00000000");
  EXPECT_EQ(counter.nextTaskID(), "Task_00000001");
}

TEST(ConnectivityHelperTaskTest, LogsItsCreationAndItsEnd) {
  RecordingLog log;
  {
    const ConnectivityHelperTask task("Task_0000002a", nullptr, log);
    EXPECT_EQ(task.taskDescription(), "Task_0000002a");
  }
  EXPECT_EQ(log.linesOf(LogLevel::kDebug),
            (std::vector<std::string>{"ConnectivityHelperTask with ID <Task_0000002a> created",
                                      "ConnectivityHelperTask with ID <Task_0000002a> dealloced"}));
}

TEST(ConnectivityHelperTaskTest, CompletionGetsTheBytesInOrderAndIsCalledOnce) {
  RecordingLog log;
  std::vector<std::string> bodies;
  ConnectivityHelperTask task(
      "Task_00000001", [&bodies](std::string data, const auto&, const auto&) { bodies.push_back(data); },
      log);
  task.appendReceivedData("ab");
  task.appendReceivedData("");
  task.appendReceivedData("cd");
  task.complete(std::nullopt, std::nullopt);
  task.complete(std::nullopt, std::nullopt);
  EXPECT_EQ(bodies, std::vector<std::string>{"abcd"});
}

TEST(ConnectivityHelperTaskTest, TaskWithoutCompletionEndsQuietly) {
  RecordingLog log;
  ConnectivityHelperTask task("Task_00000001", nullptr, log);
  task.complete(std::nullopt, Error{"domain", 1, "text"});
  EXPECT_EQ(log.lines().size(), 1U);
}

}  // namespace
}  // namespace zun
