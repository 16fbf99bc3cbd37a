#pragma once

#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>

namespace zun {

/// True while the thread of this process waits for something: a lock, say.
inline bool isBlocked(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string text;
  std::getline(file, text);
  const size_t end = text.rfind(')');  // of the thread's name
  return end != std::string::npos && end + 2 < text.size() && text[end + 2] == 'S';
}

/// Waits until the thread waits for something. The caller must not hold, now and then,
/// what the thread could come across on its way there.
inline void waitUntilBlocked(pid_t thread) {
  while (!isBlocked(thread)) std::this_thread::yield();
}

}  // namespace zun
