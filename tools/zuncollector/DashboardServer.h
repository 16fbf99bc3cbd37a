#pragma once

#include <netinet/in.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <thread>

#include "AcknowledgementPlan.h"
#include "DashboardDatagram.h"
#include "RecordFile.h"
#include "SeenEvents.h"
#include "platform/Mutex.h"

namespace zun {

/// The datagrams received so far.
struct DashboardTotals {
  uint64_t datagrams = 0;     // well-formed, duplicates included
  uint64_t duplicates = 0;    // came before
  uint64_t malformed = 0;     // only counted and told
  uint64_t unrecorded = 0;    // could not be written, and were not acknowledged
  uint64_t acknowledged = 0;  // datagrams whose acknowledgement went out as it should be
};

/// Receives events as UDP datagrams, records each, and acknowledges those of senders in
/// reliable mode by returning the datagram. The others ask for no answer and get none.
/// An event is recorded before it is acknowledged: one that is not recorded comes again.
///
///   bind ──▶ start ──▶ (its own thread receives) ──▶ stop, or its end
///
/// Threading: `bind`, `start` and `stop` from one thread, `totals` from any.
class DashboardServer final {
 public:
  /// `file` outlives the server.
  DashboardServer(RecordFile& file, const AcknowledgementOptions& options);
  ~DashboardServer();
  DashboardServer(const DashboardServer&) = delete;
  DashboardServer& operator=(const DashboardServer&) = delete;

  /// Binds an IPv4 address or name and a port (0: any free one). An error text on failure.
  [[nodiscard]] std::string bind(const std::string& host, uint16_t port);
  [[nodiscard]] uint16_t port() const { return port_; }
  void start();
  void stop();

  [[nodiscard]] DashboardTotals totals() const EXCLUDES(mutex_);

 private:
  using TimePoint = std::chrono::steady_clock::time_point;
  struct Acknowledgement {
    TimePoint due;
    sockaddr_in receiver;
    AcknowledgementFate fate;
    std::string bytes;
  };

  void run();
  /// Whether more may wait.
  bool receiveWaiting();
  void take(std::string_view bytes, const sockaddr_in& sender);
  void tellMalformed(const std::string& sender, const std::string& why) EXCLUDES(mutex_);
  void acknowledge(std::string_view bytes, const sockaddr_in& sender, AcknowledgementFate fate);
  void send(const Acknowledgement& acknowledgement) EXCLUDES(mutex_);
  void sendDue();
  [[nodiscard]] int millisecondsToNextDue() const;

  RecordFile& file_;
  const AcknowledgementOptions options_;
  int socket_ = -1;
  std::array<int, 2> wakePipe_{-1, -1};
  uint16_t port_ = 0;
  std::thread thread_;

  // The receiving thread's own.
  AcknowledgementPlan plan_;
  SeenEvents seen_;
  std::deque<Acknowledgement> delayed_;  // the delay is the same for all: in the order they are due

  mutable Mutex mutex_;
  DashboardTotals totals_ GUARDED_BY(mutex_);
};

}  // namespace zun
