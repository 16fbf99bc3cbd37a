#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "backends/DashboardLink.h"
#include "backends/ZunReportingBackend.h"

namespace zun {

/// Sends each event as one UDP datagram to a dashboard server, and uploads log records
/// to where its profile says.
///
///   initWithName ──▶ sendMessage ... ──▶ cleanup ──▶ end
///
/// In reliable mode the server acknowledges datagrams, and those that it does not are
/// sent again on a growing schedule (DashboardLink has both).
///
/// Threading and ownership: as ZunReportingBackend. One that ends without `cleanup`
/// gives up what was not acknowledged yet.
class DashboardBackend final : public ZunReportingBackend {
 public:
  /// The least time between two looks at the packets that wait: a storebag chooses the
  /// period and must not be able to keep the daemon busy with it; no network answers much
  /// sooner. And the most: a device that is switched on daily still sends again.
  static constexpr std::chrono::milliseconds kShortestTimerPeriod{10};
  static constexpr std::chrono::milliseconds kLongestTimerPeriod{std::chrono::hours(24)};

  /// With the server that `profile` names under "ip" and "port". Null, after an error
  /// line, if it names none or that cannot be connected to. `profile` may be any value;
  /// only a dictionary counts.
  static std::shared_ptr<DashboardBackend> initWithName(const ReportingServices& services,
                                                        std::string_view name, const Value& profile,
                                                        const std::optional<std::string>& productFamily);

  /// Without a profile: always reliable. Null if no address is given or it cannot be
  /// connected to.
  static std::shared_ptr<DashboardBackend> initWithName(const ReportingServices& services,
                                                        std::string_view name,
                                                        const std::optional<std::string>& serverIP,
                                                        uint16_t serverPort,
                                                        const std::optional<std::string>& productFamily);

  ~DashboardBackend() override;

  using ZunReportingBackend::sendMessage;
  /// Gives the event's line for the local log. None if there was no memory for it.
  std::optional<std::string> sendMessage(const std::optional<Dictionary>& message, const TimeValue& timestamp,
                                         uint16_t method, uint16_t respCode, uint16_t eventID,
                                         int32_t flag) override;
  /// Posts the records to the profile's "post_url" and reports their location as an
  /// event. Blocks until the post has ended.
  bool uploadLogData(const Array& logData) override;
  void cleanup() override;

 private:
  struct Origin {
    const ReportingServices& services;
    std::string_view name;
    const std::optional<Dictionary>& profile;
    const std::optional<std::string>& productFamily;
  };

  DashboardBackend(const Origin& origin, bool usingProfile, std::shared_ptr<DashboardLink> link);
  static std::shared_ptr<DashboardBackend> initWithName(const Origin& origin,
                                                        const std::optional<std::string>& serverIP,
                                                        uint16_t serverPort);

  const bool usingProfile_;
  std::optional<std::string> postURL_;
  const std::shared_ptr<DashboardLink> link_;
  bool hasCleanedUp_ = false;
};

}  // namespace zun
