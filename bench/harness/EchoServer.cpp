#include "harness/EchoServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <new>

#include "values/Check.h"

namespace zun::bench {

EchoServer::EchoServer() {
  void* const shared =
      mmap(nullptr, sizeof *received_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ZUN_CHECK(shared != MAP_FAILED);
  received_ = new (shared) std::atomic<uint64_t>(0);

  const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ZUN_CHECK(bind(socket, reinterpret_cast<sockaddr*>(&address), length) == 0);
  ZUN_CHECK(getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0);
  port_ = ntohs(address.sin_port);

  process_ = fork();
  ZUN_CHECK(process_ >= 0);
  if (process_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    char datagram[2048];
    while (true) {
      length = sizeof address;
      const ssize_t size =
          recvfrom(socket, datagram, sizeof datagram, 0, reinterpret_cast<sockaddr*>(&address), &length);
      if (size <= 0) continue;
      (void)sendto(socket, datagram, static_cast<size_t>(size), 0, reinterpret_cast<sockaddr*>(&address),
                   length);
      ++*received_;
    }
  }
  close(socket);
}

EchoServer::~EchoServer() {
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
  munmap(received_, sizeof *received_);
}

}  // namespace zun::bench
