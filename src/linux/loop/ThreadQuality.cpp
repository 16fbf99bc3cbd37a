#include "linux/loop/ThreadQuality.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

namespace zun {

void setThreadQualityOfServiceUtility() {
  constexpr int kUtilityNice = 5;
  const auto thread = static_cast<id_t>(gettid());
  // On Linux these act on one thread, not on its process.
  if (getpriority(PRIO_PROCESS, thread) < kUtilityNice) {
    (void)setpriority(PRIO_PROCESS, thread, kUtilityNice);
  }
  if (sched_getscheduler(static_cast<pid_t>(thread)) == SCHED_IDLE) return;
  const sched_param parameters{};
  (void)sched_setscheduler(static_cast<pid_t>(thread), SCHED_BATCH, &parameters);
}

}  // namespace zun
