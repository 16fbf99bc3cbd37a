// Feeds the D-Bus service's input whatever comes: whole, and again cut into pieces, as
// a socket may deliver it. Both must give the same messages; what is decoded must
// survive being encoded and decoded again. Descriptors that come with the pieces must all
// be a message's or be closed.

#include <fcntl.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "linux/dbus/DBusAuthentication.h"
#include "linux/dbus/DBusInput.h"
#include "linux/dbus/DBusMessage.h"
#include "linux/files/FileDescriptor.h"
#include "platform/MemoryBudget.h"

namespace {

using zun::Array;
using zun::DBusInput;

void require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "broken: %s\n", what);
  std::abort();
}

constexpr size_t kMostDescriptors = 16;

/// Small enough to meet them.
zun::DBusLimits limits() {
  return {.maximumMessageBytes = 4096, .maximumDepth = 32, .maximumDecodedBytes = size_t{1} << 18};
}

// Descriptions tell NaN from NaN no more than they must: equality would.
void requireRoundTrip(const zun::DBusHeader& header, const Array& values) {
  if (header.signature.find('h') != std::string_view::npos) return;
  zun::DBusHeader again = header;
  again.isSwapped = false;
  again.descriptorCount = 0;
  std::string bytes;
  zun::DBusLimits wide = limits();
  wide.maximumMessageBytes = size_t{1} << 20;
  wide.maximumDecodedBytes = size_t{64} << 20;
  // A variant in a variant is one value, so what comes back is never deeper.
  if (const auto failure = zun::appendDBusMessage(bytes, again, values, wide)) {
    require(header.signature.find_first_of("v{") != std::string_view::npos, failure->reason);
    return;
  }
  const auto frame = zun::frameDBusMessage(bytes);
  require(frame && frame->totalBytes == bytes.size(), "frame of an encoded message");
  const auto decoded = zun::decodeDBusHeader(bytes, wide);
  require(static_cast<bool>(decoded), "header of an encoded message");
  const auto back = zun::decodeDBusBody(*decoded, std::string_view(bytes).substr(frame->headerBytes), wide);
  require(static_cast<bool>(back), "body of an encoded message");
  require(zun::Value(*back).description() == zun::Value(values).description(),
          "values of an encoded message");
}

/// `bytes` in a block of their own, so that reading beyond them is noticed: in the
/// input's buffer there is always something behind.
std::vector<char> alone(std::string_view bytes) {
  std::vector<char> block(bytes.begin(), bytes.end());
  block.shrink_to_fit();
  return block;
}

/// Decodes the one message that `bytes` begin with, if they do.
void decodeAlone(std::string_view bytes) {
  const auto frame = zun::frameDBusMessage(bytes);
  if (!frame || frame->headerBytes > bytes.size()) return;
  const auto headerBytes = alone(bytes.substr(0, frame->headerBytes));
  const auto header = zun::decodeDBusHeader({headerBytes.data(), headerBytes.size()}, limits());
  if (!header) return;
  const auto body = alone(bytes.substr(frame->headerBytes, frame->totalBytes - frame->headerBytes));
  (void)zun::decodeDBusBody(*header, {body.data(), body.size()}, limits());
}

/// What became of the messages in `bytes`, sent in pieces of `pieceBytes`.
std::string outcome(std::string_view bytes, size_t pieceBytes) {
  int ends[2] = {-1, -1};
  require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) == 0, "socket pair");
  const zun::FileDescriptor writing(ends[0]);
  const zun::FileDescriptor reading(ends[1]);
  DBusInput input(limits(), std::make_shared<zun::MemoryBudget>(size_t{64} << 20), {});
  std::string outcomes;
  while (!bytes.empty()) {
    const std::string_view piece = bytes.substr(0, pieceBytes);
    bytes.remove_prefix(piece.size());
    require(::send(writing.get(), piece.data(), piece.size(), 0) == static_cast<ssize_t>(piece.size()),
            "send");
    while (input.receive(reading.get()) == DBusInput::Received::kData) {
      while (const auto message = input.takeMessage()) {
        outcomes += static_cast<char>('0' + static_cast<int>(message->state));
        if (message->state == zun::DBusIncomingMessage::State::kMalformed) return outcomes + message->reason;
        if (message->state == zun::DBusIncomingMessage::State::kTooLarge) continue;
        const auto values = zun::decodeDBusBody(message->header, message->body, limits());
        if (!values) {
          outcomes += values.error().reason;
          continue;
        }
        outcomes += zun::Value(*values).description();
        requireRoundTrip(message->header, *values);
      }
    }
  }
  return outcomes;
}

