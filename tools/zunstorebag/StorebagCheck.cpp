#include "StorebagCheck.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <initializer_list>
#include <string_view>

#include "platform/SystemLog.h"
#include "storebag/ClientTypes.h"
#include "storebag/SharedValues.h"
#include "zunreporting/Keys.h"

namespace zun {

namespace {

using Severity = StorebagFinding::Severity;

enum class Kind { kAny, kString, kNumber, kFraction, kStrings, kNumbers, kDictionaries };

struct KnownKey {
  std::string_view name;
  Kind kind;
};

constexpr std::array kEnvironments{"development", "vantix_internal", "seed", "release"};

constexpr std::array kClientKeys{
    KnownKey{"client", Kind::kString},
    KnownKey{"service", Kind::kString},
    KnownKey{"expedite", Kind::kNumber},
    KnownKey{"enabledSince", Kind::kString},
    KnownKey{"override_dnu", Kind::kNumber},
    KnownKey{"locale_whitelist", Kind::kStrings},
    KnownKey{"device_whitelist", Kind::kStrings},
    KnownKey{"device_blacklist", Kind::kStrings},
    KnownKey{"filters", Kind::kDictionaries},
    KnownKey{"sampling_threshold", Kind::kFraction},
    KnownKey{"per_country_sampling_thresholds", Kind::kDictionaries},
    KnownKey{"override_sampling", Kind::kFraction},
    KnownKey{"custom_clientId", Kind::kAny},
    KnownKey{"event_threshold", Kind::kNumber},
    KnownKey{"extras_on_internal", Kind::kNumber},
    KnownKey{"post_url", Kind::kString},
    KnownKey{"realtime_post_url", Kind::kString},
    KnownKey{"event_whitelist", Kind::kNumbers},
    KnownKey{"event_blacklist", Kind::kNumbers},
    KnownKey{"use_wifi_only", Kind::kNumber},
};

constexpr std::array kFilterKeys{
    KnownKey{"method", Kind::kNumber}, KnownKey{"status", Kind::kNumber}, KnownKey{"key", Kind::kString},
    KnownKey{"value", Kind::kAny},     KnownKey{"action", Kind::kString},
};

constexpr std::array kCountryKeys{
    KnownKey{"country", Kind::kStrings},
    KnownKey{"threshold", Kind::kFraction},
};

constexpr std::array kDashboardKeys{
    KnownKey{"ip", Kind::kString},          KnownKey{"port", Kind::kNumber},
    KnownKey{"reliable", Kind::kNumber},    KnownKey{"post_url", Kind::kString},
    KnownKey{"display_url", Kind::kString},
};

constexpr std::array kUploadServerKeys{
    KnownKey{"post_url", Kind::kString},
    KnownKey{"display_url", Kind::kString},
};

constexpr std::array kTopLevelKeys{
    KnownKey{"version", Kind::kString},
    KnownKey{"name", Kind::kAny},
    KnownKey{"serial", Kind::kAny},
    KnownKey{"refresh_cycle", Kind::kNumber},
    KnownKey{"release_timeout", Kind::kNumber},
};

/// Macro expansion traces; nobody reads that here.
class SilentLog final : public SystemLog {
 public:
  bool isEnabled(LogLevel) const override { return false; }
  void write(LogLevel, std::string_view) override {}
};

std::string_view kindOf(const Value& value) {
  if (value.isString()) return "a string";
  if (value.isBoolean()) return "a boolean";
  if (value.isNumber()) return "a number";
  if (value.isArray()) return "a list";
  if (value.isDictionary()) return "a dictionary";
  if (value.isData()) return "data";
  return "a date";
}

template <typename Predicate>
bool isListOf(const Value& value, Predicate predicate) {
  const Array* array = value.array();
  return array != nullptr && std::all_of(array->begin(), array->end(), predicate);
}

bool hasKind(const Value& value, Kind kind) {
  switch (kind) {
    case Kind::kAny: return true;
    case Kind::kString: return value.isString();
    case Kind::kNumber:
    case Kind::kFraction: return value.isNumber();
    case Kind::kStrings: return isListOf(value, [](const Value& item) { return item.isString(); });
    case Kind::kNumbers: return isListOf(value, [](const Value& item) { return item.isNumber(); });
    case Kind::kDictionaries: return isListOf(value, [](const Value& item) { return item.isDictionary(); });
  }
  return false;
}

std::string_view nameOf(Kind kind) {
  switch (kind) {
    case Kind::kAny: return "anything";
    case Kind::kString: return "a string";
    case Kind::kNumber:
    case Kind::kFraction: return "a number";
    case Kind::kStrings: return "a list of strings";
    case Kind::kNumbers: return "a list of numbers";
    case Kind::kDictionaries: return "a list of dictionaries";
  }
  return "";
}

bool isHTTPSBackendName(std::string_view name) {
  return name.find(zunreporting::kZunReportingBackendHTTPPost) != std::string_view::npos ||
         name == zunreporting::kZunReportingBackendHTTPPost2 || name == zunreporting::kZunReportingBackendQRS;
}

/// Four numbers of 0 to 255 with dots between them.
bool isIPv4Address(std::string_view text) {
  int numbers = 0;
  const char* rest = text.data();
  const char* const end = rest + text.size();
  for (;;) {
    uint8_t number = 0;
    const auto [stop, error] = std::from_chars(rest, end, number);
    if (error != std::errc() || stop - rest > 3 || ++numbers > 4) return false;
    if (stop == end) return numbers == 4;
    if (*stop != '.') return false;
    rest = stop + 1;
  }
}

/// Collects findings while it walks a storebag.
class Checker final {
 public:
  std::vector<StorebagFinding> check(const Value& storebag) {
    const Dictionary* fields = storebag.dictionary();
    if (fields == nullptr) {
      error("", "a storebag is a dictionary, this is " + std::string(kindOf(storebag)));
      return std::move(findings_);
    }
    checkTopLevel(*fields);
    SilentLog silent;
    const Dictionary expanded = expandSharedValues(*fields, silent);
    for (const char* environment : kEnvironments) {
      if (const Dictionary* section = expanded[environment].dictionary()) checkSection(environment, *section);
    }
    return std::move(findings_);
  }

