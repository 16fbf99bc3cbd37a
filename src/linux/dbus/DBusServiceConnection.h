#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "linux/dbus/DBusFileAccess.h"
#include "linux/dbus/DBusInput.h"
#include "linux/dbus/DBusObjects.h"
#include "linux/dbus/DBusOutput.h"
#include "linux/files/FileDescriptor.h"
#include "linux/files/WakeDescriptor.h"
#include "linux/service/KnownPeer.h"
#include "platform/ServiceConnection.h"
#include "platform/SystemLog.h"

namespace zun {

/// What all connections share, each its part.
struct DBusBudgets {
  static constexpr size_t kIncomingBytes = size_t{256} << 20;
  static constexpr size_t kDecodedBytes = size_t{64} << 20;
  static constexpr size_t kWaitingReplyBytes = size_t{193} << 20;

  /// Buffers for messages that are still coming.
  std::shared_ptr<MemoryBudget> incoming = std::make_shared<MemoryBudget>(kIncomingBytes);
  /// What the calls under way decode to.
  std::shared_ptr<MemoryBudget> decoded = std::make_shared<MemoryBudget>(kDecodedBytes);
  /// Replies larger than a client's message may be that wait to be read.
  std::shared_ptr<MemoryBudget> largeReplies = std::make_shared<MemoryBudget>(kWaitingReplyBytes);
};

struct DBusConnectionOptions {
  DBusLimits messageLimits;
  DBusOutputLimits outputLimits;
  std::chrono::milliseconds authenticationTimeout{std::chrono::seconds{10}};
  /// For how long a client may leave its replies, when its calls wait for that, without
  /// reading a byte. Its own end of the connection may be among what it sent: then nothing
  /// else would ever tell that it has gone.
  std::chrono::milliseconds unreadTimeout{std::chrono::minutes{10}};
  /// For how long a client that sends nothing keeps its thread; negative: for ever.
  std::chrono::milliseconds restAfter{100};
  DBusBudgets budgets;
};

/// One client's connection.
///
///   run ─▶ authentication ─▶ delegate asked ─▶ resumed: calls ─▶ invalidated
///            │ failed, late      │ refused         ▲    │ half-closed by the peer:
///            ▼                   ▼                 │    │ interruption handler, then
///          closed              closed              └────┘ the answers still owed
///
/// Threading: whichever thread is within `run` is the connection's thread; everything else as
/// ServiceConnection says.
/// Ownership: the listener holds it until it has ended, others as they like.
/// Handlers and the exported object are let go when the connection has been invalidated.
class DBusServiceConnection final : public ServiceConnection {
 public:
  /// `log` outlives the connection. Null when the system is short of descriptors.
  static std::shared_ptr<DBusServiceConnection> create(FileDescriptor socket, KnownPeer peer,
                                                       std::string serverID,
                                                       const DBusConnectionOptions& options, SystemLog& log);

  DBusServiceConnection(FileDescriptor socket, WakeDescriptor wake, KnownPeer peer, std::string serverID,
                        const DBusConnectionOptions& options, SystemLog& log);
  ~DBusServiceConnection() override;

  enum class Outcome { kRests, kEnded };
  /// Takes why the client has not authenticated, before `run` returns.
  using FailureHandler = std::function<void(std::string reason)>;
  void setAuthenticationFailureHandler(FailureHandler handler) { authenticationFailed_ = std::move(handler); }

  /// Serves the client until the connection ends, or rests for want of anything to do: to be
  /// run again when one of `descriptors` is readable. Asks `delegate` (null: nobody, refused).
  /// `self` is this connection, as the delegate gets it. Not two at once.
  Outcome run(ServiceListenerDelegate* delegate, const std::shared_ptr<ServiceConnection>& self);
  [[nodiscard]] std::array<int, 2> descriptors() const { return {socket_.get(), wake_.get()}; }

  std::optional<bool> booleanEntitlement(std::string_view name) const override {
    return peer_.booleanEntitlement(name);
  }
  ClientClaims claims(std::string_view entitlement) const override { return peer_.claims(entitlement); }
  uint32_t user() const override { return peer_.user(); }
  std::string description() const override { return description_; }
  std::shared_ptr<SandboxExtensions> sandboxExtensions() const override { return fileAccess_.extensions(); }
  BudgetHolder budgetHolder() const override { return holder_; }
  BudgetHolder programHolder() const override;
  bool isWanted() const override;
  void setExportedInterface(const ServiceInterface& interface) override;
  void setRemoteObjectInterface(const ServiceInterface& interface) override;
  void setExportedObject(std::shared_ptr<ExportedObject> object) override;
  void setInterruptionHandler(UniqueFunction<void()> handler) override;
  void setInvalidationHandler(UniqueFunction<void()> handler) override;
  void resume() override;
  void invalidate() override;
  Result<std::shared_ptr<const EncodedCall>, std::string> encodeCall(size_t member,
                                                                     const Array& arguments) const override;
  std::optional<std::string> callRemote(const EncodedCall& call) override;

  /// As it was known when it connected or, once authenticated, was confirmed.
  [[nodiscard]] const KnownPeer& peer() const { return peer_; }
  /// Who the peer is by now. The connection's thread only, until it ends.
  [[nodiscard]] std::optional<PeerIdentity> readPeer() const { return readPeerIdentity(socket_.get()); }
  /// Before the delegate is asked.
  void confirmPeer(KnownPeer peer) { peer_ = std::move(peer); }

 private:
  enum class Step { kGoOn, kStop };
  static constexpr int kForEver = -1;

  bool authenticate();
  void waitForResume();
  Outcome serve();
  bool waitForEvents(int events, int milliseconds);
  Step waitForReader();
  bool waitForCalls();
  void notePeerIsGone();
  bool receive();
  bool isFinished();
  Step dispatchBuffered();
  Step dispatch(DBusIncomingMessage& message);
  Step dispatchCall(DBusIncomingMessage& message);
  void callExported(size_t member, const Array& arguments, ServiceReply reply);
  void sendError(const DBusHeader& call, std::string_view name, std::string_view text);
  void end();

  KnownPeer peer_;
  const std::string serverID_;
  const DBusConnectionOptions options_;
  const std::string description_;
  const BudgetHolder holder_;
  SystemLog& log_;
  FileDescriptor socket_;
  WakeDescriptor wake_;
  std::shared_ptr<DBusOutput> output_;
  DBusInput input_;
  DBusFileAccess fileAccess_;

  // Set up between acceptance and resume; then the connection's thread's.
  DBusObjects objects_;
  std::optional<DBusInterfaceTable> remote_;
  std::shared_ptr<ExportedObject> exportedObject_;
  FailureHandler authenticationFailed_;
  UniqueFunction<void()> interruptionHandler_;
  UniqueFunction<void()> invalidationHandler_;
  std::vector<bool> isQuick_;  // by member: its last call took no time worth speaking of

  std::atomic<bool> isResumed_{false};
  std::atomic<bool> isInvalidated_{false};

  // The connection's thread's.
  bool peerIsGone_ = false;     // it closed the socket, or has ended
  bool endOfInput_ = false;     // it sends no more
  bool isStarved_ = false;      // no whole message is left in the buffer
  bool isInterrupted_ = false;  // the interruption handler was called
  bool isServed_ = false;       // the delegate has accepted it
};

}  // namespace zun
