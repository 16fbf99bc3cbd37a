#include "linux/system/JournalPowerLog.h"

#include <endian.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "linux/system/SystemLogs.h"
#include "values/JSONWriter.h"
#include "values/UTF8.h"

namespace zun {

namespace {

std::string jsonOf(const Dictionary& event) {
  return writeJSON(Value(event), JSONFormat::kCompact);
}

/// With its length in front, so that a value may hold whatever it likes.
void appendField(std::string& entry, std::string_view name, std::string_view value) {
  const uint64_t length = htole64(value.size());
  entry += name;
  entry += '\n';
  entry.append(reinterpret_cast<const char*>(&length), sizeof length);
  entry += value;
  entry += '\n';
}

std::string journalEntry(uint32_t category, std::string_view sender, const Dictionary& event) {
  std::string json = jsonOf(event);
  cutLongText(json, JournalPowerLog::kMaximumEventBytes);
  std::string entry;
  entry.reserve(json.size() + 256);
  appendField(entry, "MESSAGE", fmt::format("power event: category {}, sender {}", category, sender));
  appendField(entry, "PRIORITY", "6");
  appendField(entry, "SYSLOG_IDENTIFIER", "zunreportingd");
  appendField(entry, "ZUN_POWER_CATEGORY", fmt::format("{}", category));
  appendField(entry, "ZUN_POWER_SENDER", sender);
  appendField(entry, "ZUN_POWER_EVENT", json);
  return entry;
}

/// The journal was started anew, and its former socket leads nowhere.
bool isStale(int error) {
  return error == ECONNREFUSED || error == ECONNRESET || error == ENOTCONN || error == EPIPE;
}

}  // namespace

std::unique_ptr<PowerLog> makePowerLog(LogTarget target, SystemLog& log) {
  if (leadsToJournal(target)) return std::make_unique<JournalPowerLog>(log, JournalPowerLog::kJournalSocket);
  return std::make_unique<LinePowerLog>(log);
}

void LinePowerLog::writeEvent(uint32_t category, std::string_view sender, const Dictionary& event) {
  if (!log_.isEnabled(LogLevel::kDefault)) return;
  log_.note("power event: category {}, sender {}, {}", category, sender, jsonOf(event));
}

JournalPowerLog::JournalPowerLog(SystemLog& log, std::string_view socketPath,
                                 std::chrono::milliseconds patience)
    : log_(log), lines_(log), socketPath_(socketPath), patience_(patience) {}

void JournalPowerLog::writeEvent(uint32_t category, std::string_view sender, const Dictionary& event) {
  Outcome outcome = Outcome::kAway;
  uint64_t missed = 0;
  try {
    const std::string entry = journalEntry(category, sender, event);
    const MutexLock lock(mutex_);
    outcome = send(entry);
    if (outcome == Outcome::kStalled) ++dropped_;
    if (outcome == Outcome::kWritten) missed = std::exchange(dropped_, 0);
  } catch (const std::exception&) {
    return;  // no memory for the entry: the caller's work is worth more
  }
  if (missed > 0) log_.note("power event: {} of them were dropped while the journal did not read", missed);
  if (outcome == Outcome::kAway) lines_.writeEvent(category, sender, event);
}

JournalPowerLog::Outcome JournalPowerLog::send(std::string_view entry) {
  int error = sendOnce(entry);
  if (isStale(error)) {
    socket_.reset();
    error = sendOnce(entry);
  }
  if (error == EAGAIN) error = waitUntilWritable() ? sendOnce(entry) : EAGAIN;
  if (error == EAGAIN) return Outcome::kStalled;
  isStalled_ = false;
  return error == 0 ? Outcome::kWritten : Outcome::kAway;
}

int JournalPowerLog::sendOnce(std::string_view entry) {
  if (!socket_.isOpen()) {
    if (const int error = connect(); error != 0) return error;
  }
  ssize_t sent = 0;
  do {
    sent = ::send(socket_.get(), entry.data(), entry.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent < 0 ? errno : 0;
}

int JournalPowerLog::connect() {
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

bool JournalPowerLog::waitUntilWritable() {
  pollfd ready{socket_.get(), POLLOUT, 0};
  int outcome = 0;
  do {
    outcome = ::poll(&ready, 1, isStalled_ ? 0 : static_cast<int>(patience_.count()));
  } while (outcome < 0 && errno == EINTR);
  isStalled_ = outcome <= 0;
  return !isStalled_;
}

}  // namespace zun
