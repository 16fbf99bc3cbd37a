#include "linux/loop/ThreadQuality.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

namespace zun {
namespace {

TEST(ThreadQualityTest, UtilityMakesTheCallingThreadGiveWayAndNoOther) {
  const int before = ::getpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()));
  std::thread([before] {
    setThreadQualityOfServiceUtility();
    EXPECT_EQ(::getpriority(PRIO_PROCESS, static_cast<id_t>(::gettid())), std::max(before, 5));
    EXPECT_EQ(::sched_getscheduler(0), SCHED_BATCH);
    std::thread([before] {
      EXPECT_EQ(::getpriority(PRIO_PROCESS, static_cast<id_t>(::gettid())), std::max(before, 5));
    }).join();
  }).join();
  EXPECT_EQ(::getpriority(PRIO_PROCESS, static_cast<id_t>(::gettid())), before);
}

TEST(ThreadQualityTest, ThreadThatGivesWayEvenMoreStaysSo) {
  std::thread([] {
    const sched_param parameters{};
    ASSERT_EQ(::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), 19), 0);
    ASSERT_EQ(::sched_setscheduler(0, SCHED_IDLE, &parameters), 0);
    setThreadQualityOfServiceUtility();
    EXPECT_EQ(::getpriority(PRIO_PROCESS, static_cast<id_t>(::gettid())), 19);
    EXPECT_EQ(::sched_getscheduler(0), SCHED_IDLE);
  }).join();
}

}  // namespace
}  // namespace zun
