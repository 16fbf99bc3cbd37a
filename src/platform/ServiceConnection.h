#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/ClientClaims.h"
#include "platform/MemoryBudget.h"
#include "platform/SandboxExtension.h"
#include "platform/UniqueFunction.h"
#include "values/Result.h"
#include "values/Value.h"

namespace zun {

/// One argument of a member. `type` is a D-Bus signature of one complete type.
struct ServiceArgument {
  std::string_view name;
  std::string_view type;
};

/// One operation that can be called over a connection.
struct ServiceMember {
  std::string_view name;
  std::span<const ServiceArgument> in;
  std::span<const ServiceArgument> out;
};

/// An interface at its object path: what is exported, or what the peer exports.
struct ServiceInterface {
  std::string_view objectPath;
  std::string_view name;
  std::span<const ServiceMember> members;
};

/// The one answer to one call. Move-only; given from any thread, at any time.
///
/// Let go unanswered, it answers with the error NoReply, so that no client waits for
/// ever. After the connection has gone, or for a call that wants no answer, giving it
/// does nothing.
class ServiceReply final {
 public:
  /// Where an answer goes: out values in the member's order, or an error.
  class Sink {
   public:
    virtual ~Sink() = default;
    /// `shorter` may be null.
    virtual void sendReturn(const Array& values, const Array* shorter) = 0;
    virtual void sendError(std::string_view name, std::string_view text) = 0;
  };

  /// D-Bus error name for a call that nobody will ever answer.
  static constexpr std::string_view kNoReply = "com.vantix.zunreportingd.Error.NoReply";
  /// ... for what the client may not ask for.
  static constexpr std::string_view kAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";

  /// ... for what is larger than it may be.
  static constexpr std::string_view kLimitsExceeded = "org.freedesktop.DBus.Error.LimitsExceeded";

  ServiceReply() = default;
  explicit ServiceReply(std::unique_ptr<Sink> sink) : sink_(std::move(sink)) {}
  ServiceReply(ServiceReply&&) noexcept = default;
  ServiceReply& operator=(ServiceReply&& other) noexcept {
    dropUnanswered();
    sink_ = std::move(other.sink_);
    return *this;
  }
  ~ServiceReply() { dropUnanswered(); }

  void send(const Array& values = {}) {
    if (const auto sink = std::move(sink_)) sink->sendReturn(values, nullptr);
  }
  /// `shorter` is sent where `values` are too large, or the peer leaves no room for them.
  void send(const Array& values, const Array& shorter) {
    if (const auto sink = std::move(sink_)) sink->sendReturn(values, &shorter);
  }
  void sendError(std::string_view name, std::string_view text) {
    if (const auto sink = std::move(sink_)) sink->sendError(name, text);
  }

 private:
  void dropUnanswered() { sendError(kNoReply, "The call ended without an answer"); }
  std::unique_ptr<Sink> sink_;
};

/// The object that answers a connection's calls. Calls come in order, one at a time,
/// on the connection's thread; they may block that client alone.
class ExportedObject {
 public:
  virtual ~ExportedObject() = default;

  /// `arguments` match the in types of `interface.members[member]`.
  virtual void handleCall(size_t member, const Array& arguments, ServiceReply reply) = 0;
};

/// A call of a peer's object with its arguments as they travel. Any connection of the kind
/// that made it takes it, whoever is at the other end.
class EncodedCall {
 public:
  virtual ~EncodedCall() = default;
};

/// Who is at the other end of a socket. Any thread.
class ServicePeer {
 public:
  virtual ~ServicePeer() = default;

  /// The peer's boolean entitlement `name`; none when it has no such entry.
  [[nodiscard]] virtual std::optional<bool> booleanEntitlement(std::string_view name) const = 0;
  /// What the peer may say of itself under that entitlement.
  [[nodiscard]] virtual ClientClaims claims(std::string_view entitlement) const = 0;
  /// The user id.
  [[nodiscard]] virtual uint32_t user() const = 0;

  /// One line for logs: process id, user, executable.
  [[nodiscard]] virtual std::string description() const = 0;
};

/// One client process's connection. Any thread, but for what is set up between
/// acceptance and `resume`.
class ServiceConnection : public ServicePeer {
 public:
  /// What the peer has handed over by descriptor and nobody has used yet. May outlive the
  /// connection, and then gives nothing any more.
  [[nodiscard]] virtual std::shared_ptr<SandboxExtensions> sandboxExtensions() const = 0;

  /// Whose is what the connection has the daemon keep: the peer's user, and this connection.
  [[nodiscard]] virtual BudgetHolder budgetHolder() const = 0;
  /// The same for what lasts longer than a connection: the user, and the peer's program.
  [[nodiscard]] virtual BudgetHolder programHolder() const = 0;

  /// False once the peer has gone or the connection has been invalidated: nobody waits for
  /// what its call under way does. Within a call only.
  [[nodiscard]] virtual bool isWanted() const = 0;

  // Before resume. The interfaces and names they refer to live as long as the program.
  virtual void setExportedInterface(const ServiceInterface& interface) = 0;
  virtual void setRemoteObjectInterface(const ServiceInterface& interface) = 0;
  virtual void setExportedObject(std::shared_ptr<ExportedObject> object) = 0;
  /// The peer broke off in the middle of something that may go on (the connection stays).
  virtual void setInterruptionHandler(UniqueFunction<void()> handler) = 0;
  /// The connection has ended, whoever ended it; called once, on the connection's
  /// thread, after its last call. Handlers and exported object are let go after it.
  virtual void setInvalidationHandler(UniqueFunction<void()> handler) = 0;

  /// Begins to deliver calls.
  virtual void resume() = 0;

  /// Ends the connection; calls under way finish.
  virtual void invalidate() = 0;

  /// A one-way call of the peer's object, or a text for logs that says why there is none.
  /// Touches no connection, so that it can be made before a lock is taken.
  [[nodiscard]] virtual Result<std::shared_ptr<const EncodedCall>, std::string> encodeCall(
      size_t member, const Array& arguments) const = 0;
  /// Makes that call. A peer that does not read is bounded: what no longer fits is
  /// dropped. None on success, else a text for logs.
  virtual std::optional<std::string> callRemote(const EncodedCall& call) = 0;
};

/// Decides about new connections. Called on the listener's threads, several at once.
class ServiceListenerDelegate {
 public:
  virtual ~ServiceListenerDelegate() = default;

  /// Asked before anything is made for the peer, and again once it has authenticated: false
  /// turns it away.
  virtual bool isEntitled(const ServicePeer& peer) = 0;
  /// True to accept: the delegate has then set the connection up and resumed it.
  virtual bool shouldAcceptNewConnection(const std::shared_ptr<ServiceConnection>& connection) = 0;
};

/// Listens on the named service. One thread.
class ServiceListener {
 public:
  virtual ~ServiceListener() = default;

  /// `delegate` outlives the listener.
  virtual void setDelegate(ServiceListenerDelegate* delegate) = 0;
  /// Begins to accept, or goes on after `pause`.
  virtual void resume() = 0;
  /// Lets new clients wait.
  virtual void pause() = 0;
  /// Accepts no more.
  virtual void stop() = 0;
  /// Connections that are served, and whether a client waits to be. Exact while paused.
  [[nodiscard]] virtual size_t connectionCount() = 0;
  [[nodiscard]] virtual bool hasWaitingClient() = 0;
  /// Invalidates every connection and waits for their threads.
  virtual void invalidateConnections() = 0;
};

}  // namespace zun
