#include "linux/service/PeerIdentity.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <functional>
#include <numeric>
#include <thread>
#include <vector>

#include "linux/files/FileDescriptor.h"
#include "support/ScratchFolder.h"

namespace zun {
namespace {

/// Both ends of a connection of this process with itself.
struct SocketPair {
  SocketPair() {
    std::array<int, 2> made{-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, made.data()), 0);
    ours = FileDescriptor(made[0]);
    theirs = FileDescriptor(made[1]);
  }
  FileDescriptor ours;
  FileDescriptor theirs;
};

TEST(PeerIdentityTest, AProcessIsKnownWithItsUserAndProgram) {
  const SocketPair sockets;
  const auto peer = readPeerIdentity(sockets.ours.get());
  ASSERT_TRUE(peer && peer->program);
  EXPECT_EQ(peer->process, ::getpid());
  EXPECT_EQ(peer->user, ::getuid());
  EXPECT_EQ(peer->group, ::getgid());
  struct stat status {};
  ASSERT_EQ(::stat("/proc/self/exe", &status), 0);
  EXPECT_EQ(peer->program->device, status.st_dev);
  EXPECT_EQ(peer->program->inode, status.st_ino);
  EXPECT_FALSE(peer->program->isDeleted);
  EXPECT_EQ(peer->program->path, std::filesystem::read_symlink("/proc/self/exe").string());
  EXPECT_TRUE(readPeerIdentity(sockets.ours.get())->program->isStill(*peer->program));
}

// Users of large sites are in more groups than the first look has room for.
TEST(PeerIdentityTest, AllOfManySupplementaryGroupsAreKnown) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can join groups";
  std::vector<gid_t> groups(100);
  std::iota(groups.begin(), groups.end(), 5000);
  std::thread([&groups] {
    // The groups of this thread alone, unlike setgroups() of the C library.
    ASSERT_EQ(::syscall(SYS_setgroups, groups.size(), groups.data()), 0);
    const SocketPair sockets;
    const auto peer = readPeerIdentity(sockets.ours.get());
    ASSERT_TRUE(peer);
    EXPECT_EQ(peer->supplementaryGroups, groups);
  }).join();
}

TEST(PeerIdentityTest, AnotherProcessFileOrDeviceIsAnotherProgram) {
  const PeerProgram program{1, 2, 3, "/x"};
  EXPECT_TRUE((PeerProgram{1, 2, 3, "/y"}.isStill(program)));
  for (const PeerProgram& other : {PeerProgram{0, 2, 3, "/x"}, {1, 0, 3, "/x"}, {1, 2, 0, "/x"}}) {
    EXPECT_FALSE(other.isStill(program));
  }
}

// A process names itself as it likes, and its name stands before the time of its start.
TEST(PeerIdentityTest, AProcessCannotChangeWhenItStarted) {
  const SocketPair sockets;
  const auto before = readPeerIdentity(sockets.ours.get());
  std::array<char, 16> name{};
  ASSERT_EQ(::prctl(PR_GET_NAME, name.data()), 0);
  ASSERT_EQ(::prctl(PR_SET_NAME, "x) R 1 1 (y"), 0);
  const auto after = readPeerIdentity(sockets.ours.get());
  ASSERT_EQ(::prctl(PR_SET_NAME, name.data()), 0);
  ASSERT_TRUE(before->program && after->program);
  EXPECT_NE(before->program->processStart, 0u);
  EXPECT_EQ(after->program->processStart, before->program->processStart);
}

/// A message of one byte, with room for one descriptor. It refers to itself.
struct OneDescriptor {
  OneDescriptor() {
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
  }
  OneDescriptor(const OneDescriptor&) = delete;
  OneDescriptor& operator=(const OneDescriptor&) = delete;

  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  char byte = 0;
  iovec part{&byte, 1};
  msghdr message{};
};

TEST(PeerIdentityTest, AProcessThatHasEndedHasNoProgram) {
  const SocketPair ends;
  std::array<int, 2> made{-1, -1};
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // A pair of its own, so that the kernel knows it as the peer, handed over.
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, made.data()) != 0) ::_exit(1);
    OneDescriptor handedOver;
    cmsghdr* const header = CMSG_FIRSTHDR(&handedOver.message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    *reinterpret_cast<int*>(CMSG_DATA(header)) = made[0];
    ::_exit(::sendmsg(ends.theirs.get(), &handedOver.message, 0) == 1 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  OneDescriptor received;
  ASSERT_EQ(::recvmsg(ends.ours.get(), &received.message, 0), 1);
  const FileDescriptor socket(*reinterpret_cast<const int*>(CMSG_DATA(CMSG_FIRSTHDR(&received.message))));
  const auto peer = readPeerIdentity(socket.get());
  ASSERT_TRUE(peer);
  EXPECT_EQ(peer->process, child);
  EXPECT_FALSE(peer->program);
  EXPECT_EQ(peer->description(),
            "pid " + std::to_string(child) + ", user " + std::to_string(::getuid()) + ", unknown executable");
}

}  // namespace
}  // namespace zun