 private:
  void error(std::string where, std::string text) {
    findings_.push_back({Severity::kError, std::move(where), std::move(text)});
  }
  void warn(std::string where, std::string text) {
    findings_.push_back({Severity::kWarning, std::move(where), std::move(text)});
  }

  template <size_t count>
  void checkKeys(const std::string& where, const Dictionary& fields,
                 const std::array<KnownKey, count>& knownKeys) {
    for (const auto& [key, value] : fields) {
      const std::string_view name = key.stringValue();
      const std::string at = fmt::format("{}.{}", where, name);
      const auto known = std::find_if(knownKeys.begin(), knownKeys.end(),
                                      [name](const KnownKey& candidate) { return candidate.name == name; });
      if (known == knownKeys.end()) {
        warn(at, "unknown key, the daemon ignores it");
      } else {
        checkKind(at, value, known->kind);
      }
    }
  }

  void checkKind(const std::string& at, const Value& value, Kind kind) {
    if (!hasKind(value, kind)) {
      std::string text = fmt::format("must be {}, is {}", nameOf(kind), kindOf(value));
      if (kind == Kind::kString && value.isArray()) text += " (a macro's text always becomes a list)";
      warn(at, std::move(text));
    } else if (kind == Kind::kFraction && (value.doubleValue() < 0 || value.doubleValue() > 1)) {
      warn(at, fmt::format("must be between 0 and 1, is {}", value.description()));
    }
  }

  void checkTopLevel(const Dictionary& storebag) {
    bool hasSection = false;
    for (const char* environment : kEnvironments) {
      const Value& section = storebag[environment];
      hasSection |= section.isDictionary();
      if (!section.isNone() && !section.isDictionary()) {
        error(environment, "a section is a dictionary, this is " + std::string(kindOf(section)));
      }
    }
    if (!hasSection) error("", "no section of any environment");
    // The others are for devices of the maker's own, and seed ones fall back to this one.
    if (storebag["release"].isNone()) warn("release", "no section: release devices get no storebag");
    for (const auto& [key, value] : storebag) checkTopLevelKey(key.stringValue(), value);
    if (!storebag.contains("version")) warn("version", "missing: nobody can tell storebags apart");
    checkNameAndSerial(storebag["name"], storebag["serial"]);
    const Value& cycle = storebag["refresh_cycle"];
    if (cycle.isNumber() && (cycle.doubleValue() < 0 || cycle.doubleValue() > 86400)) {
      warn("refresh_cycle", "must be 0 to 86400 seconds: more counts as 86400, less as out of date at once");
    }
    checkSharedValues(storebag["shared_values"]);
  }

