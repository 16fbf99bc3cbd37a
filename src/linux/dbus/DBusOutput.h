#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "linux/dbus/DBusMessage.h"
#include "linux/files/WakeDescriptor.h"
#include "platform/MemoryBudget.h"
#include "platform/Mutex.h"
#include "platform/ServiceConnection.h"
#include "platform/SystemLog.h"

namespace zun {

/// What may wait to be read by one client.
struct DBusOutputLimits {
  /// Above this, no call of the client is read and no one-way call to it is queued.
  size_t highWaterBytes = size_t{1} << 20;
  /// A reply that does not fit below this, nor its shorter form, ends the connection.
  size_t maximumBytes = size_t{4} << 20;
  /// One reply: its longest text and what is around that. Where it is larger than a
  /// client's message may be, it is counted against its share of what may wait of them.
  size_t maximumReplyBytes = (size_t{32} << 20) + (size_t{64} << 10);
  /// Calls that wait for their replies before no further one is read.
  size_t maximumPendingReplies = 1024;
};

/// What a connection sends: replies and one-way calls, queued, bounded, and written
/// without ever waiting for the peer.
///
///   open ──peer is gone, or reads too little──▶ closed (everything is dropped)
///
/// Threading: any thread. Messages of the connection's own thread are written when it
/// flushes, many at once; those of others at once, after which the connection's thread
/// is woken to go on with what the socket did not take.
/// Ownership: shared by the connection and by replies that are still to be given.
class DBusOutput final : public std::enable_shared_from_this<DBusOutput> {
 public:
  /// `socket` and `wake` stay open until `close`. `log` outlives it.
  /// `largeReplies` is what all peers may leave waiting of them, `holder` says whose these are.
  DBusOutput(int socket, const WakeDescriptor& wake, const DBusLimits& messageLimits,
             const DBusOutputLimits& limits, std::shared_ptr<MemoryBudget> largeReplies, BudgetHolder holder,
             SystemLog& log, std::string peer)
      : messageLimits_(messageLimits),
        limits_(limits),
        log_(log),
        peer_(std::move(peer)),
        socket_(socket),
        wake_(&wake),
        largeReply_(std::move(largeReplies), holder) {}

  /// From now on this thread's messages wait for `flush`; none's after no thread.
  void setConnectionThread(std::thread::id thread) { connectionThread_ = thread; }

  /// The reply to a call; it counts as pending until it is given.
  /// `signature` lives as long as the program or the exported interface.
  [[nodiscard]] ServiceReply makeReply(const DBusHeader& call, std::string_view signature);

  /// `shorter` (null: none) goes instead where `values` are too large or find no room.
  void sendReturn(uint32_t replySerial, std::string_view signature, const Array& values,
                  const Array* shorter = nullptr);
  void sendError(uint32_t replySerial, std::string_view name, std::string_view text);
  /// `body` as `call.signature` has it. None when queued, else why not; telling of it is
  /// the caller's.
  [[nodiscard]] std::optional<std::string> sendCall(const DBusHeader& call, std::string_view body);

  /// Writes what the socket takes now.
  void flush();
  [[nodiscard]] size_t queuedBytes();
  [[nodiscard]] size_t pendingReplies() const { return pendingReplies_; }
  /// Further calls may be read.
  [[nodiscard]] bool hasRoom();
  [[nodiscard]] bool isClosed();
  /// The peer reads no more: what is queued, and what comes, is dropped.
  void drop();
  /// The end: the descriptors are not touched any more.
  void close();
  /// Wakes the connection's thread.
  void wake();

 private:
  class PendingReply;
  void replyGiven();
  /// Appends under the lock; writes at once unless on the connection's thread.
  template <typename Append>
  void enqueue(Append append);
  /// Null on success, else why not; nothing is appended then.
  const char* appendReturn(uint32_t replySerial, std::string_view signature, const Array& values,
                           bool canBeShorter) REQUIRES(mutex_);
  void appendError(uint32_t replySerial, std::string_view name, std::string_view text) REQUIRES(mutex_);
  bool hasRoomForLast(size_t bytes, bool canBeShorter) REQUIRES(mutex_);
  bool makeRoomForLast(size_t begin) REQUIRES(mutex_);
  void write() REQUIRES(mutex_);
  void forgetWritten() REQUIRES(mutex_);
  void dropAll() REQUIRES(mutex_);
  uint32_t nextSerial() REQUIRES(mutex_);
  [[nodiscard]] size_t queued() const REQUIRES(mutex_) { return buffer_.size() - written_; }
  /// What is queued beside the large reply.
  [[nodiscard]] size_t queuedInCommon() const REQUIRES(mutex_) {
    const size_t behind = buffer_.size() - std::max(written_, largeEnd_);
    const size_t largeBegin = largeEnd_ - largeReply_.bytes();
    return behind + std::max(written_, largeBegin) - written_;
  }
  [[nodiscard]] bool isConnectionThread() const { return connectionThread_ == std::this_thread::get_id(); }

  const DBusLimits messageLimits_;
  const DBusOutputLimits limits_;
  SystemLog& log_;
  const std::string peer_;
  std::atomic<std::thread::id> connectionThread_{};
  std::atomic<size_t> pendingReplies_{0};

  Mutex mutex_;
  int socket_ GUARDED_BY(mutex_);
  const WakeDescriptor* wake_ GUARDED_BY(mutex_);
  bool isClosed_ GUARDED_BY(mutex_) = false;
  uint32_t serial_ GUARDED_BY(mutex_) = 0;
  std::string buffer_ GUARDED_BY(mutex_);
  size_t written_ GUARDED_BY(mutex_) = 0;
  MemoryShare largeReply_ GUARDED_BY(mutex_);  // what the buffer holds of the last one
  size_t largeEnd_ GUARDED_BY(mutex_) = 0;     // where that ends in the buffer
};

}  // namespace zun
