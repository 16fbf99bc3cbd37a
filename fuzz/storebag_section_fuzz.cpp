// What a signed section makes of a session: every backend that it names is made, told who
// reports, and takes an event, whatever its author wrote.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "FuzzCheck.h"
#include "FuzzWorld.h"
#include "backends/ZunReportingBackend.h"
#include "session/BackendTable.h"
#include "util/MemoryUse.h"
#include "values/PropertyList.h"
#include "zunreporting/Keys.h"

namespace {

using zun::Dictionary;
using zun::Value;
using namespace zunreporting;

constexpr zun::PropertyListLimits kLimits{size_t{1} << 16, 32, 2'000};

void useBackend(zun::ZunReportingBackend& backend) {
  const int32_t state = backend.updateState();
  check(state >= zun::ZunBackendStateAwaitingUserInfo && state <= zun::ZunBackendStateSampledOut,
        "a backend has a state");
  const Dictionary event{{"key", "value"}, {"number", 7}};
  for (const int flag : {0, kZunReportingFlagPromote, kZunReportingFlagRealtime})
    static_cast<void>(backend.sendMessage(event, {1'700'000'000, 0}, 2, 7, flag));
  static_cast<void>(backend.displayURL());
  static_cast<void>(backend.isWhitelistedEvent(7));
  static_cast<void>(backend.isBlacklistedEvent(7));
  static_cast<void>(backend.batchedEventsSize());
}

void useSection(FuzzWorld& world, const Dictionary& section, int32_t clientType) {
  const Dictionary info{{kZunReportingSessionInfoClientType, clientType},
                        {kZunReportingSessionInfoSessionID, 77},
                        {kZunReportingSessionInfoBatchEvent, clientType % 2 == 0}};
  const auto table =
      zun::createBackends(world.reporting_, &zun::ZunReportingBackend::newBackendWithName,
                          {.storebag = &section,
                           .sessionInfo = &info,
                           .userInfo = Dictionary{{kZunReportingUserInfoClientName, "client"},
                                                  {kZunReportingUserInfoServiceName, "service"}},
                           .deviceIdentifier = "DEVICE"});
  check(table != nullptr && table->entries.size() <= section.size(), "no more backends than are named");
  for (const auto& [name, backend, role] : table->entries) {
    // Those of the device itself have no settings that could be missing.
    const bool hasSettings = name != kZunReportingBackendJoulex && name != kZunReportingBackendKodo;
    check(section[name].isDictionary() || !hasSettings, "a backend without its settings");
    useBackend(*backend);
  }
  world.run();
  for (const auto& entry : table->entries) {
    static_cast<void>(entry.backend->flushMessagesWithCompletion([](const auto&, const auto&) {}));
    entry.backend->cleanup();
  }
  world.run();
  world.urlSessions_.takeRequests();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  static auto& world = *new FuzzWorld;
  const auto parsed = zun::parsePropertyList({reinterpret_cast<const char*>(data) + 1, size - 1}, kLimits);
  const Dictionary* const section = parsed ? parsed->dictionary() : nullptr;
  if (section == nullptr) return 0;
  const auto clientType = static_cast<int32_t>(data[0] % 28);
  useSection(world, *section, clientType);
  // Each value as the section of every backend there is.
  for (const auto& [key, value] : *section) {
    const Value profile = value;
    useSection(world,
               {{kZunReportingBackendHTTPPost, profile},
                {kZunReportingBackendDashboard, profile},
                {kZunReportingBackendUploadServer, profile},
                {kZunReportingBackendJoulex, profile}},
               clientType);
  }
  world.platform_.timers.fireDue();
  world.run();
  return 0;
}