  void checkNameAndSerial(const Value& name, const Value& serial) {
    if (!name.isNone() && !isStorebagName(name.stringValue())) {
      error("name", fmt::format("no storebag is named \"{}\": every device refuses it", name));
    }
    if (!serial.isNone() && (!serial.isInteger() || serial.isAboveInt64())) {
      error("serial", "must be an integer: every device refuses it");
    }
  }

  void checkTopLevelKey(std::string_view name, const Value& value) {
    if (name == "shared_values" ||
        std::find(kEnvironments.begin(), kEnvironments.end(), name) != kEnvironments.end()) {
      return;
    }
    const auto known = std::find_if(kTopLevelKeys.begin(), kTopLevelKeys.end(),
                                    [name](const KnownKey& candidate) { return candidate.name == name; });
    if (known == kTopLevelKeys.end()) {
      warn(std::string(name), "unknown key, the daemon ignores it");
    } else {
      checkKind(std::string(name), value, known->kind);
    }
  }

  void checkSharedValues(const Value& sharedValues) {
    if (sharedValues.isNone()) return;
    const Dictionary* entries = sharedValues.dictionary();
    if (entries == nullptr) {
      warn("shared_values", "must be a dictionary, is " + std::string(kindOf(sharedValues)));
      return;
    }
    for (const auto& [key, value] : *entries) {
      if (key.stringValue().starts_with("==")) continue;
      warn(fmt::format("shared_values.{}", key), "a macro's name begins with \"==\": nothing refers to this");
    }
  }

  void checkMacros(const std::string& where, const Value& value) {
    if (const Dictionary* dictionary = value.dictionary()) {
      for (const auto& [key, element] : *dictionary) checkMacros(fmt::format("{}.{}", where, key), element);
    } else if (const Array* array = value.array()) {
      for (size_t i = 0; i < array->size(); ++i) checkMacros(fmt::format("{}[{}]", where, i), (*array)[i]);
    } else if (value.stringValue().starts_with("==")) {
      warn(where, fmt::format("macro \"{}\" is not in shared_values", value.stringValue()));
    }
  }

  void checkSection(const std::string& environment, const Dictionary& section) {
    checkMacros(environment, section);
    if (section.empty()) warn(environment, "no backends");
    for (const auto& [key, profile] : section) {
      const std::string at = fmt::format("{}.{}", environment, key);
      checkBackend(at, key.stringValue(), profile);
    }
  }

  void checkBackend(const std::string& where, std::string_view name, const Value& profile) {
    if (isHTTPSBackendName(name)) return checkHTTPSBackend(where, profile);
    const bool isDashboard = name == zunreporting::kZunReportingBackendDashboard;
    const bool isUploadServer = name == zunreporting::kZunReportingBackendUploadServer;
    if (!isDashboard && !isUploadServer && name != zunreporting::kZunReportingBackendJoulex &&
        name != zunreporting::kZunReportingBackendKodo) {
      return warn(where, "no backend has this name");
    }
    const Dictionary* const fields = profile.dictionary();
    if (fields == nullptr) return warn(where, "must be a dictionary, is " + std::string(kindOf(profile)));
    // Of the other two the daemon reads no key: it is enough that they are there.
    if (isDashboard) checkDashboard(where, *fields);
    if (isUploadServer) checkUploadServer(where, *fields);
  }

  void checkDashboard(const std::string& where, const Dictionary& fields) {
    checkKeys(where, fields, kDashboardKeys);
    const Value& ip = fields["ip"];
    if (ip.isNone()) warn(where, "no \"ip\": the backend is not created");
    if (ip.isString() && !isIPv4Address(ip.stringValue())) {
      warn(where + ".ip", "must be an IPv4 address like \"192.0.2.1\": names are not looked up");
    }
    const Value& port = fields["port"];
    if (port.isNone()) warn(where, "no \"port\": the backend is not created");
    if (port.isNumber() && (port.doubleValue() < 1 || port.doubleValue() > 65535)) {
      warn(where + ".port", "must be 1 to 65535");
    }
    const Value& reliable = fields["reliable"];
    if (reliable.isNumber() && reliable.doubleValue() < 1) {
      warn(where + ".reliable",
           "must be at least 1, the milliseconds of one tick; leave it out for plain datagrams");
    }
    checkURL(where, fields, "post_url");
  }

  void checkUploadServer(const std::string& where, const Dictionary& fields) {
    checkKeys(where, fields, kUploadServerKeys);
    if (fields["post_url"].isNone()) warn(where, "no \"post_url\": the backend is not created");
    checkURL(where, fields, "post_url");
  }

