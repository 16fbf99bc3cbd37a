#include "harness/Sink.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string_view>
#include <thread>

#include "values/Check.h"

namespace zun::bench {

namespace {

constexpr std::string_view kAnswer =
    "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 2\r\n\r\n{}";

SSL_CTX* makeContext(const std::string& certificate, const std::string& key) {
  SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
  BIO* const certificateBio = BIO_new_mem_buf(certificate.data(), static_cast<int>(certificate.size()));
  BIO* const keyBio = BIO_new_mem_buf(key.data(), static_cast<int>(key.size()));
  X509* const x509 = PEM_read_bio_X509(certificateBio, nullptr, nullptr, nullptr);
  EVP_PKEY* const privateKey = PEM_read_bio_PrivateKey(keyBio, nullptr, nullptr, nullptr);
  ZUN_CHECK(SSL_CTX_use_certificate(context, x509) == 1 && SSL_CTX_use_PrivateKey(context, privateKey) == 1);
  return context;
}

/// Length of the body that follows `head`.
size_t contentLength(std::string_view head) {
  for (size_t line = head.find("\r\n"); line != std::string_view::npos; line = head.find("\r\n", line + 2)) {
    constexpr std::string_view kName = "content-length:";
    if (strncasecmp(head.data() + line + 2, kName.data(), kName.size()) == 0) {
      return std::strtoul(head.data() + line + 2 + kName.size(), nullptr, 10);
    }
  }
  return 0;
}

}  // namespace

Sink::Sink(const std::string& certificate, const std::string& key) {
  void* const shared =
      mmap(nullptr, sizeof(Counters), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ZUN_CHECK(shared != MAP_FAILED);
  counters_ = new (shared) Counters;

  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ZUN_CHECK(bind(listener, reinterpret_cast<sockaddr*>(&address), length) == 0 && listen(listener, 64) == 0);
  ZUN_CHECK(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0);
  port_ = ntohs(address.sin_port);

  process_ = fork();
  ZUN_CHECK(process_ >= 0);
  if (process_ == 0) serve(listener, certificate, key);
  close(listener);
}

Sink::~Sink() {
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
  munmap(counters_, sizeof(Counters));
}

void Sink::serve(int listener, const std::string& certificate, const std::string& key) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  signal(SIGPIPE, SIG_IGN);
  SSL_CTX* const context = makeContext(certificate, key);
  while (true) {
    const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    std::thread([this, context, client] { serveConnection(context, client); }).detach();
  }
}

void Sink::serveConnection(void* tlsContext, int socket) {
  const int on = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  SSL* const tls = SSL_new(static_cast<SSL_CTX*>(tlsContext));
  SSL_set_fd(tls, socket);
  std::string buffer;
  char chunk[64 * 1024];
  if (SSL_accept(tls) == 1) {
    while (true) {
      const size_t head = buffer.find("\r\n\r\n");
      const size_t body =
          head == std::string::npos ? 0 : contentLength(std::string_view(buffer).substr(0, head + 2));
      if (head != std::string::npos && buffer.size() >= head + 4 + body) {
        const std::string_view request = buffer;
        take(request.substr(0, head + 2), request.substr(head + 4, body));
        buffer.erase(0, head + 4 + body);
        if (SSL_write(tls, kAnswer.data(), static_cast<int>(kAnswer.size())) <= 0) break;
        continue;
      }
      const int count = SSL_read(tls, chunk, sizeof chunk);
      if (count <= 0) break;
      buffer.append(chunk, static_cast<size_t>(count));
    }
  }
  SSL_free(tls);
  close(socket);
}

void Sink::take(std::string_view head, std::string_view body) {
  if (head.find("gzip") == std::string_view::npos)
    counters_->lines += static_cast<uint64_t>(std::count(body.begin(), body.end(), '\n'));
  keep(body);
  ++counters_->posts;
}

void Sink::keep(std::string_view body) {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  const uint32_t kept = counters_->kept;
  const size_t begin = kept == 0 ? 0 : counters_->ends[kept - 1];
  if (kept == kKeptBodies || begin + body.size() > kKeptBytes) return;
  std::memcpy(counters_->bytes + begin, body.data(), body.size());
  counters_->ends[kept] = static_cast<uint32_t>(begin + body.size());
  counters_->kept = kept + 1;
}

std::vector<std::string> Sink::bodies() const {
  std::vector<std::string> bodies;
  size_t begin = 0;
  for (uint32_t i = 0; i < counters_->kept; ++i) {
    bodies.emplace_back(counters_->bytes + begin, counters_->bytes + counters_->ends[i]);
    begin = counters_->ends[i];
  }
  return bodies;
}

}  // namespace zun::bench
