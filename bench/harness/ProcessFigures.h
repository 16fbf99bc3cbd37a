#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string_view>

namespace zun::bench {

/// What the kernel tells of another process.

/// Of all its threads, those that have ended included.
[[nodiscard]] std::chrono::nanoseconds cpuTimeOf(pid_t process);
/// A field of /proc/PID/status, such as "VmHWM:", "RssAnon:" or "Threads:".
[[nodiscard]] uint64_t statusOf(pid_t process, std::string_view field);
/// How often threads that there are have begun to wait.
[[nodiscard]] uint64_t waitsOf(pid_t process);
[[nodiscard]] uint64_t descriptorsOf(pid_t process);

}  // namespace zun::bench
