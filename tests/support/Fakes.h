#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Bundle.h"
#include "platform/Clock.h"
#include "platform/DeviceProperties.h"
#include "platform/Locale.h"
#include "platform/ProcessTransactions.h"
#include "platform/RandomSource.h"
#include "platform/SerialQueue.h"
#include "platform/TimerService.h"

namespace zun {

/// Time that moves only by hand. Starts on 2023-11-14 22:13:20 UTC.
class FakeClock final : public Clock {
 public:
  TimeValue timeOfDay() const override {
    const std::lock_guard lock(mutex_);
    return {microseconds_ / 1'000'000, static_cast<int32_t>(microseconds_ % 1'000'000)};
  }
  std::chrono::nanoseconds monotonic() const override {
    const std::lock_guard lock(mutex_);
    return monotonic_;
  }
  /// Both clocks go on.
  void advance(std::chrono::nanoseconds by) {
    const std::lock_guard lock(mutex_);
    microseconds_ += std::chrono::duration_cast<std::chrono::microseconds>(by).count();
    monotonic_ += by;
  }
  void setTimeOfDay(const TimeValue& time) {
    const std::lock_guard lock(mutex_);
    microseconds_ = time.seconds * 1'000'000 + time.microseconds;
  }

 private:
  mutable std::mutex mutex_;
  int64_t microseconds_ = 1'700'000'000LL * 1'000'000;
  std::chrono::nanoseconds monotonic_{0};
};

/// Draws what it is told to, in order and then the last one for ever; UUIDs count up.
class FakeRandom final : public RandomSource {
 public:
  void setNext(std::vector<uint32_t> draws) {
    const std::lock_guard lock(mutex_);
    draws_.assign(draws.begin(), draws.end());
  }
  uint32_t uniformBelow(uint32_t bound) override {
    const std::lock_guard lock(mutex_);
    if (draws_.empty() || bound == 0) return 0;
    const uint32_t draw = draws_.front();
    if (draws_.size() > 1) draws_.pop_front();
    return draw % bound;
  }
  std::array<std::byte, 16> uuidBytes() override {
    const uint64_t number = ++uuids_;
    std::array<std::byte, 16> bytes{};
    for (size_t i = 0; i < 8; ++i) bytes[15 - i] = static_cast<std::byte>(number >> (8 * i));
    bytes[6] = std::byte{0x40};
    bytes[8] = std::byte{0x80};
    return bytes;
  }

 private:
  std::mutex mutex_;
  std::deque<uint32_t> draws_;
  std::atomic<uint64_t> uuids_{0};
};

/// A device with the properties that the test gives it.
class FakeDevice final : public DeviceProperties {
 public:
  std::optional<std::string> property(std::string_view key) const override {
    const std::lock_guard lock(mutex_);
    const auto found = properties_.find(std::string(key));
    return found == properties_.end() ? std::nullopt : std::optional(found->second);
  }
  void set(const std::string& key, const std::string& value) {
    const std::lock_guard lock(mutex_);
    properties_[key] = value;
  }
  void remove(const std::string& key) {
    const std::lock_guard lock(mutex_);
    properties_.erase(key);
  }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::string> properties_{
      {"UniqueDeviceID", "00008030-001C2D223A82802E"},
      {"ProductVersion", "12.11"},
      {"BuildVersion", "21A329"},
      {"HWModelStr", "N841AP"},
      {"SerialNumber", "C39VX0A1JC6K"},
      {"ProductType", "Pallax12,3"},
      {"DeviceName", "Test Pallax"},
  };
};

class FakeLocale final : public Locale {
 public:
  std::optional<std::string> regionCode() const override { return region; }
  int32_t timeZoneOffsetSeconds() const override { return offset; }

  std::optional<std::string> region = "DE";
  int32_t offset = 3600;
};

/// Resources by "name.type".
class FakeBundle final : public Bundle {
 public:
  std::optional<std::string> resource(std::string_view name, std::string_view type) const override {
    const auto found = resources.find(std::string(name) + "." + std::string(type));
    return found == resources.end() ? std::nullopt : std::optional(found->second);
  }
  std::optional<std::string> version() const override { return bundleVersion; }

  std::map<std::string, std::string> resources;
  std::optional<std::string> bundleVersion = "3.2.1";
};

/// Counts begins and ends.
class FakeTransactions final : public ProcessTransactions {
 public:
  void begin() override { ++begins; }
  void end() override { ++ends; }

  std::atomic<int> begins{0};
  std::atomic<int> ends{0};
};

/// Runs jobs only when the test says so, on the test's thread.
class ManualExecutor final : public Executor {
 public:
  void execute(UniqueFunction<void()> job) override {
    const std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
  }
  /// Runs jobs, and those that they queue, until none is left.
  void runAll() {
    while (true) {
      UniqueFunction<void()> job;
      {
        const std::lock_guard lock(mutex_);
        if (jobs_.empty()) return;
        job = std::move(jobs_.front());
        jobs_.pop_front();
      }
      job();
    }
  }
  size_t waiting() const {
    const std::lock_guard lock(mutex_);
    return jobs_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::deque<UniqueFunction<void()>> jobs_;
};

/// Timers on a FakeClock: `fireDue` queues what is due. Handlers still run on their
/// queues, so with a ManualExecutor the test cranks both.
class FakeTimers final : public TimerService {
 public:
  explicit FakeTimers(const Clock& clock) : clock_(clock) {}

  std::shared_ptr<TimerSource> startTimer(const TimerOptions& options, std::shared_ptr<SerialQueue> queue,
                                          UniqueFunction<void()> fired,
                                          UniqueFunction<void()> cancelled) override;
  void fireDue();
  /// Timers neither cancelled nor (for one-shots) fired.
  size_t running() const;
  /// Options of every timer ever started.
  std::vector<TimerOptions> started() const;

  /// Lets go of all timers. None that is started later is kept, or ever fires.
  void end();

  /// While set, no timer can be had.
  std::atomic<bool> isRefusing{false};

 private:
  struct Timer;
  const Clock& clock_;
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<Timer>> timers_;
  std::vector<TimerOptions> started_;
  bool hasEnded_ = false;
};

}  // namespace zun
