#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "linux/dbus/DBusServiceConnection.h"
#include "linux/dbus/ListeningSocket.h"
#include "linux/dbus/RecentRefusals.h"
#include "linux/dbus/RefusalLog.h"
#include "linux/dbus/WaitingClients.h"
#include "linux/files/FileDescriptor.h"
#include "linux/files/WakeDescriptor.h"
#include "linux/loop/ElasticPool.h"
#include "linux/service/EntitlementStore.h"
#include "linux/system/Heartbeat.h"
#include "platform/Mutex.h"
#include "platform/ServiceConnection.h"
#include "platform/SystemLog.h"
#include "values/Error.h"
#include "values/Result.h"

namespace zun {

struct DBusListenerOptions {
  /// "unix:path=PATH". Not used when the service manager hands a socket over.
  std::string address;
  // Nobody gets more than half of what is left beside the others, be it a user of all
  // connections or a program of its user's.
  size_t maximumConnections = 4096;
  size_t maximumConnectionsPerUser = 256;
  ElasticPool::Options threads;
  DBusConnectionOptions connection;
  /// For refusals alone: when they are told, and how long they are remembered.
  std::function<RefusalLog::Time()> now = [] { return std::chrono::steady_clock::now().time_since_epoch(); };
  /// Makes the thread that accepts; its quality of service is that of the connections'.
  std::function<std::thread(std::function<void()>)> startThread = [](std::function<void()> work) {
    return std::thread(std::move(work));
  };
};

/// The named service: D-Bus, point to point, on a Unix socket that everybody may
/// connect to; entitlements decide who is served, before anything is made for a peer and
/// again once it has authenticated: it may run another program by then.
///
///   created (listening) ─resume─▶ accepting ─stop─▶ closed ─invalidateConnections─▶ over
///                       ◀──pause──
///
/// Threading: as ServiceListener says; one thread accepts, an elastic pool serves whoever
/// is not idle.
/// Ownership: main's. `entitlements` and `log` outlive it, the delegate its connections.
class DBusServiceListener final : public ServiceListener, private ServiceListenerDelegate {
 public:
  static Result<std::unique_ptr<DBusServiceListener>, Error> create(DBusListenerOptions options,
                                                                    EntitlementStore& entitlements,
                                                                    SystemLog& log);
  ~DBusServiceListener() override;

  void setDelegate(ServiceListenerDelegate* delegate) override { delegate_ = delegate; }
  void resume() override;
  void pause() override;
  void stop() override;
  void invalidateConnections() override;

  /// Connections that have not ended. Any thread.
  [[nodiscard]] size_t connectionCount() override;
  [[nodiscard]] bool hasWaitingClient() override;
  /// Called with the new count whenever it changes, on any thread, one call at a time.
  /// Set before `resume`.
  void setConnectionCountHandler(UniqueFunction<void(size_t)> handler);
  /// The accepting thread's.
  [[nodiscard]] std::shared_ptr<const Heartbeat> heartbeat() const { return heartbeat_; }

 private:
  /// A connection and the place that it holds.
  class Served;
  /// By device and inode; a program that is not known is none.
  using ProgramKey = std::pair<dev_t, ino_t>;
  struct User {
    size_t connections = 0;
    std::map<ProgramKey, size_t> programs;  // connections
  };

  DBusServiceListener(DBusListenerOptions options, ListeningSocket socket,
                      std::unique_ptr<const WakeDescriptor> wake, std::unique_ptr<ElasticPool> pool,
                      EntitlementStore& entitlements, SystemLog& log);
  // ServiceListenerDelegate, between a connection and the listener's own one.
  bool isEntitled(const ServicePeer& peer) override;
  bool shouldAcceptNewConnection(const std::shared_ptr<ServiceConnection>& connection) override;
  void acceptLoop();
  void waitAtTheDoor();
  void acceptWaiting();
  void handleAcceptFailure(int error);
  void serve(FileDescriptor socket);
  void queue(FileDescriptor client);
  void serveWaiting(size_t count);
  template <typename Work>
  void orRefuse(Work&& work);
  /// Refuses a peer that, or whose account, was refused a moment ago.
  bool refuseAgain(const PeerIdentity& peer);
  /// Refuses a peer that is not entitled whatever it runs: no rule is for its user or groups.
  bool refuseStranger(const PeerIdentity& peer, int socket);
  /// False where that is for a shortage: nothing of it is to be remembered.
  bool refuseUnentitled(const PeerIdentity& peer, std::string reason);
  [[nodiscard]] int millisecondsToLook();
  void refuse(RefusalLog::Cause cause, const PeerIdentity* peer, std::string reason);
  /// Why there is no place for one more connection of this peer; empty if there is one.
  std::string reasonAgainstPlace(const PeerIdentity& peer);
  static ProgramKey programKey(const PeerIdentity& peer);
  void begin(std::shared_ptr<DBusServiceConnection> connection);
  void connectionEnded(Served& served);
  void leave(const Served& served) REQUIRES(mutex_);
  void countChanged();

  const DBusListenerOptions options_;
  const std::string serverID_;
  EntitlementStore& entitlements_;
  SystemLog& log_;
  ServiceListenerDelegate* delegate_ = nullptr;
  ListeningSocket socket_;
  const std::unique_ptr<const WakeDescriptor> wake_;  // the pool signals it as well
  FileDescriptor spare_;  // given up for a moment to refuse a client when descriptors run out
  bool isShort_ = false;  // the accepting thread's: the system is, and it has been said
  RefusalLog refusals_;
  // The accepting thread's.
  RecentRefusals recentRefusals_;
  WaitingClients waiting_;
  std::thread thread_;
  const std::shared_ptr<Heartbeat> heartbeat_ = std::make_shared<Heartbeat>("the accepting thread");
  std::atomic<bool> isStopping_{false};
  std::atomic<bool> isPaused_{false};
  Mutex doorMutex_;
  std::condition_variable_any doorMoved_;
  bool waitsAtTheDoor_ GUARDED_BY(doorMutex_) = false;  // the accepting thread

  Mutex countMutex_;
  UniqueFunction<void(size_t)> countHandler_ GUARDED_BY(countMutex_);

  Mutex mutex_;
  std::list<std::shared_ptr<Served>> running_ GUARDED_BY(mutex_);
  size_t ending_ GUARDED_BY(mutex_) = 0;            // connections, among them some without a place
  std::map<uid_t, User> users_ GUARDED_BY(mutex_);  // those who have connections
  std::condition_variable_any allEnded_;
  const std::unique_ptr<ElasticPool> pool_;
};

}  // namespace zun
