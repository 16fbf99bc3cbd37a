#pragma once

#include <memory>
#include <string>
#include <utility>

#include "backends/HTTPSPostBackend.h"
#include "support/TestPlatform.h"
#include "values/JSONReader.h"
#include "zunreporting/Keys.h"

namespace zun {

/// `dictionary` with `key` set to `value` (none: without it).
inline Dictionary with(Dictionary dictionary, const char* key, Value value) {
  dictionary.set(Value(key), std::move(value));
  return dictionary;
}

inline Value text(std::string_view key) {
  return Value(key);
}

/// A client entry under which everybody in Germany reports.
inline Dictionary reportingClient() {
  return {{"locale_whitelist", Array{"DE"}},
          {"filters", Array{Dictionary{{"key", "secret"}, {"action", "remove"}}}},
          {"sampling_threshold", 1},
          {"event_threshold", 49},
          {"post_url", "https://127.0.0.1:1/post"}};
}

inline Dictionary profileOf(const Dictionary& client) {
  return {{"clients", Array{client}}};
}

/// A backend's surroundings on a release build whose user lets diagnostic data out.
class BackendTest : public PlatformTest {
 protected:
  /// `executor`: as TestPlatform's.
  explicit BackendTest(std::string caFile = {}, Executor* executor = nullptr)
      : PlatformTest(executor, std::move(caFile)) {
    setDiagnosticSubmission(true);
  }

  void setDiagnosticSubmission(bool enabled) {
    platform_.defaults.setObject("com.vantix.diagnostics", "DiagnosticSubmissionEnabled", enabled);
  }
  void setDefault(const char* key, Value value) {
    platform_.defaults.setObject(kReportingSuite, key, std::move(value));
  }
  /// Takes effect until something has asked for the internal build flag.
  void becomeInternalBuild() { platform_.device.set("ReleaseType", "Internal"); }

  std::shared_ptr<HTTPSPostBackend> makeWithProfile(const Value& profile,
                                                    std::string_view name = "httpPost") {
    return std::dynamic_pointer_cast<HTTPSPostBackend>(
        ZunReportingBackend::newBackendWithName(services_, name, profile, "Pallax Large", 5));
  }

  /// A backend told what a session tells it; its user information has arrived.
  std::shared_ptr<HTTPSPostBackend> make(const Dictionary& client, std::string_view name = "httpPost") {
    return makeFrom(profileOf(client), name);
  }
  std::shared_ptr<HTTPSPostBackend> makeFrom(const Dictionary& profile, std::string_view name = "httpPost") {
    auto backend = makeWithProfile(profile, name);
    if (backend == nullptr) return nullptr;
    backend->setSessionID(77);
    backend->setCompType(5);
    backend->setClientVersion(3);
    backend->setUdid("device-1");
    backend->setProductVersion("12.11");
    backend->setBuildVersion("21A329");
    backend->setHardwareType("Pallax12,3");
    backend->setRequireUserInfo(true);
    backend->setBatchEvents(true);
    backend->setUserInfoDict(userInfo());
    backend->setSelfVersion("3.2.1");
    backend->setStartTimestamp({1'700'000'000, 0});
    return backend;
  }

  /// As `make`, with its state decided.
  std::shared_ptr<HTTPSPostBackend> start(const Dictionary& client, std::string_view name = "httpPost") {
    auto backend = make(client, name);
    backend->updateState();
    return backend;
  }

  static Dictionary userInfo() { return userInfo("Camera", "RearCamera"); }
  static Dictionary userInfo(Value client, Value service) {
    Dictionary info;
    info.set(Value::literal(zunreporting::kZunReportingUserInfoClientName), std::move(client));
    info.set(Value::literal(zunreporting::kZunReportingUserInfoServiceName), std::move(service));
    return info;
  }

  static Dictionary message(Dictionary payload) { return {{"ClientData", std::move(payload)}}; }

  std::optional<std::string> send(HTTPSPostBackend& backend, uint16_t method, int32_t flag = 0) {
    return backend.sendMessage(message({{"note", "hello"}}), kEventTime, method, 9, flag);
  }

  /// The records of a post's readable text.
  static Array eventsOf(const std::optional<std::string>& json) {
    if (!json) {
      ADD_FAILURE() << "no text";
      return {};
    }
    const auto body = parseJSON(*json);
    if (!body || !body->isDictionary()) {
      ADD_FAILURE() << "not JSON: " << *json;
      return {};
    }
    const Array* const events = (*body->dictionary())["events"].array();
    return events == nullptr ? Array() : *events;
  }
  static const Value& field(const Array& events, size_t index, std::string_view key) {
    const Dictionary* const record = events[index].dictionary();
    return record == nullptr ? Value::none() : (*record)[key];
  }

  /// Keeps what a flush's completion heard.
  struct Outcome {
    int calls = 0;
    std::optional<std::string> result;
    std::optional<Error> error;
  };
  static ZunReportingBackend::FlushCompletion keepIn(std::shared_ptr<Outcome> outcome) {
    return [outcome = std::move(outcome)](const std::optional<std::string>& result,
                                          const std::optional<Error>& error) {
      ++outcome->calls;
      outcome->result = result;
      outcome->error = error;
    };
  }

  static constexpr TimeValue kEventTime{1'700'000'010, 500'000};

  DeviceIdentity identity_{platform_.services};
  MessageLog messageLog_{platform_.services};
  ReportingServices services_{platform_.services, identity_, messageLog_};
};

struct OwnsExecutor {
  ManualExecutor executor_;
};

/// A backend's surroundings where jobs run only when the test says so.
class HandCrankedBackendTest : protected OwnsExecutor, public BackendTest {
 protected:
  HandCrankedBackendTest() : BackendTest({}, &executor_) {}
};

}  // namespace zun
