#pragma once

#include <unistd.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "platform/Mutex.h"

namespace zun {

/// True when another thread than the caller's can take the lock now, false when it has to
/// sleep for it.
inline bool isFree(RecursiveMutex& mutex, std::thread& prober) {
  std::atomic<pid_t> probing{0};
  const auto hasLocked = std::make_shared<std::atomic<bool>>(false);
  prober = std::thread([&mutex, &probing, hasLocked] {
    probing = ::gettid();
    const RecursiveMutexLock lock(mutex);
    *hasLocked = true;
  });
  while (probing == 0) std::this_thread::yield();
  const std::string path = "/proc/self/task/" + std::to_string(probing) + "/stat";
  while (!*hasLocked) {
    std::string stat;
    std::getline(std::ifstream(path), stat);
    const size_t nameEnd = stat.rfind(')');
    if (nameEnd != std::string::npos && stat.compare(nameEnd, 3, ") S") == 0) return *hasLocked;
    std::this_thread::yield();
  }
  return true;
}

}  // namespace zun
