#include "daemon/Machine.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "support/RecordingLog.h"
#include "support/ScratchFolder.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

class MachineTest : public ::testing::Test {
 protected:
  MachineTest() { options_.root = scratch_.path(); }

  ScratchFolder scratch_;
  RecordingLog log_;
  DaemonOptions options_;
  const std::unique_ptr<EventLoop> loop_ = EventLoop::create();
};

TEST_F(MachineTest, TheRootStandsBeforeTheHomeFolder) {
  ::setenv("HOME", "/home/somebody", 1);
  Machine machine(options_, *loop_, log_);
  EXPECT_EQ(machine.services().platform.files.resolve("~/x"), scratch_.path() + "/home/somebody/x");
}

TEST_F(MachineTest, WithoutAHomeFolderItIsRoots) {
  for (const char* const home : {"", static_cast<const char*>(nullptr)}) {
    home == nullptr ? ::unsetenv("HOME") : ::setenv("HOME", home, 1);
    Machine machine(options_, *loop_, log_);
    EXPECT_EQ(machine.services().platform.files.resolve("~/x"), scratch_.path() + "/root/x");
  }
}

TEST_F(MachineTest, ChangesOfTheTransactionAreToldOnTheLoop) {
  Machine machine(options_, *loop_, log_);
  std::vector<bool> told;
  machine.onTransactionChange([&](bool isOpen) {
    told.push_back(isOpen);
    EXPECT_EQ(machine.activity().isTransactionOpen, isOpen);
    if (isOpen) {
      machine.services().platform.transactions.end();
    } else {
      machine.quit();
    }
  });
  machine.services().platform.transactions.begin();
  EXPECT_TRUE(told.empty());
  EXPECT_TRUE(loop_->run());
  EXPECT_EQ(told, (std::vector<bool>{true, false}));
}

TEST_F(MachineTest, ActionsRunOnTheLoopWhenTheirWaitIsOver) {
  Machine machine(options_, *loop_, log_);
  std::vector<std::thread::id> threads;
  machine.runAfter(20ms, [&] {
    threads.push_back(std::this_thread::get_id());
    machine.quit();
  });
  machine.runAfter(0ms, [&] { threads.push_back(std::this_thread::get_id()); });
  EXPECT_TRUE(loop_->run());
  EXPECT_EQ(threads, (std::vector<std::thread::id>{std::this_thread::get_id(), std::this_thread::get_id()}));
}

TEST_F(MachineTest, ItsActivityIsThatOfItsWorkers) {
  Machine machine(options_, *loop_, log_);
  std::promise<void> running;
  std::promise<void> mayEnd;
  const uint64_t before = machine.activity().jobsTaken;
  machine.services().platform.executor.execute([&] {
    running.set_value();
    mayEnd.get_future().wait();
  });
  running.get_future().wait();
  EXPECT_GE(machine.activity().jobsUnfinished, 1u);  // the other worker may be on its way to sleep
  EXPECT_EQ(machine.activity().jobsTaken, before + 1);
  EXPECT_EQ(machine.activity().transfersInFlight, 0u);
  mayEnd.set_value();
}

}  // namespace
}  // namespace zun
