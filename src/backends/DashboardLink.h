#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "backends/DashboardDatagram.h"
#include "backends/UDPPacketToSend.h"
#include "platform/DatagramSocket.h"
#include "platform/MemoryBudget.h"
#include "platform/PlatformServices.h"

namespace zun {

/// Where a dashboard backend's datagrams go, and how.
struct DashboardServer {
  IPv4SocketAddress address;
  /// The server acknowledges each datagram; until then it is sent again.
  bool isReliable = false;
  std::chrono::milliseconds timerPeriod{500};
};

/// A dashboard backend's socket, the packets that wait on it and the timer that looks
/// after them: its ticks are whole periods from the start, and it is armed only while
/// something waits. It outlives its backend while packets may still be acknowledged:
///
///   open ──▶ sending ──cleanup, nothing waits────────────────────────▶ ended
///               │  └──cleanup──▶ requested ──tick──▶ last resort ──▶ ended: all
///               │                                    acknowledged, or after 9.5 s
///               └──end────────────────────────────────────────────────▶ ended
///
/// Threading: `send`, `cleanup` and `end` on any thread; everything else runs on
/// networkProcQueue, the handlers of the timer and of the read source among it.
/// Ownership: by its backend, by what it has queued, and until it has ended by the
/// handlers of its timer and read source.
class DashboardLink final : public std::enable_shared_from_this<DashboardLink> {
 public:
  static constexpr size_t kMaximumPackets = 50;
  /// Datagrams that wait for their turn on the queue. A caller beyond helps to send
  /// them first, so that a flood of events costs its client time and nobody memory.
  static constexpr size_t kMaximumQueued = 256;
  /// Links of this process that outlive their backends, as many as there may usually be
  /// sessions: all of them may end together. One beyond ends at once: each holds a
  /// descriptor for about ten seconds, and clients that come and go must not pile them up.
  /// Each client's program has a share of them.
  static constexpr size_t kMaximumOutliving = 4096;

  /// Connects the socket and starts the timer; `holder` has a share of the places of those
  /// that outlive their backends. An error line and null if that fails.
  static std::shared_ptr<DashboardLink> open(const PlatformServices& platform,
                                             std::unique_ptr<DatagramSocket> socket,
                                             const DashboardServer& server, BudgetHolder holder = {});

  DashboardLink(const DashboardLink&) = delete;
  DashboardLink& operator=(const DashboardLink&) = delete;
  ~DashboardLink();

  /// Links of this process that have outlived their backends and whose packets still wait.
  /// One whose last packet was acknowledged holds its socket until the next tick, unawaited.
  [[nodiscard]] static size_t awaitedCount() { return awaited_; }

  [[nodiscard]] bool isReliable() const { return reliableUDP_; }

  void send(DashboardDatagram datagram, uint16_t eventNumber);

  /// Ends as soon as no packet waits any more, has waited long enough, or may not wait
  /// because too many links do.
  void cleanup();

  /// Ends after what was sent before; what waits is given up.
  void end();

 private:
  enum class CleanupState { kNone = 0, kRequested = 1, kLastResortScheduled = 2 };

  DashboardLink(const PlatformServices& platform, std::unique_ptr<DatagramSocket> socket,
                const DashboardServer& server, BudgetHolder holder = {});

  // networkProcQueue only.
  bool start(const IPv4SocketAddress& server);
  void useReliableUDP();
  bool startTimer();
  [[nodiscard]] std::chrono::nanoseconds untilNextTick() const;
  void tryToSendMsg(std::span<const std::byte> datagram, uint16_t eventNumber);
  void readSocket();
  bool processSocketRead();
  void myPeriodicTask();
  bool isDoneWith(UDPPacketToSend& packet);
  void retransmitIfDue(UDPPacketToSend& packet);
  [[nodiscard]] bool mayOutliveBackend();
  void stopOutliving();
  void stopBeingAwaited();
  void cleanUpIfRequested();
  void scheduleLastResort();
  void cleanupSources();
  [[nodiscard]] bool sendWhole(std::span<const std::byte> datagram);

  inline static MemoryBudget outliving_{kMaximumOutliving};  // places
  inline static std::atomic<size_t> awaited_{0};
  inline static std::atomic<bool> hasToldOfOverflow_{false};  // until all of them have ended

  const PlatformServices& platform_;
  const BudgetHolder holder_;
  const bool reliableUDP_;
  const std::chrono::nanoseconds timerPeriod_;
  const std::chrono::nanoseconds startTime_;  // of the monotonic clock
  const std::shared_ptr<SerialQueue> networkProcQueue_;
  std::atomic<size_t> queued_{0};

  // networkProcQueue only.
  const std::unique_ptr<DatagramSocket> socket_;
  std::vector<UDPPacketToSend> messageQueue_;  // oldest first
  CleanupState cleanupState_ = CleanupState::kNone;
  bool isOutliving_ = false;  // has one of those places
  bool isAwaited_ = false;    // counted
  bool hasEnded_ = false;
  // The services keep these, and they keep this link.
  // None while nothing waits: of 1,000 quiet sessions, timers that ran on would wake the
  // daemon 2,000 times a second, for 10.8 ms of CPU instead of 0.03 (bench/dashboard_bench.cpp).
  std::weak_ptr<TimerSource> timer_;
  std::weak_ptr<TimerSource> lastResort_;
  std::weak_ptr<ReadSource> readSource_;
};

}  // namespace zun
