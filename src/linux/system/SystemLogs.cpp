#include "linux/system/SystemLogs.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <utility>

namespace zun {

namespace {

constexpr int kPatienceMilliseconds = 200;
constexpr int kAttempts = 8;

const char* nameOf(LogLevel level) {
  switch (level) {
    case LogLevel::kDebug: return "debug";
    case LogLevel::kDefault: return "default";
    case LogLevel::kError: break;
  }
  return "error";
}

std::string_view priorityOf(LogLevel level) {
  static_assert(LOG_DEBUG == 7 && LOG_NOTICE == 5 && LOG_ERR == 3);
  switch (level) {
    case LogLevel::kDebug: return "7";
    case LogLevel::kDefault: return "5";
    case LogLevel::kError: break;
  }
  return "3";
}

bool isSocket(int descriptor) {
  struct stat status {};
  return fstat(descriptor, &status) == 0 && S_ISSOCK(status.st_mode);
}

void appendEscaped(std::string& out, std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\n') {
      out += "\\n";
    } else if ((byte < 0x20 && c != '\t') || byte == 0x7F) {
      fmt::format_to(std::back_inserter(out), "\\x{:02x}", byte);
    } else {
      out += c;
    }
  }
}

/// Keeps a write to a broken pipe from ending the process, whatever the process has
/// decided about SIGPIPE.
class BrokenPipeGuard final {
 public:
  BrokenPipeGuard() {
    sigemptyset(&brokenPipe_);
    sigaddset(&brokenPipe_, SIGPIPE);
    sigset_t pending;
    wasPending_ = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &brokenPipe_, &before_);
  }
  ~BrokenPipeGuard() {
    if (isBroken_ && !wasPending_) {
      const timespec atOnce{};
      while (sigtimedwait(&brokenPipe_, nullptr, &atOnce) < 0 && errno == EINTR) {
      }
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  BrokenPipeGuard(const BrokenPipeGuard&) = delete;
  BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;

  void noteBroken() { isBroken_ = true; }

 private:
  sigset_t brokenPipe_{};
  sigset_t before_{};
  bool wasPending_ = false;
  bool isBroken_ = false;
};

}  // namespace

std::unique_ptr<SystemLog> makeSystemLog(LogTarget target, LogLevel level, const std::string& root) {
  const bool leadsToJournal =
      target == LogTarget::kJournal ||
      (target == LogTarget::kAuto && isJournalStream(STDERR_FILENO, std::getenv("JOURNAL_STREAM")));
  if (leadsToJournal)
    return std::make_unique<JournalLog>(level, root + std::string(JournalWriter::kJournalSocket));
  return std::make_unique<StreamLog>(STDERR_FILENO, level);
}

bool isJournalStream(int descriptor, const char* journalStream) {
  struct stat status {};
  if (journalStream == nullptr || fstat(descriptor, &status) != 0) return false;
  return fmt::format("{}:{}", status.st_dev, status.st_ino) == journalStream;
}

void JournalLog::write(LogLevel level, std::string_view line) {
  try {
    std::string entry;
    entry.reserve(line.size() + 128);
    appendJournalField(entry, "MESSAGE", line);
    appendJournalField(entry, "PRIORITY", priorityOf(level));
    appendJournalField(entry, "SYSLOG_IDENTIFIER", "zunreportingd");
    journal_.write(std::move(entry));
  } catch (const std::exception&) {
    // No memory for the line: the caller's work is worth more than its trace.
  }
}

StreamLog::StreamLog(int descriptor, LogLevel level)
    : descriptor_(descriptor),
      level_(level),
      isSocket_(isSocket(descriptor)),
      prefix_(fmt::format("zunreportingd[{}] ", getpid())) {}

void StreamLog::write(LogLevel level, std::string_view line) {
  try {
    std::string text;
    text.reserve(prefix_.size() + line.size() + 16);
    text += prefix_;
    text += nameOf(level);
    text += ": ";
    appendEscaped(text, line);
    text += '\n';
    const MutexLock lock(mutex_);
    writeLine(text);
  } catch (const std::exception&) {
    // As above: no memory for the line.
  }
}

void StreamLog::writeLine(std::string_view line) {
  if (descriptor_ < 0) return;
  BrokenPipeGuard guard;
  if (isTorn_) {
    // The line before was given up halfway: this one still gets a line of its own.
    if (writeSome("\n") != 1) return;
    isTorn_ = false;
  }
  bool hasBegun = false;
  while (!line.empty()) {
    const ssize_t written = writeSome(line);
    if (written < 0) {
      if (errno == EPIPE) guard.noteBroken();
      isTorn_ = hasBegun;
      return;
    }
    line.remove_prefix(static_cast<size_t>(written));
    hasBegun = true;
  }
}

ssize_t StreamLog::writeSome(std::string_view text) {
  // A pipe that is ready takes PIPE_BUF bytes without making the writer wait. A socket
  // is asked first: it calls itself ready only when it is nearly empty.
  const size_t size = std::min<size_t>(text.size(), PIPE_BUF);
  bool isReady = isSocket_ || waitUntilWritable();
  for (int attempt = 0; isReady && attempt < kAttempts; ++attempt) {
    const ssize_t written = isSocket_ ? send(descriptor_, text.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL)
                                      : ::write(descriptor_, text.data(), size);
    if (written >= 0) {
      isStalled_ = false;
      return written;
    }
    if (errno == EAGAIN) {
      isReady = waitUntilWritable();
    } else if (errno != EINTR) {
      return -1;
    }
  }
  errno = EAGAIN;
  return -1;
}

bool StreamLog::waitUntilWritable() {
  pollfd ready{descriptor_, POLLOUT, 0};
  int outcome = 0;
  do {
    outcome = poll(&ready, 1, isStalled_ ? 0 : kPatienceMilliseconds);
  } while (outcome < 0 && errno == EINTR);
  isStalled_ = outcome <= 0;
  return !isStalled_;
}

}  // namespace zun
