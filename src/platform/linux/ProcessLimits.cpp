#include "platform/linux/ProcessLimits.h"

#include <sys/resource.h>

namespace zun {

void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  (void)setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace zun