/// How many descriptors are open: few, so that they all have low numbers.
int openDescriptors() {
  int count = 0;
  for (int number = 0; number < 64; ++number) count += ::fcntl(number, F_GETFD) >= 0 ? 1 : 0;
  return count;
}

void sendWithDescriptors(int socket, std::string_view bytes, size_t count) {
  alignas(cmsghdr) char control[CMSG_SPACE(kMostDescriptors * sizeof(int))] = {};
  iovec part{const_cast<char*>(bytes.data()), bytes.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = CMSG_SPACE(count * sizeof(int));
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(count * sizeof(int));
  const std::vector<int> descriptors(count, STDERR_FILENO);
  std::memcpy(CMSG_DATA(header), descriptors.data(), count * sizeof(int));
  require(::sendmsg(socket, &message, 0) == static_cast<ssize_t>(bytes.size()), "send with descriptors");
}

/// Reads `bytes`, sent in pieces of `pieceBytes` with `count` descriptors at each.
void readWithDescriptors(std::string_view bytes, size_t pieceBytes, size_t count) {
  int ends[2] = {-1, -1};
  require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) == 0, "socket pair");
  const zun::FileDescriptor writing(ends[0]);
  const zun::FileDescriptor reading(ends[1]);
  DBusInput input(limits(), std::make_shared<zun::MemoryBudget>(size_t{64} << 20), {});
  input.allowDescriptors();
  while (!bytes.empty()) {
    const std::string_view piece = bytes.substr(0, pieceBytes);
    bytes.remove_prefix(piece.size());
    sendWithDescriptors(writing.get(), piece, count);
    auto received = input.receive(reading.get());
    for (; received == DBusInput::Received::kData; received = input.receive(reading.get())) {
      while (const auto message = input.takeMessage()) {
        if (message->state == zun::DBusIncomingMessage::State::kMalformed) return;
        const size_t claimed = message->descriptors.size();
        require(claimed <= kMostDescriptors, "few descriptors a message");
        if (message->state == zun::DBusIncomingMessage::State::kTooLarge) continue;
        require(claimed == message->header.descriptorCount, "as many descriptors as the header says");
      }
    }
    if (received == DBusInput::Received::kRefused) return;
  }
}

std::string authenticated(std::string_view bytes, size_t pieceBytes) {
  zun::DBusAuthentication authentication(1000, "0123456789abcdef0123456789abcdef");
  std::string replies;
  size_t taken = 0;
  while (taken < bytes.size() && authentication.state() == zun::DBusAuthentication::State::kOngoing) {
    const size_t count = authentication.feed(bytes.substr(taken, pieceBytes), replies);
    const bool hasFailed = authentication.state() == zun::DBusAuthentication::State::kFailed;
    require(count > 0 || hasFailed, "progress of the authentication");
    taken += count;
  }
  require(replies.size() < 4096, "bounded answers");
  return replies + std::to_string(static_cast<int>(authentication.state()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2 || size > 60000) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  const size_t pieceBytes = size_t{data[0]} + 1;
  decodeAlone(bytes);
  require(outcome(bytes, bytes.size()) == outcome(bytes, pieceBytes), "whole and split give the same");
  require(authenticated(bytes, bytes.size()) == authenticated(bytes, pieceBytes),
          "authentication, whole and split");
  const int before = openDescriptors();
  readWithDescriptors(bytes, pieceBytes, data[0] % kMostDescriptors + 1);
  require(openDescriptors() == before, "every descriptor is closed");
  return 0;
}
