#include "backends/DashboardBackend.h"

#include <algorithm>
#include <utility>

#include "backends/LogDataUpload.h"
#include "backends/MessageBlob.h"
#include "util/Conversions.h"

namespace zun {

namespace {

std::optional<std::string> textOf(const Value& value) {
  const auto text = value.string();
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

bool namesServer(const Dictionary& profile) {
  return profile.contains("ip") && profile.contains("port");
}

DashboardServer serverOfProfile(const Dictionary& profile, SystemLog& log) {
  DashboardServer server;
  // What is no text is no address either, and cannot be connected to.
  server.address =
      dashboardSocketAddress(profile["ip"].stringValue(), static_cast<uint16_t>(profile["port"].intValue()));
  const Value& period = profile["reliable"];
  if (period.isNone()) return server;
  server.isReliable = true;
  const int64_t given = period.intValue();
  const int64_t counts = std::clamp(given, int64_t{DashboardBackend::kShortestTimerPeriod.count()},
                                    int64_t{DashboardBackend::kLongestTimerPeriod.count()});
  if (counts != given) {
    log.error("DashboardBackend(initWithName): a \"reliable\" of {} ms counts as {} ms", given, counts);
  }
  server.timerPeriod = std::chrono::milliseconds(counts);
  return server;
}

}  // namespace

std::shared_ptr<DashboardBackend> DashboardBackend::initWithName(
    const ReportingServices& services, std::string_view name, const Value& profile,
    const std::optional<std::string>& productFamily) {
  const Dictionary* const section = profile.dictionary();
  if (section == nullptr) {
    const std::optional<Dictionary> none;
    return initWithName({services, name, none, productFamily}, std::nullopt, 0);
  }
  const std::optional<Dictionary> given(*section);
  return initWithName({services, name, given, productFamily}, textOf((*section)["ip"]),
                      static_cast<uint16_t>((*section)["port"].intValue()));
}

std::shared_ptr<DashboardBackend> DashboardBackend::initWithName(
    const ReportingServices& services, std::string_view name, const std::optional<std::string>& serverIP,
    uint16_t serverPort, const std::optional<std::string>& productFamily) {
  if (!serverIP) return nullptr;
  const std::optional<Dictionary> none;
  return initWithName({services, name, none, productFamily}, serverIP, serverPort);
}

std::shared_ptr<DashboardBackend> DashboardBackend::initWithName(const Origin& origin,
                                                                 const std::optional<std::string>& serverIP,
                                                                 uint16_t serverPort) {
  SystemLog& log = origin.services.platform.log;
  if (origin.profile && !origin.profile->contains("ip")) {
    log.error("DashboardBackend(initWithName): can't resolve server IP");
  }
  if (origin.profile && !origin.profile->contains("port")) {
    log.error("DashboardBackend(initWithName): can't resolve server port");
  }
  auto socket = origin.services.platform.sockets.makeSocket();
  if (!socket) {
    log.error("DashboardBackend(initWithName): socket() failed ({})", socket.error().code);
    return nullptr;
  }
  const bool usingProfile = origin.profile && namesServer(*origin.profile);
  if (!usingProfile && !serverIP) {
    log.error("DashboardBackend(initWithName): initWitName with all null params.");
    return nullptr;
  }
  const DashboardServer server =
      usingProfile
          ? serverOfProfile(*origin.profile, log)
          : DashboardServer{.address = dashboardSocketAddress(*serverIP, serverPort), .isReliable = true};
  auto link =
      DashboardLink::open(origin.services.platform, std::move(*socket), server, origin.services.program);
  if (link == nullptr) return nullptr;
  return std::shared_ptr<DashboardBackend>(new DashboardBackend(origin, usingProfile, std::move(link)));
}

DashboardBackend::DashboardBackend(const Origin& origin, bool usingProfile,
                                   std::shared_ptr<DashboardLink> link)
    : ZunReportingBackend(origin.services, std::string(origin.name), origin.profile.value_or(Dictionary()),
                          origin.productFamily.value_or(std::string())),
      usingProfile_(usingProfile),
      link_(std::move(link)) {
  if (!usingProfile_) return;
  displayURL_ = textOf(profile_["display_url"]);
  postURL_ = textOf(profile_["post_url"]);
}

DashboardBackend::~DashboardBackend() {
  if (!hasCleanedUp_) link_->end();
}

std::optional<std::string> DashboardBackend::sendMessage(const std::optional<Dictionary>& message,
                                                         const TimeValue& timestamp, uint16_t method,
                                                         uint16_t respCode, uint16_t eventID,
                                                         int32_t /*flag*/) {
  const DashboardHeader header{.formatMajorVersion = selfVersionMajor_,
                               .clientType = static_cast<uint8_t>(compType_),
                               .timestamp = timestamp,
                               .sessionID = sessionID_,
                               .clientVersion = clientVersion_,
                               .method = method,
                               .respCode = respCode,
                               .deviceIdentifier = udid_ ? std::string_view(*udid_) : std::string_view(),
                               .eventNumber = eventID,
                               .isReliable = link_->isReliable(),
                               .isWithoutProfile = !usingProfile_};
  auto datagram = DashboardDatagram::make(header, eventPayload(message));
  if (!datagram) {
    log().error("DashboardBackend(sendMessage): can't malloc.");
    return std::nullopt;
  }
  std::string record = datagram->writeLocalLog(senderCode());
  link_->send(*std::move(datagram), eventID);
  return record;
}

bool DashboardBackend::uploadLogData(const Array& logData) {
  auto location =
      uploadLogDataArray(postURL_, logData, reportingSessionConnectivityDelegate_.lock(),
                         std::make_unique<MemoryShare>(services_.logDataMemory, services_.holder), log());
  if (!location) return false;
  constexpr uint16_t kMethod = 0;
  constexpr uint16_t kRespCodeUploaded = 2;
  static_cast<void>(sendMessage(Dictionary{{"LogDataUploadLocation", *std::move(location)}},
                                services_.platform.clock.timeOfDay(), kMethod, kRespCodeUploaded,
                                /*flag=*/0));
  return true;
}

void DashboardBackend::cleanup() {
  hasCleanedUp_ = true;
  link_->cleanup();
}

}  // namespace zun
