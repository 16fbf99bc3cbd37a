#include "backends/HTTPSPostBackend.h"

#include <utility>

#include "platform/UserDefaults.h"

namespace zun {

std::shared_ptr<HTTPSPostBackend> HTTPSPostBackend::initWithName(
    const ReportingServices& services, std::string_view name, const Value& profile,
    const std::optional<std::string>& productFamily) {
  const Dictionary* const section = profile.dictionary();
  if (section == nullptr || !productFamily) return nullptr;
  if (!(*section)["clients"].isArray()) {
    services.platform.log.error("HTTPSPostBackend(initWithName): can't find the client list.");
    return nullptr;
  }
  return std::shared_ptr<HTTPSPostBackend>(
      new HTTPSPostBackend(services, std::string(name), *section, *productFamily));
}

HTTPSPostBackend::HTTPSPostBackend(const ReportingServices& services, std::string name, Dictionary profile,
                                   const std::string& productFamily)
    : ZunReportingBackend(services, std::move(name), std::move(profile), productFamily),
      dnuEnabled_(diagnosticSubmissionEnabled(services.platform.defaults)),
      forceEventLogging_(
          Value(services.platform.defaults.stringForKey(kReportingSuite, "forceEventLogging").value_or(""))
              .boolValue()),
      uuidRespectDnu_(services.identity.getPersistentIdentifierForDNU(true)),
      uuidOverrideDnu_(services.identity.getPersistentIdentifierForDNU(false)) {
  postURL_ = userDefaultURL("httpsPostURL");
  if (postURL_) {
    log().note("HTTPSPostBackend(initWithName): Using user default '{}' for postURL", *postURL_);
  }
  useDefaultPostURL_ = postURL_.has_value();
  realtimePostURL_ = userDefaultURL("httpsRealtimePostURL");
  if (realtimePostURL_) {
    log().note("HTTPSPostBackend(initWithName): Using user default '{}' for realtimePostURL",
               *realtimePostURL_);
  }
  useDefaultRealtimePostURL_ = realtimePostURL_.has_value();
  if (const auto url = profile_["display_url"].string()) displayURL_ = std::string(*url);
}

std::optional<std::string> HTTPSPostBackend::userDefaultURL(std::string_view key) const {
  return services_.platform.defaults.stringForKey(kReportingSuite, key);
}

}  // namespace zun
