#include <algorithm>
#include <iterator>

#include "backends/DashboardBackend.h"
#include "backends/HTTPSPostBackend.h"
#include "backends/JoulexBackend.h"
#include "backends/KodoBackend.h"
#include "backends/UploadBackend.h"
#include "zunreporting/Keys.h"

namespace zun {

namespace {

using zunreporting::kZunReportingBackendDashboard;
using zunreporting::kZunReportingBackendHTTPPost;
using zunreporting::kZunReportingBackendHTTPPost2;
using zunreporting::kZunReportingBackendJoulex;
using zunreporting::kZunReportingBackendKodo;
using zunreporting::kZunReportingBackendQRS;
using zunreporting::kZunReportingBackendUploadServer;

constexpr std::string_view kHostWithoutKodo = "Brindle";

/// What a backend is made from.
struct Section {
  const ReportingServices& services;
  std::string_view name;
  const Value& profile;
  const std::optional<std::string>& productFamily;
  int32_t clientType;
};

struct Kind {
  bool (*isNamedBy)(const Section& section);
  std::shared_ptr<ZunReportingBackend> (*make)(const Section& section);
};

std::shared_ptr<ZunReportingBackend> makeDashboard(const Section& section) {
  return DashboardBackend::initWithName(section.services, section.name, section.profile,
                                        section.productFamily);
}

std::shared_ptr<ZunReportingBackend> makeHTTPSPost(const Section& section) {
  return HTTPSPostBackend::initWithName(section.services, section.name, section.profile,
                                        section.productFamily);
}

std::shared_ptr<ZunReportingBackend> makeJoulex(const Section& section) {
  return JoulexBackend::initWithName(section.services, section.name, section.profile, section.productFamily);
}

std::shared_ptr<ZunReportingBackend> makeKodo(const Section& section) {
  return KodoBackend::initWithName(section.services, section.name, section.profile, section.productFamily,
                                   section.clientType);
}

std::shared_ptr<ZunReportingBackend> makeUpload(const Section& section) {
  return UploadBackend::initWithName(section.services, section.name, section.profile, section.productFamily);
}

template <const std::string_view& name>
bool equals(const Section& section) {
  return section.name == name;
}

template <const std::string_view& part>
bool contains(const Section& section) {
  return section.name.find(part) != std::string_view::npos;
}

/// The metrics adaptor is not for every host.
bool isKodoOnHostThatHasIt(const Section& section) {
  return section.name == kZunReportingBackendKodo &&
         section.services.identity.productType() != kHostWithoutKodo;
}

/// The first kind that a name fits is the one.
constexpr Kind kKinds[] = {
    {equals<kZunReportingBackendDashboard>, makeDashboard},
    {equals<kZunReportingBackendUploadServer>, makeUpload},
    {contains<kZunReportingBackendHTTPPost>, makeHTTPSPost},
    {equals<kZunReportingBackendHTTPPost2>, makeHTTPSPost},
    {equals<kZunReportingBackendJoulex>, makeJoulex},
    {equals<kZunReportingBackendQRS>, makeHTTPSPost},
    {isKodoOnHostThatHasIt, makeKodo},
};

}  // namespace

std::shared_ptr<ZunReportingBackend> ZunReportingBackend::newBackendWithName(
    const ReportingServices& services, std::string_view name, const Value& profile,
    const std::optional<std::string>& productFamily, int32_t clientType) {
  const Section section{services, name, profile, productFamily, clientType};
  const auto* const kind = std::find_if(std::begin(kKinds), std::end(kKinds),
                                        [&section](const Kind& each) { return each.isNamedBy(section); });
  if (kind != std::end(kKinds)) return kind->make(section);
  services.platform.log.error("ZunReportingBackend(newBackendWithName): {}", name);
  return nullptr;
}

}  // namespace zun
