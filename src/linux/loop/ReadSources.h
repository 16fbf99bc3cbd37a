#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>

#include "linux/files/FileDescriptor.h"
#include "platform/DatagramSocket.h"
#include "platform/Mutex.h"

namespace zun {

/// The event loop's read sources, in an epoll set of their own: sources are added, armed
/// and removed from any thread, at once and without waking the loop, which only looks at
/// the set as a whole. A source is armed for one event at a time, so a socket that is
/// left unread costs nothing while its handler waits for its turn.
///
/// Threading: any thread; `dispatch` on the loop's.
/// Ownership: by the loop and by the sources; `end` lets go of the latter.
class ReadSources final : public std::enable_shared_from_this<ReadSources> {
 public:
  /// Null if the system has no descriptors left.
  static std::shared_ptr<ReadSources> create();

  ReadSources(const ReadSources&) = delete;
  ReadSources& operator=(const ReadSources&) = delete;
  ~ReadSources();

  /// Can be read from while `dispatch` has something to do.
  [[nodiscard]] int descriptor() const { return epoll_.get(); }

  /// As DatagramSocket::startReadSource. Null as well after `end`.
  std::shared_ptr<ReadSource> start(std::shared_ptr<const FileDescriptor> descriptor,
                                    std::shared_ptr<SerialQueue> queue, UniqueFunction<void()> readable,
                                    UniqueFunction<void()> cancelled);

  /// Queues the handlers of what can be read from.
  void dispatch();

  /// No source fires any more, and none is kept.
  void end();

 private:
  class Source;
  using SourceTable = std::unordered_map<uint64_t, std::shared_ptr<Source>>;

  explicit ReadSources(FileDescriptor epoll);
  bool control(int operation, int descriptor, uint64_t identifier) const;
  [[nodiscard]] std::shared_ptr<Source> find(uint64_t identifier);
  void remove(uint64_t identifier, int descriptor);

  const FileDescriptor epoll_;
  Mutex mutex_;
  SourceTable sources_ GUARDED_BY(mutex_);
  uint64_t nextIdentifier_ GUARDED_BY(mutex_) = 0;
  bool hasEnded_ GUARDED_BY(mutex_) = false;
};

}  // namespace zun
