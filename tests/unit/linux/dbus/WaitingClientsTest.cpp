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

class TurnsTest : public ::testing::Test {
 protected:
  void add(uid_t user, pid_t process) {
    FileDescriptor client = aDescriptor();
    numbers_.push_back(client.get());
    EXPECT_TRUE(waiting_.add(user, process, std::move(client)));
  }
  /// The next ones, by their place in the order in which they came.
  void expectNext(std::initializer_list<size_t> order) {
    for (const size_t expected : order) {
      EXPECT_FALSE(waiting_.isEmpty());
      taken_.push_back(waiting_.takeNext());
      EXPECT_EQ(taken_.back().get(), numbers_[expected]);
    }
  }

  WaitingClients waiting_;
  std::vector<int> numbers_;
  std::vector<FileDescriptor> taken_;
};

TEST_F(TurnsTest, ProcessesTakeTurnsAndEachKeepsItsOrder) {
  for (const pid_t process : {7, 7, 7, 3, 9}) add(1000, process);
  expectNext({3, 0, 4, 1});
  add(1000, 8);  // its turn comes before that of who waits with many
  expectNext({5, 2});
  EXPECT_TRUE(waiting_.isEmpty());
}

// However many processes one of them has.
TEST_F(TurnsTest, UsersTakeTurnsAndWithinAUserItsProcesses) {
  for (const pid_t process : {10, 11, 12, 13, 10}) add(1000, process);
  for (const pid_t process : {20, 20}) add(1001, process);
  expectNext({0, 5, 1, 6, 2, 3, 4});
  EXPECT_TRUE(waiting_.isEmpty());
}

TEST(WaitingClientsTest, AUserWaitsWithHalfOfAllAtMostAndAProcessWithHalfOfThat) {
  WaitingClients waiting;
  const auto fill = [&](uid_t user, pid_t process) {
    size_t count = 0;
    while (waiting.add(user, process, FileDescriptor())) ++count;
    return count;
  };
  EXPECT_EQ(fill(1, 1), WaitingClients::kMaximumOfUser / 2);
  EXPECT_EQ(fill(1, 2), WaitingClients::kMaximumOfUser / 4);
  pid_t process = 3;
  while (waiting.add(1, process, FileDescriptor())) ++process;
  EXPECT_EQ(process - 3, static_cast<pid_t>(WaitingClients::kMaximumOfUser / 4));
  (void)waiting.takeNext();
  EXPECT_TRUE(waiting.add(1, process, FileDescriptor()));
  EXPECT_FALSE(waiting.add(1, process, FileDescriptor()));
  EXPECT_EQ(fill(2, 1), WaitingClients::kMaximumOfUser / 2);
}

}  // namespace
}  // namespace zun
