// A client's whole connection over a socket pair: authentication, calls of any member,
// introspection of any path, descriptors, half-close. The daemon's side must end by itself,
// and what it has sent must be whole messages that answer the client's calls.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "FuzzCheck.h"
#include "FuzzInput.h"
#include "FuzzLog.h"
#include "linux/dbus/DBusMessage.h"
#include "linux/dbus/DBusServiceConnection.h"
#include "session/ClientSessionInterface.h"

namespace {

using zun::Array;
using zun::Value;

/// What is passed; open from the start, since descriptors are counted.
const int kFile = ::open("/dev/null", O_RDONLY | O_CLOEXEC);

/// Whether a value is of the kind that a signature's first type stands for.
bool isOfType(const Value& value, std::string_view type) {
  if (type == "b") return value.isBoolean();
  if (type == "s") return value.isString();
  if (type == "q" || type == "i") return value.isInteger();
  if (type == "ay") return value.isData();
  return type == "a{sv}" ? value.isDictionary() : value.isArray();
}

/// Answers some calls at once and lets go of the others, which are answered all the same.
class Answering final : public zun::ExportedObject {
 public:
  void handleCall(size_t member, const Array& arguments, zun::ServiceReply reply) override {
    const zun::ServiceMember& called = zun::clientSessionInterface().members[member];
    check(arguments.size() == called.in.size(), "as many arguments as the member has");
    for (size_t i = 0; i < arguments.size(); ++i)
      check(isOfType(arguments[i], called.in[i].type), "an argument is of another kind");
    if (member % 3 == 0) return;
    if (member % 3 == 1) return reply.sendError("com.vantix.zunreportingd.Error.Fuzz", "no");
    Array values;
    for (const zun::ServiceArgument& out : called.out) {
      if (out.type == "b")
        values.append(true);
      else if (out.type == "s")
        values.append("text");
      else
        values.append(Array());
    }
    reply.send(values);
  }
};

class Accepting final : public zun::ServiceListenerDelegate {
 public:
  bool isEntitled(const zun::ServicePeer&) override { return true; }
  bool shouldAcceptNewConnection(const std::shared_ptr<zun::ServiceConnection>& connection) override {
    connection->setExportedInterface(zun::clientSessionInterface());
    connection->setExportedObject(std::make_shared<Answering>());
    connection->setInvalidationHandler([this] { ++ends; });
    connection->resume();
    return true;
  }
  int ends = 0;
};

/// Reads what the daemon sends until it closes.
std::string readAll(int socket) {
  std::string all;
  char chunk[4096];
  for (;;) {
    const ssize_t count = ::recv(socket, chunk, sizeof chunk, 0);
    if (count <= 0) return all;
    all.append(chunk, static_cast<size_t>(count));
  }
}

/// Writes in pieces, some with descriptors, then says that no more will come.
void writeAll(int socket, std::string_view bytes, size_t pieceBytes, size_t descriptors) {
  while (!bytes.empty()) {
    const std::string_view piece = bytes.substr(0, pieceBytes);
    alignas(cmsghdr) char control[CMSG_SPACE(16 * sizeof(int))] = {};
    iovec part{const_cast<char*>(piece.data()), piece.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (descriptors > 0) {
      message.msg_control = control;
      message.msg_controllen = CMSG_SPACE(descriptors * sizeof(int));
      cmsghdr* const header = CMSG_FIRSTHDR(&message);
      header->cmsg_level = SOL_SOCKET;
      header->cmsg_type = SCM_RIGHTS;
      header->cmsg_len = CMSG_LEN(descriptors * sizeof(int));
      const int file = kFile;
      for (size_t i = 0; i < descriptors; ++i)
        std::memcpy(CMSG_DATA(header) + i * sizeof file, &file, sizeof file);
    }
    const ssize_t sent = ::sendmsg(socket, &message, MSG_NOSIGNAL);
    if (sent <= 0) break;  // the daemon has closed
    bytes.remove_prefix(static_cast<size_t>(sent));
  }
  ::shutdown(socket, SHUT_WR);
}

/// After the lines of the authentication: whole messages, each call's answer once.
void judge(std::string_view sent) {
  while (!sent.empty() && sent.front() != 'l' && sent.front() != 'B') {
    const size_t end = sent.find("\r\n");
    check(end != std::string_view::npos, "a line of the authentication ends");
    sent.remove_prefix(end + 2);
  }
  std::set<uint32_t> serials;
  while (!sent.empty()) {
    const auto frame = zun::frameDBusMessage(sent);
    check(frame && frame->totalBytes <= sent.size(), "a whole message is sent");
    const auto header = zun::decodeDBusHeader(sent.substr(0, frame->headerBytes));
    check(static_cast<bool>(header), "a message's header is read");
    check(static_cast<bool>(zun::decodeDBusBody(
              *header, sent.substr(frame->headerBytes, frame->totalBytes - frame->headerBytes))),
          "a message's body is read");
    check(header->serial != 0 && serials.insert(header->serial).second,
          "each message has a serial of its own");
    check(header->type == zun::DBusMessageType::kMethodReturn || header->type == zun::DBusMessageType::kError,
          "only answers are sent");
    check(header->replySerial != 0, "an answer says to what");
    sent.remove_prefix(frame->totalBytes);
  }
}

int openDescriptors() {
  int count = 0;
  for (int number = 0; number < 128; ++number) count += ::fcntl(number, F_GETFD) >= 0 ? 1 : 0;
  return count;
}

void serve(std::string_view bytes, size_t pieceBytes, size_t descriptors) {
  static FuzzLog log;
  int ends[2] = {-1, -1};
  check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socket pair");
  ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
  zun::FileDescriptor client(ends[1]);
  zun::PeerIdentity peer;
  peer.process = ::getpid();
  peer.user = ::getuid();
  peer.group = ::getgid();
  Accepting delegate;
  zun::DBusConnectionOptions options;
  options.messageLimits.maximumMessageBytes = 4096;
  options.restAfter = std::chrono::milliseconds(-1);
  auto connection = zun::DBusServiceConnection::create(zun::FileDescriptor(ends[0]), zun::KnownPeer(peer, {}),
                                                       "0123456789abcdef0123456789abcdef", options, log);
  check(connection != nullptr, "a connection");
  std::string sent;
  std::thread reader([&] { sent = readAll(client.get()); });
  std::thread writer([&] { writeAll(client.get(), bytes, pieceBytes, descriptors); });
  connection->run(&delegate, connection);
  connection = nullptr;
  writer.join();
  reader.join();
  check(delegate.ends <= 1, "a connection ends once");
  judge(sent);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 16'384) return 0;
  FuzzInput input(data, size);
  const uint8_t how = input.byte();
  const size_t pieceBytes = size_t{input.byte()} * 16 + 1;
  const std::string user = std::to_string(::getuid());
  std::string bytes;
  if (how % 4 != 0) {  // an authenticated client; otherwise the input does that itself
    bytes.assign(1, '\0').append("AUTH EXTERNAL ");
    for (const char digit : user) (bytes += '3') += digit;
    bytes += "\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n";
  }
  bytes += input.rest();
  const int before = openDescriptors();
  serve(bytes, pieceBytes, how >= 192 ? how % 16 : 0);
  check(openDescriptors() == before, "every descriptor is closed");
  return 0;
}
