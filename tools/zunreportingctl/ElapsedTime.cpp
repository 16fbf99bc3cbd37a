#include "ElapsedTime.h"

#include <chrono>
#include <ostream>

namespace zun {

using std::chrono::seconds;
using std::chrono::steady_clock;

ElapsedTime::ElapsedTime(std::ostream& terminal, std::string text)
    : terminal_(terminal), text_(std::move(text)), thread_([this] { show(); }) {}

ElapsedTime::~ElapsedTime() {
  {
    const std::lock_guard lock(mutex_);
    hasEnded_ = true;
  }
  changed_.notify_all();
  thread_.join();
  terminal_ << "\r\033[K" << std::flush;
}

void ElapsedTime::show() {
  const auto start = steady_clock::now();
  std::unique_lock lock(mutex_);
  while (!hasEnded_) {
    const auto elapsed = std::chrono::duration_cast<seconds>(steady_clock::now() - start);
    terminal_ << '\r' << text_ << ", " << elapsed.count() << " s\033[K" << std::flush;
    changed_.wait_until(lock, start + elapsed + seconds(1), [this] { return hasEnded_; });
  }
}

}  // namespace zun
