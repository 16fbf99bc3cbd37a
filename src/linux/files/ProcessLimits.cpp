#include "linux/files/ProcessLimits.h"

#include <sys/resource.h>

#include <algorithm>
#include <limits>

namespace zun {

void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  (void)setrlimit(RLIMIT_NOFILE, &limit);
}

int firstReservedDescriptor() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return std::numeric_limits<int>::max();
  const rlim_t first = limit.rlim_cur - limit.rlim_cur / 4;
  return static_cast<int>(std::min<rlim_t>(first, std::numeric_limits<int>::max()));
}

}  // namespace zun