  void checkURL(const std::string& where, const Dictionary& fields, std::string_view key) {
    const Value& url = fields[key];
    if (url.isString() && !url.stringValue().starts_with("https://")) {
      warn(fmt::format("{}.{}", where, key), "must begin with https://");
    }
  }

  void checkHTTPSBackend(const std::string& where, const Value& profile) {
    const Dictionary* fields = profile.dictionary();
    const Array* clients = fields == nullptr ? nullptr : (*fields)["clients"].array();
    if (clients == nullptr) {
      warn(where, "no list \"clients\": the backend is not created");
      return;
    }
    for (const auto& [key, value] : *fields) {
      if (key.stringValue() == "display_url") {
        checkKind(where + ".display_url", value, Kind::kString);
      } else if (key.stringValue() != "clients") {
        warn(fmt::format("{}.{}", where, key), "unknown key, the daemon ignores it");
      }
    }
    if (clients->empty()) warn(where + ".clients", "empty: no client reports");
    for (size_t i = 0; i < clients->size(); ++i) {
      const std::string at = fmt::format("{}.clients[{}]", where, i);
      if (const Dictionary* client = (*clients)[i].dictionary()) {
        checkClient(at, *client);
      } else {
        warn(at, "must be a dictionary, is " + std::string(kindOf((*clients)[i])));
      }
    }
  }

  void checkClient(const std::string& where, const Dictionary& client) {
    checkKeys(where, client, kClientKeys);
    const Array* locales = client["locale_whitelist"].array();
    if (locales == nullptr || locales->empty()) {
      warn(where, "no \"locale_whitelist\": reporting is disabled everywhere");
    }
    if (!client["filters"].isArray())
      warn(where, "no \"filters\" (an empty list will do): reporting is disabled");
    if (client["sampling_threshold"].isNone()) {
      warn(where, client.contains("per_country_sampling_thresholds")
                      ? "no \"sampling_threshold\": reporting is disabled in every region that "
                        "\"per_country_sampling_thresholds\" does not name"
                      : "no \"sampling_threshold\": reporting is disabled");
    }
    if (client["post_url"].isNone()) warn(where, "no \"post_url\": events have nowhere to go");
    for (const std::string_view key : {"post_url", "realtime_post_url"}) checkURL(where, client, key);
    for (const std::string_view key : {"client", "service"}) {
      if (client[key].stringValue().find_first_of(" \t") != std::string_view::npos) {
        warn(fmt::format("{}.{}", where, key), "blanks count: names are divided by commas alone");
      }
    }
    checkListOf(where + ".filters", client["filters"], kFilterKeys);
    checkListOf(where + ".per_country_sampling_thresholds", client["per_country_sampling_thresholds"],
                kCountryKeys);
    checkFilterActions(where + ".filters", client["filters"]);
  }

  template <size_t count>
  void checkListOf(const std::string& where, const Value& list,
                   const std::array<KnownKey, count>& knownKeys) {
    const Array* entries = list.array();
    if (entries == nullptr) return;
    for (size_t i = 0; i < entries->size(); ++i) {
      if (const Dictionary* entry = (*entries)[i].dictionary()) {
        checkKeys(fmt::format("{}[{}]", where, i), *entry, knownKeys);
      }
    }
  }

  void checkFilterActions(const std::string& where, const Value& filters) {
    constexpr std::array kActions{"remove", "sha256", "blacklistValues", "whitelistValues"};
    const Array* entries = filters.array();
    if (entries == nullptr) return;
    for (size_t i = 0; i < entries->size(); ++i) {
      const Dictionary* filter = (*entries)[i].dictionary();
      if (filter == nullptr) continue;
      const std::string_view action = (*filter)["action"].stringValue();
      if (std::find(kActions.begin(), kActions.end(), action) == kActions.end()) {
        warn(fmt::format("{}[{}].action", where, i),
             "must be \"remove\", \"sha256\", \"blacklistValues\" or \"whitelistValues\": the filter does "
             "nothing");
      }
    }
  }

  std::vector<StorebagFinding> findings_;
};

}  // namespace

std::vector<StorebagFinding> checkStorebag(const Value& storebag) {
  return Checker().check(storebag);
}

bool isStorebagName(std::string_view name) {
  for (int32_t type = 0; type < kClientTypeCount; ++type) {
    if (storebagNameForClientType(type) == name) return true;
  }
  return false;
}

}  // namespace zun
