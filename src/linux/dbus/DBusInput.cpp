#include "linux/dbus/DBusInput.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "linux/files/ProcessLimits.h"
#include "values/Check.h"

namespace zun {

namespace {

constexpr size_t kUsualCapacity = size_t{32} << 10;
constexpr size_t kMaximumDescriptors = 16;
constexpr size_t kKernelMaximumDescriptors = 253;

/// Sockets, and what has no place in any file system (io_uring instances, say), can hold
/// other descriptors. A client that handed over its own end of this connection in one
/// would keep the connection from ever ending, though its process had long gone.
bool mayHoldDescriptors(const FileDescriptor& descriptor) {
  struct stat status {};
  if (::fstat(descriptor.get(), &status) != 0) return false;
  return S_ISSOCK(status.st_mode) || (status.st_mode & S_IFMT) == 0;
}

DBusIncomingMessage malformedMessage(const char* reason) {
  DBusIncomingMessage message;
  message.state = DBusIncomingMessage::State::kMalformed;
  message.reason = reason;
  return message;
}

}  // namespace

std::string_view DBusInput::buffered() const {
  return {buffer_.get() + begin_, end_ - begin_};
}

void DBusInput::consume(size_t count) {
  begin_ += count;
  if (begin_ != end_) return;
  begin_ = end_ = 0;
  // They come with bytes of their message: no later one can claim these.
  dropDescriptors();
}

/// Room for the message that is coming, and for others behind it. A buffer that was
/// needed for a large message is given back when that has been taken.
bool DBusInput::makeRoom() {
  const size_t capacity = std::max(kUsualCapacity, wanted_ + (wanted_ > kUsualCapacity ? kUsualCapacity : 0));
  const size_t kept = end_ - begin_;
  if (capacity_ != capacity) {
    ZUN_CHECK(kept <= capacity);  // behind a large message is as much room as usual
    if (!count(capacity)) return false;
    std::unique_ptr<char[]> grown(new char[capacity]);  // not initialised: untouched pages cost nothing
    std::copy_n(buffer_.get() + begin_, kept, grown.get());
    buffer_ = std::move(grown);
    capacity_ = capacity;
  } else if (begin_ > 0) {
    std::memmove(buffer_.get(), buffer_.get() + begin_, kept);
  }
  begin_ = 0;
  end_ = kept;
  return true;
}

/// False where a buffer of this capacity finds no room.
bool DBusInput::count(size_t capacity) {
  const size_t bytes = capacity - std::min(capacity, kUncountedBytes);
  if (bytes > memory_.bytes()) return memory_.grow(bytes - memory_.bytes());
  memory_.shrink(memory_.bytes() - bytes);
  return true;
}

void DBusInput::giveBackMemory() {
  if (begin_ != end_) return;
  buffer_ = nullptr;
  capacity_ = 0;
  headers_.forget();
  memory_.shrink(memory_.bytes());
}

void DBusInput::drop() {
  consume(end_ - begin_);
  giveBackMemory();
}

DBusInput::Received DBusInput::receive(int socket) {
  refusal_ = "there is no room for its message";
  if (!makeRoom()) return Received::kRefused;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(kKernelMaximumDescriptors * sizeof(int))> control;
  iovec part{buffer_.get() + end_, capacity_ - end_};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  ssize_t count = 0;
  do {
    count = ::recvmsg(socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  } while (count < 0 && errno == EINTR);
  wasFilled_ = false;
  // Short of memory, the kernel has it still.
  if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS || errno == ENOMEM)) {
    return Received::kNothingYet;
  }
  if (count <= 0) return Received::kEndOfInput;
  end_ += static_cast<size_t>(count);
  wasFilled_ = end_ == capacity_;
  if (!takeDescriptors(message)) return Received::kRefused;
  const size_t skipped = std::min(skip_, end_ - begin_);
  skip_ -= skipped;
  consume(skipped);
  return Received::kData;
}

bool DBusInput::takeDescriptors(msghdr& message) {
  bool holdsOthers = false;
  for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    const int firstReserved = firstReservedDescriptor();
    for (size_t index = 0; index < count; ++index) {
      int number = -1;
      std::memcpy(&number, CMSG_DATA(part) + index * sizeof(int), sizeof number);
      FileDescriptor descriptor(number);
      holdsOthers |= mayHoldDescriptors(descriptor);
      if (number >= firstReserved) descriptor.reset();
      descriptors_.push_back(std::move(descriptor));
    }
  }
  if (descriptors_.empty() && (message.msg_flags & MSG_CTRUNC) == 0) return true;
  refusal_ = "it passed descriptors without asking";
  if (!allowsDescriptors_) return false;
  refusal_ = "it passed a descriptor that is no file's";
  if (holdsOthers) return false;
  refusal_ = "it passed too many descriptors";
  return descriptors_.size() <= kMaximumDescriptors && (message.msg_flags & MSG_CTRUNC) == 0;
}

std::optional<DBusIncomingMessage> DBusInput::takeMessage() {
  const std::string_view bytes = buffered();
  if (bytes.size() < DBusFrame::kFixedBytes) return std::nullopt;  // also while one is skipped
  const auto frame = frameDBusMessage(bytes);
  if (!frame) return malformedMessage(frame.error().reason);
  return frame->totalBytes <= limits_.maximumMessageBytes ? takeFramed(*frame) : takeOversized(*frame);
}

/// The next `count`, or as many as there are.
void DBusInput::claimDescriptors(uint32_t count, DBusIncomingMessage& message) {
  const auto end =
      descriptors_.begin() + static_cast<std::ptrdiff_t>(std::min<size_t>(count, descriptors_.size()));
  message.descriptors.assign(std::make_move_iterator(descriptors_.begin()), std::make_move_iterator(end));
  descriptors_.erase(descriptors_.begin(), end);
}

std::optional<DBusIncomingMessage> DBusInput::takeFramed(const DBusFrame& frame) {
  const std::string_view bytes = buffered();
  wanted_ = frame.totalBytes;
  if (bytes.size() < frame.totalBytes) return std::nullopt;
  wanted_ = 0;
  const auto header = headers_.decode(bytes.substr(0, frame.headerBytes), limits_);
  if (!header) return malformedMessage(header.error().reason);
  if (header->descriptorCount > descriptors_.size()) {
    return malformedMessage("it has fewer descriptors than its header says");
  }
  DBusIncomingMessage message;
  message.header = *header;
  message.totalBytes = frame.totalBytes;
  message.body = bytes.substr(frame.headerBytes, frame.totalBytes - frame.headerBytes);
  claimDescriptors(header->descriptorCount, message);
  consume(frame.totalBytes);
  return message;
}

/// The header alone, so that its call can be answered; the body is never kept.
std::optional<DBusIncomingMessage> DBusInput::takeOversized(const DBusFrame& frame) {
  const std::string_view bytes = buffered();
  if (frame.headerBytes > limits_.maximumMessageBytes) return malformedMessage("its header is too large");
  wanted_ = frame.headerBytes;
  if (bytes.size() < frame.headerBytes) return std::nullopt;
  wanted_ = 0;
  const auto header = headers_.decode(bytes.substr(0, frame.headerBytes), limits_);
  if (!header) return malformedMessage(header.error().reason);
  DBusIncomingMessage message;
  message.state = DBusIncomingMessage::State::kTooLarge;
  message.header = *header;
  message.totalBytes = frame.totalBytes;
  claimDescriptors(header->descriptorCount, message);
  const size_t present = std::min(bytes.size(), frame.totalBytes);
  skip_ = frame.totalBytes - present;
  consume(present);
  return message;
}

}  // namespace zun
