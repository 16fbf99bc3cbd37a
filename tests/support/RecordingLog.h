#pragma once

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/SystemLog.h"

namespace zun {

/// Keeps every line. Any thread.
class RecordingLog final : public SystemLog {
 public:
  struct Line {
    LogLevel level;
    std::string text;
  };

  bool isEnabled(LogLevel level) const override { return level >= leastLevel_; }
  /// From now on less is not written. For tests with threads, which the log would
  /// otherwise keep in step.
  void muteBelow(LogLevel level) { leastLevel_ = level; }
  void write(LogLevel level, std::string_view line) override {
    const std::lock_guard lock(mutex_);
    lines_.push_back({level, std::string(line)});
  }

  std::vector<Line> lines() const {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

  std::vector<std::string> linesOf(LogLevel level) const {
    std::vector<std::string> texts;
    for (const Line& line : lines()) {
      if (line.level == level) texts.push_back(line.text);
    }
    return texts;
  }

  /// How often exactly this line was written at this level.
  int count(LogLevel level, std::string_view text) const {
    const auto texts = linesOf(level);
    return static_cast<int>(std::count(texts.begin(), texts.end(), text));
  }
  bool contains(LogLevel level, std::string_view text) const { return count(level, text) > 0; }

  /// Takes the error lines out: the test has seen and judged them.
  std::vector<std::string> takeErrors() {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> errors;
    const auto isError = [](const Line& line) { return line.level == LogLevel::kError; };
    for (const Line& line : lines_) {
      if (isError(line)) errors.push_back(line.text);
    }
    std::erase_if(lines_, isError);
    return errors;
  }

  void clear() {
    const std::lock_guard lock(mutex_);
    lines_.clear();
  }

 private:
  std::atomic<LogLevel> leastLevel_{LogLevel::kDebug};
  mutable std::mutex mutex_;
  std::vector<Line> lines_;
};

}  // namespace zun
