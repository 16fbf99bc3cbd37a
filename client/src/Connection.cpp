#include "Connection.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <string_view>
#include <utility>

#include "MessageReader.h"

namespace zunreporting {

namespace {

constexpr const char* kSessionPath = "/com/vantix/zunreportingd/session";
constexpr const char* kClientPath = "/com/vantix/zunreportingd/client";
constexpr const char* kClientInterface = "com.vantix.zunreportingd.ClientSessionReplyInterface";

constexpr std::string_view kPath = "unix:path=";
// Behind those who connect at the same moment.
constexpr timeval kTurn{25, 0};

/// A socket that is connected to the path in `address`, or why there is none. The bus library
/// does not wait while the daemon has more clients to accept than the system queues.
int connectInTurn(std::string_view address) {
  sockaddr_un name{};
  const std::string_view path = address.substr(kPath.size());
  if (path.size() >= sizeof name.sun_path) return -ENAMETOOLONG;
  name.sun_family = AF_UNIX;
  path.copy(name.sun_path, path.size());
  const int made = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (made < 0) return -errno;
  if (::setsockopt(made, SOL_SOCKET, SO_SNDTIMEO, &kTurn, sizeof kTurn) == 0) {
    int connected = 0;
    do {
      connected = ::connect(made, reinterpret_cast<const sockaddr*>(&name), sizeof name);
    } while (connected != 0 && errno == EINTR);
    constexpr timeval kForEver{};
    if (connected == 0 && ::setsockopt(made, SOL_SOCKET, SO_SNDTIMEO, &kForEver, sizeof kForEver) == 0) {
      return made;
    }
  }
  const int error = errno;
  ::close(made);
  return -error;
}

/// Has the bus connect to `address`; of several, and of those with escapes, it finds its own way.
int setAddress(sd_bus* bus, const std::string& address) {
  const bool isPlainPath =
      address.starts_with(kPath) && address.find_first_of("%,;", kPath.size()) == std::string::npos;
  if (!isPlainPath) return sd_bus_set_address(bus, address.c_str());
  const int connected = connectInTurn(address);
  if (connected < 0) return connected;
  const int result = sd_bus_set_fd(bus, connected, connected);
  if (result < 0) ::close(connected);
  return result;
}

std::string errorText(int result) {
  return std::strerror(-result);
}

int readAggregatedMessage(sd_bus_message* message, AggregatedMessage& aggregated) {
  int result = readOptionalDictionary(message, aggregated.sessionInfo);
  if (result >= 0) {
    result =
        sd_bus_message_read(message, "dqq", &aggregated.timestamp, &aggregated.category, &aggregated.type);
  }
  if (result >= 0) result = readOptionalDictionary(message, aggregated.payload);
  return result;
}

}  // namespace

Outcome<std::unique_ptr<Connection>> Connection::open(const std::string& address) {
  using Opened = std::unique_ptr<Connection>;
  sd_bus* bus = nullptr;
  int result = sd_bus_new(&bus);
  if (result < 0) return failed<Opened>(Failure::kConnection, errorText(result));
  Opened connection(new Connection(bus));
  result = setAddress(bus, address);
  if (result >= 0) result = sd_bus_negotiate_fds(bus, 1);  // for files to upload
  if (result >= 0) result = sd_bus_start(bus);
  if (result < 0) {
    // The daemon closes a stranger's connection without a word.
    const bool isClosed = result == -EPIPE || result == -ECONNRESET;
    return failed<Opened>(Failure::kConnection,
                          "cannot connect to " + address + ": " + errorText(result) +
                              (isClosed ? " (is this program entitled to report?)" : ""));
  }
  return {std::move(connection), {}};
}

Outcome<Nothing> Connection::call(Member member, const MessageStep& write, const MessageStep& read,
                                  uint64_t timeout) {
  const std::string name = std::string(member.name) + ": ";
  sd_bus_message* raw = nullptr;
  int result =
      sd_bus_message_new_method_call(bus_.get(), &raw, nullptr, kSessionPath, member.interface, member.name);
  if (result < 0) return failed<Nothing>(failureNow(), name + errorText(result));
  const Message request(raw);
  if (write) result = write(request.get());
  if (result < 0) {
    return failed<Nothing>(Failure::kArgument, name + "cannot encode the arguments: " + errorText(result));
  }

  sd_bus_error error{};
  raw = nullptr;
  result = sd_bus_call(bus_.get(), request.get(), timeout, &error, &raw);
  const Message answer(raw);
  if (result < 0) {
    const std::string text = error.message != nullptr ? error.message : errorText(result);
    sd_bus_error_free(&error);
    return failed<Nothing>(failureNow(), name + text);
  }
  if (read) result = read(answer.get());
  if (result < 0) return failed<Nothing>(Failure::kAnswer, name + "unexpected answer: " + errorText(result));
  return {Nothing{}, {}};
}

int Connection::exportClientObject(bool exported) {
  clientObject_.reset();
  if (!exported) return 0;
  // Anybody at the other end may call: it is the daemon, to which this process connected.
  static const sd_bus_vtable kMembers[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD_WITH_ARGS(
          "sendMessageToClient",
          SD_BUS_ARGS("aa{sv}", sessionInfo, "d", timestamp, "q", category, "q", type, "aa{sv}", payload),
          SD_BUS_NO_RESULT, takeMessage, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_VTABLE_END};
  sd_bus_slot* slot = nullptr;
  const int result =
      sd_bus_add_object_vtable(bus_.get(), &slot, kClientPath, kClientInterface, kMembers, this);
  clientObject_.reset(slot);
  return result;
}

/// Only takes the message in: what the client makes of it may throw or call the daemon,
/// and both are for outside the bus library.
int Connection::takeMessage(sd_bus_message* message, void* connection, sd_bus_error*) {
  try {
    AggregatedMessage aggregated;
    const int result = readAggregatedMessage(message, aggregated);
    if (result < 0) return result;
    static_cast<Connection*>(connection)->arrived_ = std::move(aggregated);
    return sd_bus_message_get_expect_reply(message) > 0 ? sd_bus_reply_method_return(message, nullptr) : 1;
  } catch (const std::exception&) {
    return -ENOMEM;
  }
}

Connection::Step Connection::process(std::optional<AggregatedMessage>& message) {
  const int result = sd_bus_process(bus_.get(), nullptr);
  message = std::exchange(arrived_, std::nullopt);
  if (result < 0) return Step::kLost;
  return result > 0 ? Step::kSomething : Step::kNothing;
}

bool Connection::wait(uint64_t microseconds) {
  return sd_bus_wait(bus_.get(), microseconds) > 0;
}

Failure Connection::failureNow() const {
  return sd_bus_is_open(bus_.get()) > 0 ? Failure::kAnswer : Failure::kConnection;
}

}  // namespace zunreporting
