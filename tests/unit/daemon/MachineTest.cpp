#include "daemon/Machine.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "backends/DashboardDatagram.h"
#include "backends/DashboardLink.h"
#include "linux/files/FileDescriptor.h"
#include "support/RecordingLog.h"
#include "support/ScratchFolder.h"
#include "support/UDPTestServer.h"

namespace zun {
namespace {

using namespace std::chrono_literals;

class SilentDelegate final : public URLSessionDelegate {
 public:
  void didReceiveResponse(URLSession&, URLSessionTask&, const URLResponse&) override {}
  void didReceiveData(URLSession&, URLSessionTask&, std::string) override {}
  void didSendBodyData(URLSession&, URLSessionTask&, int64_t, int64_t) override {}
  void didCompleteWithError(URLSession&, URLSessionTask&, const std::optional<URLResponse>&,
                            const std::optional<Error>&) override {}
  void didBecomeInvalidWithError(URLSession&, const std::optional<Error>&) override {}
};

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

TEST_F(MachineTest, WhoeverCanHurryHearsOnceThatTheEndHasBegun) {
  Machine machine(options_, *loop_, log_);
  machine.notifyStopping();  // nobody has asked to hear
  int told = 0;
  machine.onStopping([&] { ++told; });
  EXPECT_EQ(told, 0);
  machine.notifyStopping();
  EXPECT_EQ(told, 1);
}

TEST_F(MachineTest, ItsActivityIsThatOfItsWorkers) {
  Machine machine(options_, *loop_, log_);
  std::promise<void> running;
  std::promise<void> mayEnd;
  const uint64_t before = machine.activity().jobsTaken;
  machine.services().platform.executor.execute([&running, end = mayEnd.get_future()] {
    running.set_value();
    end.wait();
  });
  running.get_future().wait();
  EXPECT_GE(machine.activity().jobsUnfinished, 1u);  // the other worker may be on its way to sleep
  EXPECT_EQ(machine.activity().jobsTaken, before + 1);
  EXPECT_EQ(machine.activity().transfersInFlight, 0u);
  mayEnd.set_value();
}

TEST_F(MachineTest, ItsActivityHasTheTransfersInFlight) {
  const FileDescriptor server(::socket(AF_INET, SOCK_STREAM, 0));  // never answers
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(::bind(server.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(::listen(server.get(), 1), 0);
  ASSERT_EQ(::getsockname(server.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);

  Machine machine(options_, *loop_, log_);
  const PlatformServices& platform = machine.services().platform;
  EXPECT_EQ(machine.activity().transfersInFlight, 0u);
  const auto session = platform.urlSessions.makeSession({}, std::make_shared<SilentDelegate>(),
                                                        SerialQueue::create("test", platform.executor));
  const std::string url = "https://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
  (*session->dataTaskWithRequest({.url = url}))->resume();
  EXPECT_EQ(machine.activity().transfersInFlight, 1u);
}

TEST_F(MachineTest, ItsActivityHasTheDashboardsThatAreAwaited) {
  Machine machine(options_, *loop_, log_);
  const PlatformServices& platform = machine.services().platform;
  auto socket = platform.sockets.makeSocket();
  UDPTestServer server;  // never acknowledges
  auto link =
      DashboardLink::open(platform, std::move(*socket), {.address = server.address(), .isReliable = true});
  ASSERT_NE(link, nullptr);
  link->send(*DashboardDatagram::make({}, {}), 1);
  EXPECT_EQ(machine.activity().dashboards, 0u);
  link->cleanup();
  while (machine.activity().dashboards == 0) std::this_thread::yield();
  EXPECT_EQ(machine.activity().dashboards, 1u);
  link->end();
  while (machine.activity().dashboards > 0) std::this_thread::yield();
}

}  // namespace
}  // namespace zun
