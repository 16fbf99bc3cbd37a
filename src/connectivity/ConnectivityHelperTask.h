#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "connectivity/ReportingSessionConnectivityInterface.h"
#include "platform/SystemLog.h"

namespace zun {

/// Gives tasks their names. One counter serves all helpers of the process, so that a
/// task's name in the log means one task, whichever helper made it. Any thread.
class ConnectivityTaskCounter final {
 public:
  explicit ConnectivityTaskCounter(uint32_t lastNumber = 0) : number_(lastNumber) {}

  /// The counter of this process; its first name is "Task_00000001".
  static ConnectivityTaskCounter& ofProcess();

  /// The next name; after 32 bits the numbers begin again.
  [[nodiscard]] std::string nextTaskID();

 private:
  std::atomic<uint32_t> number_;
};

/// What a helper keeps of a task in flight: its name, who waits for it, and the bytes
/// that came so far.
///
/// Threading: the state queue of the helper that made it. Ownership: its table of tasks.
class ConnectivityHelperTask final {
 public:
  /// `log` outlives the task.
  ConnectivityHelperTask(std::string taskDescription, ConnectivityCompletion completionHandler,
                         SystemLog& log);
  ~ConnectivityHelperTask();
  ConnectivityHelperTask(const ConnectivityHelperTask&) = delete;
  ConnectivityHelperTask& operator=(const ConnectivityHelperTask&) = delete;

  [[nodiscard]] const std::string& taskDescription() const { return taskDescription_; }
  void appendReceivedData(std::string bytes);
  /// Hands the received bytes to the completion, if there is one and it was not yet called.
  void complete(const std::optional<URLResponse>& response, const std::optional<Error>& error);

 private:
  const std::string taskDescription_;
  ConnectivityCompletion completionHandler_;
  std::string receivedData_;
  SystemLog& log_;
};

}  // namespace zun
