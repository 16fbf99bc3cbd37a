// The record of an event: the value that the daemon builds for each message.

#include <benchmark/benchmark.h>

#include <array>
#include <string>

#include "values/Value.h"

namespace zun {
namespace {

constexpr std::array<std::string_view, 35> kKeys{
    "_sessionID",        "_clientType",     "_clientVersion",
    "_clientName",       "_serviceName",    "_eventNumber",
    "_eventTime",        "_timezoneOffset", "_countryCode",
    "_deviceType",       "_osVersion",      "_buildVersion",
    "_hardwareModel",    "_method",         "_respCode",
    "_category",         "_type",           "_flag",
    "_internalInstall",  "_samplingUUID",   "_correlationID",
    "_parentSession",    "_hierarchyLevel", "_hierarchyToken",
    "_storebagVersion",  "duration",        "bytesReceived",
    "bytesSent",         "roundTripTime",   "packetLossPercentage",
    "videoResolution",   "audioBitrateAvg", "networkInterface",
    "relayServerRegion", "isRetransmission"};

const std::string kSessionID = "8D3A2C61-7E1B-4C0F-9A55-0D2E6B7F1A34";

Dictionary buildRecord() {
  Dictionary record = Dictionary::withCapacity(kKeys.size());
  for (size_t i = 0; i < kKeys.size(); ++i) {
    Value key = Value::literal(kKeys[i]);
    switch (i % 5) {
      case 0: record.set(std::move(key), kSessionID); break;
      case 1: record.set(std::move(key), static_cast<int64_t>(i)); break;
      case 2: record.set(std::move(key), 0.25 * static_cast<double>(i)); break;
      case 3: record.set(std::move(key), "N841AP"); break;
      default: record.set(std::move(key), true); break;
    }
  }
  return record;
}

void buildRecord(benchmark::State& state) {
  for (auto _ : state) {
    Dictionary record = buildRecord();
    benchmark::DoNotOptimize(record);
  }
}
BENCHMARK(buildRecord);

void copyRecord(benchmark::State& state) {
  const Value record = buildRecord();
  for (auto _ : state) {
    Value copy = record;
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(copyRecord);

// A backend adds its own entry to a record that others hold as well.
void changeCopyOfRecord(benchmark::State& state) {
  const Dictionary record = buildRecord();
  for (auto _ : state) {
    Dictionary copy = record;
    copy.set(Value::literal("_postTime"), 1700000000.5);
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(changeCopyOfRecord);

void lookUpInRecord(benchmark::State& state) {
  const Dictionary record = buildRecord();
  for (auto _ : state) {
    for (const std::string_view key : kKeys) benchmark::DoNotOptimize(&record[key]);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kKeys.size()));
}
BENCHMARK(lookUpInRecord);

void missInRecord(benchmark::State& state) {
  const Dictionary record = buildRecord();
  for (auto _ : state) benchmark::DoNotOptimize(&record["_notInThisRecord"]);
}
BENCHMARK(missInRecord);

void mergeIntoRecord(benchmark::State& state) {
  const Dictionary record = buildRecord();
  for (auto _ : state) {
    Dictionary target = Dictionary::withCapacity(kKeys.size());
    target.addEntries(record);
    benchmark::DoNotOptimize(target);
  }
}
BENCHMARK(mergeIntoRecord);

void fillLargeDictionary(benchmark::State& state) {
  const auto count = static_cast<int>(state.range(0));
  for (auto _ : state) {
    Dictionary dictionary;
    for (int i = 0; i < count; ++i) dictionary.set("key " + std::to_string(i), i);
    benchmark::DoNotOptimize(dictionary);
  }
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(fillLargeDictionary)->Arg(1'000)->Arg(100'000);

}  // namespace
}  // namespace zun
