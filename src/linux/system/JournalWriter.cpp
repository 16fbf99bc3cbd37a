#include "linux/system/JournalWriter.h"

#include <endian.h>
#include <fmt/format.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace zun {

namespace {

constexpr int kBetweenLooksMilliseconds = 50;

/// The journal was started anew, and its former socket leads nowhere.
bool isStale(int error) {
  return error == ECONNREFUSED || error == ECONNRESET || error == ENOTCONN || error == EPIPE;
}

}  // namespace

void appendJournalField(std::string& entry, std::string_view name, std::string_view value) {
  const uint64_t length = htole64(value.size());
  entry += name;
  entry += '\n';
  entry.append(reinterpret_cast<const char*>(&length), sizeof length);
  entry += value;
  entry += '\n';
}

JournalWriter::JournalWriter(std::string_view socketPath, std::chrono::milliseconds patience)
    : socketPath_(socketPath), patience_(patience), thread_([this] { run(); }) {}

JournalWriter::~JournalWriter() {
  writeOut();
  hasGivenUp_ = true;
  {
    const MutexLock lock(mutex_);
    isEnding_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void JournalWriter::write(std::string entry) {
  {
    const MutexLock lock(mutex_);
    if (waitingBytes_ + entry.size() > kMaximumWaitingBytes) {
      ++dropped_;
      return;
    }
    tellDropped();
    add(std::move(entry));
  }
  changed_.notify_all();
}

void JournalWriter::writeOut() {
  const auto end = std::chrono::steady_clock::now() + patience_;
  const MutexLock lock(mutex_);
  tellDropped();
  changed_.notify_all();
  while (!waiting_.empty()) {
    if (changed_.wait_until(mutex_, end) == std::cv_status::timeout) return;
  }
}

void JournalWriter::add(std::string entry) {
  const size_t size = entry.size();
  waiting_.push_back(std::move(entry));
  waitingBytes_ += size;
}

void JournalWriter::tellDropped() {
  if (dropped_ == 0) return;
  std::string entry;
  appendJournalField(entry, "MESSAGE",
                     fmt::format("log: {} entries were dropped while the journal did not read", dropped_));
  appendJournalField(entry, "PRIORITY", "3");
  appendJournalField(entry, "SYSLOG_IDENTIFIER", "zunreportingd");
  add(std::move(entry));
  dropped_ = 0;
}

void JournalWriter::run() noexcept {
  pthread_setname_np(pthread_self(), "zun-log");
  while (true) {
    const std::string* entry = nullptr;
    {
      const MutexLock lock(mutex_);
      while (waiting_.empty() && !isEnding_) changed_.wait(mutex_);
      if (isEnding_) return;
      entry = &waiting_.front();  // only this thread takes it away
    }
    send(*entry);
    {
      const MutexLock lock(mutex_);
      waitingBytes_ -= entry->size();
      waiting_.pop_front();
    }
    changed_.notify_all();
  }
}

void JournalWriter::send(std::string_view entry) {
  int error = sendOnce(entry);
  while (error == EAGAIN && !hasGivenUp_) {
    pollfd ready{socket_.get(), POLLOUT, 0};
    (void)::poll(&ready, 1, kBetweenLooksMilliseconds);
    error = sendOnce(entry);
  }
  if (!isStale(error)) return;
  socket_.reset();
  (void)sendOnce(entry);
}

int JournalWriter::sendOnce(std::string_view entry) {
  if (!socket_.isOpen()) {
    if (const int error = connect(); error != 0) return error;
  }
  ssize_t sent = 0;
  do {
    sent = ::send(socket_.get(), entry.data(), entry.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent < 0 ? errno : 0;
}

int JournalWriter::connect() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath_.size() >= sizeof address.sun_path) return ENAMETOOLONG;
  std::memcpy(address.sun_path, socketPath_.data(), socketPath_.size());
  FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket.isOpen()) return errno;
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return errno;
  socket_ = std::move(socket);
  return 0;
}

}  // namespace zun
