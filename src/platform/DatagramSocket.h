#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "platform/SerialQueue.h"
#include "platform/UniqueFunction.h"
#include "values/Error.h"
#include "values/Result.h"

namespace zun {

/// An IPv4 address and port as they are on the wire: most significant byte first.
struct IPv4SocketAddress {
  std::array<uint8_t, 4> address{};
  std::array<uint8_t, 2> port{};

  friend bool operator==(const IPv4SocketAddress&, const IPv4SocketAddress&) = default;
};

/// The address that a dotted quad names, in any of its usual forms ("127.0.0.1",
/// "127.1", "0x7f000001"); 255.255.255.255 for what is none. Any thread.
[[nodiscard]] std::array<uint8_t, 4> parseDottedQuad(const std::string& text);

/// Tells of a socket that has something to receive. Letting go of it does not stop it:
/// `cancel` does. Any thread.
class ReadSource {
 public:
  virtual ~ReadSource() = default;

  /// Ends the source: no call of the read handler begins after this; the cancel handler
  /// is queued, once. A second call does nothing.
  virtual void cancel() = 0;
};

/// An IPv4 UDP socket that never waits. Errors are in kPOSIXErrorDomain with the errno as
/// code.
///
///   makeSocket ──▶ bindToAnyAddress? ──▶ connect ──▶ send, receive ──▶ close
///
/// Threading: one thread at a time. Ownership: by its user; closes when it ends. One that
/// has a read source is closed from that source's cancel handler on, not before.
class DatagramSocket {
 public:
  virtual ~DatagramSocket() = default;

  /// Takes any address and port of this machine. None on success.
  virtual std::optional<Error> bindToAnyAddress() = 0;

  /// From now on sends to, and receives from, this peer alone. None on success.
  virtual std::optional<Error> connect(const IPv4SocketAddress& peer) = 0;

  /// Sends one datagram; gives the bytes that went out. What the network told about an
  /// earlier datagram is not this one's failure, and one that the peer refuses counts as
  /// sent: it is as good as lost on the way.
  virtual Result<size_t, Error> send(std::span<const std::byte> datagram) = 0;

  /// Receives one datagram, cut to the buffer; gives its bytes. Fails with EAGAIN where
  /// nothing is there, and with what the network told about an earlier datagram, once.
  virtual Result<size_t, Error> receive(std::span<std::byte> buffer) = 0;

  /// Calls `readable` on `queue` while there is something to receive, or an error to be
  /// told of: again and again, and never again before it has returned. `cancelled` is
  /// called on `queue` once, after `cancel`. Both handlers are kept until then. Null if
  /// the system refuses.
  virtual std::shared_ptr<ReadSource> startReadSource(std::shared_ptr<SerialQueue> queue,
                                                      UniqueFunction<void()> readable,
                                                      UniqueFunction<void()> cancelled) = 0;

  /// A closed socket sends and receives nothing (EBADF). A second call does nothing.
  virtual void close() = 0;
};

/// Makes datagram sockets. Any thread.
class DatagramSocketService {
 public:
  virtual ~DatagramSocketService() = default;

  virtual Result<std::unique_ptr<DatagramSocket>, Error> makeSocket() = 0;
};

}  // namespace zun
