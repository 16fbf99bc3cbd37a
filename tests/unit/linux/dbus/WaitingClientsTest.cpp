#include "linux/dbus/WaitingClients.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <vector>

namespace zun {
namespace {

FileDescriptor aDescriptor() {
  return FileDescriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

TEST(WaitingClientsTest, NobodyHasMoreThanHalfOfWhatOthersLeaveButEverybodyOne) {
  EXPECT_TRUE(hasShare(0, 0, 1));
  EXPECT_FALSE(hasShare(1, 0, 1));
  EXPECT_TRUE(hasShare(4, 0, 10));
  EXPECT_FALSE(hasShare(5, 0, 10));
  EXPECT_TRUE(hasShare(1, 6, 10));
  EXPECT_FALSE(hasShare(2, 6, 10));
  EXPECT_TRUE(hasShare(0, 9, 10));
  EXPECT_FALSE(hasShare(0, 10, 10));
}

TEST(WaitingClientsTest, ProcessesTakeTurnsAndEachKeepsItsOrder) {
  WaitingClients waiting;
  std::vector<int> numbers;
  const auto add = [&](pid_t process) {
    FileDescriptor client = aDescriptor();
    numbers.push_back(client.get());
    EXPECT_TRUE(waiting.add(process, std::move(client)));
  };
  for (const pid_t process : {7, 7, 7, 3, 9}) add(process);
  std::vector<FileDescriptor> taken;
  for (const size_t expected : {size_t{3}, size_t{0}, size_t{4}, size_t{1}}) {
    taken.push_back(waiting.takeNext());
    EXPECT_EQ(taken.back().get(), numbers[expected]);
  }
  add(8);  // its turn comes before that of who waits with many
  for (const size_t expected : {size_t{5}, size_t{2}}) {
    EXPECT_FALSE(waiting.isEmpty());
    taken.push_back(waiting.takeNext());
    EXPECT_EQ(taken.back().get(), numbers[expected]);
  }
  EXPECT_TRUE(waiting.isEmpty());
}

TEST(WaitingClientsTest, AProcessWaitsWithHalfOfAllAtMost) {
  WaitingClients waiting;
  size_t count = 0;
  while (waiting.add(1, FileDescriptor())) ++count;
  EXPECT_EQ(count, WaitingClients::kMaximum / 2);
  EXPECT_TRUE(waiting.add(2, FileDescriptor()));
  (void)waiting.takeNext();
  (void)waiting.takeNext();
  EXPECT_TRUE(waiting.add(1, FileDescriptor()));
  EXPECT_FALSE(waiting.add(1, FileDescriptor()));
}

}  // namespace
}  // namespace zun
