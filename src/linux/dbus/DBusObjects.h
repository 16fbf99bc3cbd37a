#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "linux/dbus/DBusMessage.h"
#include "platform/ServiceConnection.h"
#include "values/Value.h"

namespace zun {

inline constexpr std::string_view kDBusErrorUnknownObject = "org.freedesktop.DBus.Error.UnknownObject";
inline constexpr std::string_view kDBusErrorUnknownInterface = "org.freedesktop.DBus.Error.UnknownInterface";
inline constexpr std::string_view kDBusErrorUnknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";
inline constexpr std::string_view kDBusErrorAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";
inline constexpr std::string_view kDBusErrorInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
inline constexpr std::string_view kDBusErrorLimitsExceeded = "org.freedesktop.DBus.Error.LimitsExceeded";
inline constexpr std::string_view kDBusErrorFailed = "org.freedesktop.DBus.Error.Failed";

/// An interface with the signatures that its calls and answers have on the wire.
class DBusInterfaceTable final {
 public:
  struct Member {
    std::string_view name;
    std::string inSignature;
    std::string outSignature;
  };

  explicit DBusInterfaceTable(const ServiceInterface& interface);

  [[nodiscard]] const ServiceInterface& interface() const { return *interface_; }
  [[nodiscard]] const Member& member(size_t index) const { return members_[index]; }
  [[nodiscard]] std::optional<size_t> find(std::string_view name) const;

 private:
  const ServiceInterface* interface_;
  std::vector<Member> members_;
};

/// True where a body of signature `actual` may stand where `expected` is asked for:
/// the same, but a{ss} serves as a{sv}.
[[nodiscard]] bool acceptsDBusSignature(std::string_view expected, std::string_view actual);

/// The two ends of a connection, for clients that ask about them.
struct DBusEnds {
  std::string serverID;
  uint32_t peerProcess = 0;
  uint32_t peerUser = 0;
};

/// Finds out what a call is for, and answers what is the same for every service: the
/// interfaces Introspectable, Peer and Properties, and, for clients that are used to a
/// bus, a small org.freedesktop.DBus.
///
/// One thread once connections are served.
class DBusObjects final {
 public:
  explicit DBusObjects(DBusEnds ends) : ends_(std::move(ends)) {}

  /// Whose the answers of an interface are.
  enum class Answerer {
    kExportedObject,
    kFileAccess,
    kThis,  // what is the same for every service
  };

  /// One more interface that is there; `interface` outlives this. Before calls are resolved.
  void exportInterface(const ServiceInterface& interface, Answerer answerer) {
    exported_.push_back({DBusInterfaceTable(interface), answerer});
  }

  struct Target {
    const DBusInterfaceTable* table = nullptr;  // null: there is none, and `error` says why
    size_t member = 0;
    Answerer answerer = Answerer::kThis;
    std::string_view error;
    std::string errorText;
  };
  /// Whom a call is for; its body's signature is checked as well.
  [[nodiscard]] Target resolve(const DBusHeader& call) const;

  /// Answers a call that is this object's to answer.
  void answer(const Target& target, const DBusHeader& call, const Array& arguments, ServiceReply reply) const;

 private:
  struct Exported {
    DBusInterfaceTable table;
    Answerer answerer;
  };
  struct Offer {
    const DBusInterfaceTable* table;
    Answerer answerer;
  };
  enum class Node { kUnknown, kParent, kExported, kBus };
  [[nodiscard]] Node nodeAt(std::string_view path) const;
  [[nodiscard]] std::vector<Offer> offersAt(std::string_view path) const;
  [[nodiscard]] Target find(const DBusHeader& call) const;
  [[nodiscard]] Target search(const DBusHeader& call) const;
  [[nodiscard]] std::string introspect(std::string_view path) const;
  [[nodiscard]] std::vector<std::string_view> knownPaths() const;
  void answerPeer(std::string_view member, ServiceReply reply) const;
  void answerProperties(std::string_view member, ServiceReply reply) const;
  void answerBus(std::string_view member, const Array& arguments, ServiceReply reply) const;

  DBusEnds ends_;
  std::vector<Exported> exported_;
};

}  // namespace zun
