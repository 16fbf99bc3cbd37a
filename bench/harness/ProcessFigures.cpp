#include "harness/ProcessFigures.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include "values/Check.h"

namespace zun::bench {

namespace {

uint64_t fieldOf(const std::string& path, std::string_view field) {
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(field)) return std::stoull(line.substr(field.size()));
  }
  return 0;
}

}  // namespace

std::chrono::nanoseconds cpuTimeOf(pid_t process) {
  clockid_t clock{};
  timespec time{};
  ZUN_CHECK(clock_getcpuclockid(process, &clock) == 0 && clock_gettime(clock, &time) == 0);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

uint64_t statusOf(pid_t process, std::string_view field) {
  return fieldOf(fmt::format("/proc/{}/status", process), field);
}

uint64_t waitsOf(pid_t process) {
  uint64_t waits = 0;
  for (const auto& thread : std::filesystem::directory_iterator(fmt::format("/proc/{}/task", process)))
    waits += fieldOf(thread.path() / "status", "voluntary_ctxt_switches:");
  return waits;
}

uint64_t descriptorsOf(pid_t process) {
  const std::filesystem::directory_iterator entries(fmt::format("/proc/{}/fd", process));
  return static_cast<uint64_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace zun::bench
