#pragma once

#include <condition_variable>
#include <iosfwd>
#include <mutex>
#include <string>
#include <thread>

namespace zun {

/// Shows a text and the seconds since then on one line of a terminal, and clears the line
/// in the end. Nobody else writes to the terminal meanwhile.
class ElapsedTime final {
 public:
  ElapsedTime(std::ostream& terminal, std::string text);
  ~ElapsedTime();
  ElapsedTime(const ElapsedTime&) = delete;
  ElapsedTime& operator=(const ElapsedTime&) = delete;

 private:
  void show();

  std::ostream& terminal_;
  const std::string text_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool hasEnded_ = false;
  std::thread thread_;
};

}  // namespace zun
