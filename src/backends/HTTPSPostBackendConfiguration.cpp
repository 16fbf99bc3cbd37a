// Whether and how an HTTPS post backend reports.

#include <algorithm>
#include <utility>

#include "backends/HTTPSPostBackend.h"
#include "backends/ListMatching.h"
#include "zunreporting/Keys.h"

namespace zun {

namespace {

std::string_view orNull(std::optional<std::string_view> text) {
  return text.value_or("(null)");
}

std::optional<std::string> ownedString(const Value& text) {
  const auto view = text.string();
  return view ? std::optional<std::string>(*view) : std::nullopt;
}

/// The first dictionary of `clients` for which `applies` holds, or null.
template <typename Predicate>
const Dictionary* firstClient(const Array& clients, Predicate applies) {
  for (const Value& element : clients) {
    const Dictionary* const client = element.dictionary();
    if (client != nullptr && applies(*client)) return client;
  }
  return nullptr;
}

}  // namespace

int32_t HTTPSPostBackend::updateState() {
  const int32_t newState = updateBackendState();
  // A frozen state is not written back: its server may have changed it by now.
  if (!immutable_) setState(newState);
  return newState;
}

int32_t HTTPSPostBackend::updateBackendState() {
  if (immutable_) return state();
  const Array* const clients = profile_["clients"].array();
  if (clients == nullptr) return ZunBackendStateDisabled;
  const Names names = namesFromUserInfo();
  applyExpedite(*clients, names);
  if (!requireUserInfo_) return stateWithoutUserInfo(*clients);
  if (!userInfoDict_ || userInfoDict_->empty()) return ZunBackendStateAwaitingUserInfo;

  const std::optional<std::string> region = services_.platform.locale.regionCode();
  const Dictionary* const client = firstClient(*clients, [this, &names](const Dictionary& entry) {
    return matchClientNameAndServiceID(entry, names) && isFrameworkEnabledForClient(entry);
  });
  if (client == nullptr) return ZunBackendStateDisabled;
  if (!allowsDiagnostics(*client) || !allowsDevice(*client, region)) return ZunBackendStateDisabled;

  const Array* const filters = (*client)["filters"].array();
  if (filters == nullptr) {
    log().error("HTTPSPostBackend(updateBackendState): filters are required.");
    return ZunBackendStateDisabled;
  }
  createFiltersFromArray(*filters);
  const Value threshold = thresholdForRegion(*client, region);
  // Decided on by what was read here: a parent session may set its own meanwhile.
  setSamplingThreshold(threshold);
  const int32_t newState = samplingDecision(*client, threshold);
  adoptClient(*client, names, newState);
  return newState;
}

HTTPSPostBackend::Names HTTPSPostBackend::namesFromUserInfo() const {
  if (!userInfoDict_) return {};
  return {(*userInfoDict_)[zunreporting::kZunReportingUserInfoClientName].string(),
          (*userInfoDict_)[zunreporting::kZunReportingUserInfoServiceName].string()};
}

bool HTTPSPostBackend::matchClientNameAndServiceID(const Dictionary& client, const Names& names) {
  return matchExactStringWithList(componentsSeparatedByComma(client["client"]), names.client, true) &&
         matchStringWithList(componentsSeparatedByComma(client["service"]), names.service, true);
}

bool HTTPSPostBackend::isFrameworkEnabledForClient(const Dictionary& client) const {
  const auto enabledSince = client["enabledSince"].string();
  if (!enabledSince) return true;
  const std::array<uint8_t, 3> own = {selfVersionMajor_, selfVersionMiddle_, selfVersionMinor_};
  return own >= versionNumbers(*enabledSince);
}

void HTTPSPostBackend::applyExpedite(const Array& clients, const Names& names) {
  const Dictionary* const client = firstClient(
      clients, [&names](const Dictionary& entry) { return matchClientNameAndServiceID(entry, names); });
  if (client == nullptr || !client->contains("expedite")) return;
  batchEvents_ = (*client)["expedite"].intValue() == 0;
  log().note("HTTPSPostBackend(updateBackendState): Store bag override  _batchEvent={:d}", batchEvents_);
}

int32_t HTTPSPostBackend::stateWithoutUserInfo(const Array& clients) {
  resetBackendStateWithClient(
      firstClient(clients, [this](const Dictionary& entry) { return updatePostLink(entry); }));
  return ZunBackendStateEnabled;
}

bool HTTPSPostBackend::allowsDiagnostics(const Dictionary& client) {
  const int64_t override = client["override_dnu"].intValue();
  if (override == 1) {
    dnuType_ = dnuEnabled_ ? kOverrideWhileOn : kOverrideWhileOff;
    return true;
  }
  dnuType_ = kNoOverride;
  if (dnuEnabled_) return true;
  log().note("HTTPSPostBackend(updateBackendState): reporting disabled by DNU: {}.", override);
  return false;
}

bool HTTPSPostBackend::allowsDevice(const Dictionary& client,
                                    const std::optional<std::string>& region) const {
  const Value& countries = client["locale_whitelist"];
  if (!matchStringWithList(stringsOf(countries), region, false)) {
    log().note("HTTPSPostBackend(updateBackendState): ({}) isn't in country code list {}", orNull(region),
               countries);
    return false;
  }
  const Value& allowed = client["device_whitelist"];
  if (!matchStringWithList(stringsOf(allowed), productFamily_.string(), true)) {
    log().note("HTTPSPostBackend(updateBackendState): ({}) isn't in device whitelist {}", productFamily_,
               allowed);
    return false;
  }
  const Value& denied = client["device_blacklist"];
  if (matchStringWithList(stringsOf(denied), hardwareType_.string(), false)) {
    log().note("HTTPSPostBackend(updateBackendState): ({}) is in device blacklist {}", hardwareType_, denied);
    return false;
  }
  return true;
}

Value HTTPSPostBackend::thresholdForRegion(const Dictionary& client,
                                           const std::optional<std::string>& region) const {
  const Value& general = client["sampling_threshold"];
  const Array* const countries = client["per_country_sampling_thresholds"].array();
  if (countries == nullptr || !region) return general;
  const Dictionary* const country = firstClient(*countries, [&region](const Dictionary& entry) {
    const Array* const codes = entry["country"].array();
    return codes != nullptr && std::find(codes->begin(), codes->end(), Value(*region)) != codes->end();
  });
  if (country == nullptr) return general;
  const Value& threshold = (*country)["threshold"];
  log().note("HTTPSPostBackend(updateBackendState): sampling threshold for {} changed from {:.2f} to {:.2f}",
             *region, static_cast<float>(general.doubleValue()), static_cast<float>(threshold.doubleValue()));
  return threshold;
}

int32_t HTTPSPostBackend::samplingDecision(const Dictionary& client, const Value& threshold) {
  if (threshold.isNone()) return ZunBackendStateDisabled;
  if (samplingFactor_ < threshold.doubleValue()) return ZunBackendStateEnabled;
  overrideSampling_ = client["override_sampling"];
  const bool isOut = !overrideSampling_.isNone() && samplingFactor_ >= overrideSampling_.doubleValue();
  return isOut ? ZunBackendStateDisabled : ZunBackendStateSampledOut;
}

void HTTPSPostBackend::adoptClient(const Dictionary& client, const Names& names, int32_t newState) {
  resetBackendStateWithClient(&client);
  if (client.contains("custom_clientId")) {
    const auto owned = [](const Text& text) {
      return text ? std::optional<std::string>(*text) : std::nullopt;
    };
    uuidCustom_ = services_.identity.getPersistentIdentifierForCustomClientIDSuffix(
        owned(names.client), owned(names.service), services_.program);
  }
  log().note("HTTPSPostBackend(updateBackendState): {}: client found {}:{}, state={}, samplingFactor={:f}",
             name_, orNull(names.client), orNull(names.service), newState, samplingFactor_);
  updatePostLink(client);
  updateEventLists(client);
  shouldUseWiFiOnly_ = static_cast<uint8_t>(client["use_wifi_only"].intValue());
}

void HTTPSPostBackend::updateEventLists(const Dictionary& client) {
  if (const Value& list = client["event_whitelist"]; list.isArray()) {
    eventWhitelist_.emplace(*list.array());
    log().note("HTTPSPostBackend(updateBackendState): {}: eventWhitelist={}", name_, list);
  }
  if (const Value& list = client["event_blacklist"]; list.isArray()) {
    eventBlacklist_.emplace(*list.array());
    log().note("HTTPSPostBackend(updateBackendState): {}: eventBlacklist={}", name_, list);
  }
}

void HTTPSPostBackend::createFiltersFromArray(const Array& filters) {
  if (!filters.empty()) filters_ = FilterTable(filters);
}

bool HTTPSPostBackend::updatePostLink(const Dictionary& client) {
  bool supplied = false;
  if (!useDefaultPostURL_ || !postURL_) {
    useDefaultPostURL_ = false;
    if (auto url = ownedString(client["post_url"])) {
      postURL_ = std::move(url);
      log().note("HTTPSPostBackend(updatePostLink): Storebag '{}' for postURL", *postURL_);
      supplied = true;
    }
  }
  if (useDefaultRealtimePostURL_ && realtimePostURL_) return supplied;
  useDefaultRealtimePostURL_ = false;
  realtimePostURL_ = ownedString(client["realtime_post_url"]);
  if (realtimePostURL_) {
    log().note("HTTPSPostBackend(updatePostLink): Storebag '{}' for realtimePostURL", *realtimePostURL_);
  } else {
    realtimePostURL_ = postURL_;
    log().note("HTTPSPostBackend(updatePostLink): realtimePostURL defaults to postURL '{}'",
               orNull(postURL_));
  }
  return supplied;
}

void HTTPSPostBackend::resetBackendStateWithClient(const Dictionary* client) {
  const auto setting = [client](std::string_view key) {
    return client == nullptr ? 0 : (*client)[key].int32Value();
  };
  eventThreshold_ = setting("event_threshold");
  log().note("resetBackendStateWithClient: event_threshold set to {}", eventThreshold_);
  extrasOnInternal_ = setting("extras_on_internal");
  log().note("setBackendStateWithClient: extras on internal is set to {}", extrasOnInternal_);
}

}  // namespace zun
