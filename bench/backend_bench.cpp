// What one event costs in the HTTPS post backend, from the session's message to the
// bytes that are compressed and posted.

#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "BenchPayload.h"
#include "BenchPlatform.h"
#include "backends/HTTPSPostBackend.h"
#include "backends/MessageBlob.h"
#include "zunreporting/Keys.h"

namespace zun {
namespace {

constexpr TimeValue kEventTime{1'700'000'010, 500'000};

/// A part of every region code, so that the locale of the machine does not matter.
Array everyRegion() {
  Array regions;
  for (char letter = 'A'; letter <= 'Z'; ++letter) regions.append(std::string(1, letter));
  return regions;
}

/// A client entry with the filters of a typical service.
Dictionary clientEntry() {
  Array filters;
  for (const char* key : {"account", "phoneNumber", "address", "peer", "hostname", "token"}) {
    filters.append(Dictionary{{"key", key}, {"action", "remove"}});
  }
  filters.append(
      Dictionary{{"key", "userInfoClientName"}, {"action", "whitelistValues"}, {"value", Array{"cam"}}});
  filters.append(
      Dictionary{{"key", "reason"}, {"action", "blacklistValues"}, {"value", Array{"http://", "@"}}});
  filters.append(Dictionary{{"key", "callID"}, {"action", "sha256"}, {"method", 300}});
  return {{"locale_whitelist", everyRegion()},
          {"filters", std::move(filters)},
          {"sampling_threshold", 1},
          {"event_threshold", 49},
          {"post_url", "https://127.0.0.1:1/post"}};
}

class Setup final : public BenchPlatform {
 public:
  Setup() { defaults.setObject("com.vantix.diagnostics", "DiagnosticSubmissionEnabled", true); }

  std::shared_ptr<HTTPSPostBackend> backend(int32_t threshold) {
    Dictionary client = clientEntry();
    client.set("event_threshold", threshold);
    auto made = HTTPSPostBackend::initWithName(services, "httpPost", Dictionary{{"clients", Array{client}}},
                                               "Pallax Large");
    made->setSessionID(77);
    made->setCompType(5);
    made->setClientVersion(3);
    made->setUdid("00008030-001C2D223A82802E");
    made->setProductVersion("12.11");
    made->setBuildVersion("21A329");
    made->setHardwareType("Pallax12,3");
    made->setIsInternal(false);
    made->setRequireUserInfo(true);
    made->setBatchEvents(true);
    made->setUserInfoDict(Dictionary{{Value(zunreporting::kZunReportingUserInfoClientName), "Camera"},
                                     {Value(zunreporting::kZunReportingUserInfoServiceName), "RearCamera"}});
    made->setSelfVersion("3.2.1");
    made->setStartTimestamp({1'700'000'000, 0});
    made->setCombinedSessionIDString("1234567890,2345678901");
    made->updateState();
    return made;
  }
};

Dictionary blob() {
  return {{Value(kZunReportingMessageBlobClientData), benchPayload()},
          {Value(kZunReportingMessageBlobSharedData), Dictionary{{"conference", "daily-review"}}}};
}

// Record, filters, batch. The batch is taken, and thereby serialised, by a flush that
// the clock does not see, so that it stays of the size that it has in use.
void BM_EventIntoBatch(benchmark::State& state) {
  Setup setup;
  const auto backend = setup.backend(1'000'000);
  const Dictionary message = blob();
  int64_t events = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(backend->sendMessage(message, kEventTime, 200, 1, 0));
    if (++events % 500 == 0) {
      state.PauseTiming();
      backend->flushMessagesWithCompletion(nullptr);
      state.ResumeTiming();
    }
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EventIntoBatch);

void BM_EventRecord(benchmark::State& state) {
  Setup setup;
  const auto backend = setup.backend(49);
  const Dictionary content = benchPayload();
  for (auto _ : state) {
    Dictionary record = backend->newEventDictfromPayload(content, kEventTime, 200, 1, 1);
    benchmark::DoNotOptimize(record);
  }
}
BENCHMARK(BM_EventRecord);

void BM_PrepareEvent(benchmark::State& state) {
  Setup setup;
  const auto backend = setup.backend(49);
  const Dictionary shared{{"conference", "daily-review"}};
  for (auto _ : state) {
    Dictionary record = backend->newEventDictfromPayload(benchPayload(), kEventTime, 200, 1, 1);
    backend->prepareEventForMessage(record, &shared);
    benchmark::DoNotOptimize(record);
  }
}
BENCHMARK(BM_PrepareEvent);

// A batch of fifty as it is posted: cleaned, wrapped, written.
void BM_BodyOf50Records(benchmark::State& state) {
  Setup setup;
  const auto backend = setup.backend(49);
  Dictionary record = backend->newEventDictfromPayload(benchPayload(), kEventTime, 200, 1, 1);
  backend->prepareEventForMessage(record, nullptr);
  const std::vector<Dictionary> records(50, record);
  size_t bytes = 0;
  for (auto _ : state) {
    const auto json = backend->createMessageForPostAndLogging(records, nullptr);
    bytes = json->size();
    benchmark::DoNotOptimize(bytes);
  }
  state.SetItemsProcessed(state.iterations() * 50);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
}
BENCHMARK(BM_BodyOf50Records);

}  // namespace
}  // namespace zun
