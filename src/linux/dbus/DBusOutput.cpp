#include "linux/dbus/DBusOutput.h"

#include <sys/socket.h>

#include <cerrno>

#include "linux/dbus/DBusNames.h"

namespace zun {

namespace {

// A buffer that grew beyond this is given back once it has been written.
constexpr size_t kKeptBufferBytes = size_t{16} << 10;

}  // namespace

/// Where the reply to one call goes. Keeps the output, not the connection.
class DBusOutput::PendingReply final : public ServiceReply::Sink {
 public:
  PendingReply(std::shared_ptr<DBusOutput> output, const DBusHeader& call, std::string_view signature)
      : output_(std::move(output)),
        serial_(call.serial),
        expectsReply_(call.expectsReply()),
        signature_(signature) {
    ++output_->pendingReplies_;
  }
  ~PendingReply() override { output_->replyGiven(); }

  void sendReturn(const Array& values, const Array* shorter) override {
    if (expectsReply_) output_->sendReturn(serial_, signature_, values, shorter);
  }
  void sendError(std::string_view name, std::string_view text) override {
    if (expectsReply_) output_->sendError(serial_, name, text);
  }

 private:
  std::shared_ptr<DBusOutput> output_;
  uint32_t serial_;
  bool expectsReply_;
  std::string_view signature_;
};

ServiceReply DBusOutput::makeReply(const DBusHeader& call, std::string_view signature) {
  return ServiceReply(std::make_unique<PendingReply>(shared_from_this(), call, signature));
}

void DBusOutput::replyGiven() {
  --pendingReplies_;
  const std::thread::id thread = connectionThread_;
  // A resting connection waits for no reply.
  if (thread != std::thread::id() && thread != std::this_thread::get_id()) wake();
}

template <typename Append>
void DBusOutput::enqueue(Append append) {
  bool mustWake = false;
  {
    const MutexLock lock(mutex_);
    if (isClosed_) return;
    const bool wasEmpty = queued() == 0;
    append();
    if (queuedInCommon() > limits_.maximumBytes) {
      log_.error("listener: {} does not read its replies, closing its connection", peer_);
      dropAll();
      ::shutdown(socket_, SHUT_RDWR);
    }
    if (!isConnectionThread()) {
      write();
      // While anything is queued, the connection's thread knows, and waits for room.
      mustWake = wasEmpty && queued() > 0;
    }
  }
  if (mustWake) wake();
}

uint32_t DBusOutput::nextSerial() {
  if (++serial_ == 0) ++serial_;
  return serial_;
}

const char* DBusOutput::appendReturn(uint32_t replySerial, std::string_view signature, const Array& values,
                                     bool canBeShorter) {
  const size_t before = buffer_.size();
  DBusHeader header;
  header.type = DBusMessageType::kMethodReturn;
  header.flags = kDBusFlagNoReplyExpected;
  header.serial = nextSerial();
  header.replySerial = replySerial;
  header.signature = signature;
  DBusLimits limits = messageLimits_;
  limits.maximumMessageBytes = limits_.maximumReplyBytes;
  if (const auto failure = appendDBusMessage(buffer_, header, values, limits)) return failure->reason;
  if (hasRoomForLast(buffer_.size() - before, canBeShorter)) return nullptr;
  buffer_.resize(before);
  return "too much waits to be read already";
}

/// True where the reply of `bytes` that was just appended may stay. A large one waits
/// behind little else, so that a peer never has more than one of them waiting.
bool DBusOutput::hasRoomForLast(size_t bytes, bool canBeShorter) {
  if (bytes <= messageLimits_.maximumMessageBytes) {
    return !canBeShorter || queuedInCommon() <= limits_.maximumBytes;
  }
  if (queued() - bytes > limits_.highWaterBytes || !largeReply_.grow(bytes)) return false;
  largeReply_.shrink(largeReply_.bytes() - bytes);  // the little that is left of another
  largeEnd_ = buffer_.size();
  return true;
}

void DBusOutput::appendError(uint32_t replySerial, std::string_view name, std::string_view text) {
  DBusHeader header;
  header.type = DBusMessageType::kError;
  header.flags = kDBusFlagNoReplyExpected;
  header.serial = nextSerial();
  header.replySerial = replySerial;
  header.errorName = isDBusInterfaceName(name) ? name : "org.freedesktop.DBus.Error.Failed";
  header.signature = "s";
  const auto failure = appendDBusMessage(buffer_, header, Array{Value(text)}, messageLimits_);
  if (failure) log_.error("listener: an error for {} cannot be sent: {}", peer_, failure->reason);
}

void DBusOutput::sendReturn(uint32_t replySerial, std::string_view signature, const Array& values,
                            const Array* shorter) {
  enqueue([&]() NO_THREAD_SAFETY_ANALYSIS {
    const char* const reason = appendReturn(replySerial, signature, values, shorter != nullptr);
    if (reason == nullptr) return;
    if (shorter != nullptr && appendReturn(replySerial, signature, *shorter, false) == nullptr) {
      log_.error("listener: an answer to {} is sent without its text: {}", peer_, reason);
      return;
    }
    log_.error("listener: an answer to {} cannot be sent: {}", peer_, reason);
    appendError(replySerial, "org.freedesktop.DBus.Error.Failed", "The answer cannot be sent");
  });
}

void DBusOutput::sendError(uint32_t replySerial, std::string_view name, std::string_view text) {
  enqueue([&]() NO_THREAD_SAFETY_ANALYSIS { appendError(replySerial, name, text); });
}

std::optional<std::string> DBusOutput::sendCall(const DBusHeader& call, std::string_view body) {
  std::optional<std::string> failure;
  enqueue([&]() NO_THREAD_SAFETY_ANALYSIS {
    const size_t before = buffer_.size();
    // One more than the limit: whoever is read up to it can have copies of what he sends.
    const bool isFull = queuedInCommon() > limits_.highWaterBytes;
    DBusHeader header = call;
    header.serial = nextSerial();
    if (const auto reason = appendDBusMessageOfBody(buffer_, header, body, messageLimits_)) {
      failure = reason->reason;
    } else if (isFull && !makeRoomForLast(before)) {
      failure = fmt::format("{} does not read what it is sent", peer_);
    }
  });
  if (!failure && isClosed()) failure = "the connection has ended";
  return failure;
}

/// The message that begins at `begin` is one too many: writes what is before it, and
/// drops it where that does not help. What is held back for the next flush must not
/// count against a client that reads.
bool DBusOutput::makeRoomForLast(size_t begin) {
  const std::string last = buffer_.substr(begin);
  buffer_.resize(begin);
  write();
  if (isClosed_) return true;
  if (queuedInCommon() > limits_.highWaterBytes) return false;
  buffer_ += last;
  return true;
}

void DBusOutput::write() {
  while (!isClosed_ && queued() > 0) {
    const ssize_t sent = ::send(socket_, buffer_.data() + written_, queued(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno == EINTR) continue;
    // Short of memory, the kernel takes it when it is asked again.
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS || errno == ENOMEM)) break;
    if (sent < 0) {
      dropAll();
      ::shutdown(socket_, SHUT_RDWR);  // who waits for an answer is not to wait for ever
      return;
    }
    written_ += static_cast<size_t>(sent);
  }
  if (queued() == 0) {
    buffer_.clear();
    if (buffer_.capacity() > kKeptBufferBytes) buffer_.shrink_to_fit();
    forgetWritten();
  } else if (written_ > buffer_.size() / 2) {
    buffer_.erase(0, written_);
    if (largeReply_.bytes() > 0) buffer_.shrink_to_fit();
    forgetWritten();
  }
}

