#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "linux/dbus/DBusMessage.h"
#include "linux/files/FileDescriptor.h"
#include "platform/MemoryBudget.h"

namespace zun {

/// A message as it came. Texts last until the input's next message, and its next
/// `receive` or `giveBackMemory`. Descriptors that nobody takes are closed with it.
struct DBusIncomingMessage {
  enum class State { kComplete, kTooLarge, kMalformed };

  State state = State::kComplete;
  DBusHeader header;
  std::string_view body;
  size_t totalBytes = 0;
  const char* reason = "";
  /// As many as the header says, none of a socket. One that is not open was closed because the process has
  /// nearly as many open as it may.
  std::vector<FileDescriptor> descriptors;
};

/// What a connection receives: cuts the stream into messages, many for each system
/// call. Keeps at most one message of the allowed size; what is larger is told by its
/// header and skipped. Descriptors that came along are kept, few, until their message is
/// complete; those that no message claims are closed then.
///
/// One thread, no waiting.
class DBusInput final {
 public:
  enum class Received { kData, kNothingYet, kEndOfInput, kRefused };

  /// What a buffer may take beside the budget.
  static constexpr size_t kUncountedBytes = size_t{64} << 10;

  /// `memory`: what all buffers may take, of which `holder` has a share.
  DBusInput(const DBusLimits& limits, std::shared_ptr<MemoryBudget> memory, BudgetHolder holder)
      : limits_(limits), memory_(std::move(memory), holder) {}

  /// Takes what the socket has. kRefused: more than is allowed came, or there is no room for
  /// what comes; `refusal` says what.
  Received receive(int socket);
  [[nodiscard]] const char* refusal() const { return refusal_; }
  /// The last `receive` filled the buffer: there is likely more.
  [[nodiscard]] bool wasFilled() const { return wasFilled_; }

  /// Bytes that are there and belong to no message taken so far.
  [[nodiscard]] std::string_view buffered() const;
  void consume(size_t count);

  /// The next message, none while it is incomplete. After a malformed one the stream is
  /// of no more use.
  std::optional<DBusIncomingMessage> takeMessage();

  /// Nothing will come for a while.
  void giveBackMemory();

  void allowDescriptors() { allowsDescriptors_ = true; }
  /// Closes those that still wait for their message.
  void dropDescriptors() { descriptors_.clear(); }
  /// Lets go of everything that has come.
  void drop();

 private:
  [[nodiscard]] bool makeRoom();
  [[nodiscard]] bool count(size_t capacity);
  bool takeDescriptors(msghdr& message);
  void claimDescriptors(uint32_t count, DBusIncomingMessage& message);
  std::optional<DBusIncomingMessage> takeFramed(const DBusFrame& frame);
  std::optional<DBusIncomingMessage> takeOversized(const DBusFrame& frame);

  const DBusLimits limits_;
  MemoryShare memory_;
  std::unique_ptr<char[]> buffer_;
  size_t capacity_ = 0;
  size_t begin_ = 0;
  size_t end_ = 0;
  size_t wanted_ = 0;  // size of the message that is incomplete
  size_t skip_ = 0;    // bytes still to come of a message that was too large
  bool wasFilled_ = false;
  bool allowsDescriptors_ = false;
  const char* refusal_ = "";
  std::deque<FileDescriptor> descriptors_;
  DBusHeaderDecoder headers_;
};

}  // namespace zun
