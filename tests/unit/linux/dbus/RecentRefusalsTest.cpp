#include "linux/dbus/RecentRefusals.h"

#include <gtest/gtest.h>

namespace zun {
namespace {

constexpr RecentRefusals::Time kNow = std::chrono::seconds(5);

KnownPeer peer(pid_t process, uid_t user = 1000, gid_t group = 1000, std::vector<gid_t> others = {}) {
  return {PeerIdentity{process, user, group, std::move(others), std::nullopt}, {}};
}

TEST(RecentRefusalsTest, TheSameProcessOfTheSameUserIsKnownForAMoment) {
  RecentRefusals refusals;
  refusals.add(peer(7), kNow);
  const RecentRefusals::Time last = kNow + RecentRefusals::kKept - RecentRefusals::Time(1);
  ASSERT_NE(refusals.find(peer(7).identity(), last), nullptr);
  EXPECT_EQ(refusals.find(peer(8).identity(), last), nullptr);
  EXPECT_EQ(refusals.find(peer(7).identity(), kNow + RecentRefusals::kKept), nullptr);
}

// A process may have become another user's since.
TEST(RecentRefusalsTest, AnotherUserOrGroupIsNotKnown) {
  RecentRefusals refusals;
  refusals.add(peer(7), kNow);
  EXPECT_EQ(refusals.find(peer(7, 1001).identity(), kNow), nullptr);
  refusals.add(peer(7), kNow);
  EXPECT_EQ(refusals.find(peer(7, 1000, 1001).identity(), kNow), nullptr);
}

TEST(RecentRefusalsTest, AnAccountIsKnownInWhateverProcess) {
  RecentRefusals refusals;
  refusals.addAccount(peer(7), kNow);
  EXPECT_NE(refusals.find(peer(8).identity(), kNow), nullptr);
  EXPECT_NE(refusals.find(peer(0).identity(), kNow), nullptr);
  EXPECT_EQ(refusals.find(peer(7, 1001).identity(), kNow), nullptr);
  EXPECT_EQ(refusals.find(peer(7, 1000, 1000, {5}).identity(), kNow), nullptr);
  refusals.addAccount(peer(7), kNow);
  EXPECT_EQ(refusals.find(peer(7, 1000, 1001).identity(), kNow), nullptr);
  refusals.addAccount(peer(7), kNow);
  EXPECT_EQ(refusals.find(peer(7).identity(), kNow + RecentRefusals::kKept), nullptr);
}

// All of another namespace have the number 0.
TEST(RecentRefusalsTest, AProcessWithoutANumberIsNotRemembered) {
  RecentRefusals refusals;
  refusals.add(peer(0), kNow);
  EXPECT_EQ(refusals.find(peer(0).identity(), kNow), nullptr);
}

TEST(RecentRefusalsTest, SoManyProcessesAreRememberedAndNoMore) {
  RecentRefusals refusals;
  const auto count = static_cast<pid_t>(RecentRefusals::kMaximum);
  for (pid_t process = 1; process <= count; ++process) refusals.add(peer(process), kNow);
  EXPECT_NE(refusals.find(peer(1).identity(), kNow), nullptr);
  refusals.add(peer(count + 1), kNow);
  EXPECT_EQ(refusals.find(peer(1).identity(), kNow), nullptr);
  EXPECT_NE(refusals.find(peer(count + 1).identity(), kNow), nullptr);
}

}  // namespace
}  // namespace zun