/// What was written has left the buffer, and no longer counts.
void DBusOutput::forgetWritten() {
  largeEnd_ -= std::min(written_, largeEnd_);
  if (largeReply_.bytes() > largeEnd_) largeReply_.shrink(largeReply_.bytes() - largeEnd_);
  written_ = 0;
}

void DBusOutput::flush() {
  const MutexLock lock(mutex_);
  write();
}

void DBusOutput::dropAll() {
  isClosed_ = true;
  written_ = buffer_.size();
  std::string().swap(buffer_);  // assigned, it would keep its memory
  forgetWritten();
}

size_t DBusOutput::queuedBytes() {
  const MutexLock lock(mutex_);
  return queued();
}

bool DBusOutput::hasRoom() {
  const MutexLock lock(mutex_);
  return isClosed_ || (queued() <= limits_.highWaterBytes && pendingReplies_ < limits_.maximumPendingReplies);
}

bool DBusOutput::isClosed() {
  const MutexLock lock(mutex_);
  return isClosed_;
}

void DBusOutput::drop() {
  const MutexLock lock(mutex_);
  dropAll();
}

void DBusOutput::close() {
  const MutexLock lock(mutex_);
  dropAll();
  socket_ = -1;
  wake_ = nullptr;
}

void DBusOutput::wake() {
  const MutexLock lock(mutex_);
  if (wake_ != nullptr) wake_->signal();
}

}  // namespace zun
