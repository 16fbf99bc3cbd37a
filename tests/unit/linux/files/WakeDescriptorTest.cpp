#include "linux/files/WakeDescriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

namespace zun {
namespace {

bool isReadable(const WakeDescriptor& wake) {
  pollfd polled{wake.get(), POLLIN, 0};
  return ::poll(&polled, 1, 0) == 1;
}

TEST(WakeDescriptorTest, IsReadableFromASignalUntilItIsTaken) {
  const WakeDescriptor wake;
  ASSERT_TRUE(wake.isOpen());
  EXPECT_FALSE(isReadable(wake));
  wake.signal();
  EXPECT_TRUE(isReadable(wake));
  EXPECT_TRUE(wake.take());
  EXPECT_FALSE(isReadable(wake));
}

TEST(WakeDescriptorTest, ManySignalsAreTakenAtOnce) {
  const WakeDescriptor wake;
  for (int i = 0; i < 3; ++i) wake.signal();
  EXPECT_TRUE(wake.take());
  EXPECT_FALSE(wake.take());
}

TEST(WakeDescriptorTest, TakingWaitsForNoSignal) {
  const WakeDescriptor wake;
  EXPECT_FALSE(wake.take());
}

TEST(WakeDescriptorTest, SignalNeverWaitsForTheOneThatIsToTakeIt) {
  const WakeDescriptor wake;
  ASSERT_EQ(::eventfd_write(wake.get(), UINT64_MAX - 1), 0);  // as many as it counts
  wake.signal();
  EXPECT_TRUE(isReadable(wake));
}

TEST(WakeDescriptorTest, ProgramsThatAreStartedDoNotGetIt) {
  const WakeDescriptor wake;
  EXPECT_EQ(::fcntl(wake.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

}  // namespace
}  // namespace zun
