#include "connectivity/ConnectivityHelperTask.h"

#include <utility>

namespace zun {

ConnectivityTaskCounter& ConnectivityTaskCounter::ofProcess() {
  static ConnectivityTaskCounter counter;
  return counter;
}

std::string ConnectivityTaskCounter::nextTaskID() {
  const uint32_t number = number_.fetch_add(1, std::memory_order_relaxed) + 1U;
  return fmt::format("Task_{:08x}", number);
}

ConnectivityHelperTask::ConnectivityHelperTask(std::string taskDescription,
                                               ConnectivityCompletion completionHandler, SystemLog& log)
    : taskDescription_(std::move(taskDescription)),
      completionHandler_(std::move(completionHandler)),
      log_(log) {
  log_.debug("ConnectivityHelperTask with ID <{}> created", taskDescription_);
}

ConnectivityHelperTask::~ConnectivityHelperTask() {
  log_.debug("ConnectivityHelperTask with ID <{}> dealloced", taskDescription_);
}

void ConnectivityHelperTask::appendReceivedData(std::string bytes) {
  if (receivedData_.empty()) {
    receivedData_ = std::move(bytes);
  } else {
    receivedData_ += bytes;
  }
}

void ConnectivityHelperTask::complete(const std::optional<URLResponse>& response,
                                      const std::optional<Error>& error) {
  const ConnectivityCompletion completion = std::exchange(completionHandler_, nullptr);
  if (completion) completion(std::move(receivedData_), response, error);
}

}  // namespace zun
