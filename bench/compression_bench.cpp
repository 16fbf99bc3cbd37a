// What it costs to compress a post's body: 50 events, a usual batch, and 500.

#include <benchmark/benchmark.h>

#include <string>

#include "platform/SystemLog.h"
#include "util/Compression.h"
#include "values/JSONWriter.h"
#include "values/Value.h"

namespace zun {
namespace {

class SilentLog final : public SystemLog {
 public:
  bool isEnabled(LogLevel) const override { return false; }
  void write(LogLevel, std::string_view) override {}
};

/// A record as the HTTPS backend builds it: the same keys in every record, values that
/// differ from event to event.
Dictionary record(int number) {
  return {{"_clientId", "6F1C2E0B-4C0E-4F6E-9F0B-2C7B8C0F3A11"},
          {"_deviceType", "N841AP"},
          {"_eventId", number},
          {"_eventTime", 1'700'000'000.25 + number},
          {"_method", 200 + number % 7},
          {"_osBuild", "21A329"},
          {"_osVersion", "12.11"},
          {"_respCode", number % 5},
          {"_sender", "KF"},
          {"_sessionID", "1234567890_1"},
          {"_startTS", 1'699'999'980},
          {"duration", 0.125 * number},
          {"bytesSent", 1024 + number * 37},
          {"network", number % 3 == 0 ? "wifi" : "cellular"},
          {"identifier", fmt::format("{:08X}-{:04X}", number * 2'654'435'761U, number * 40'503U % 65'536U)}};
}

std::string bodyOf(int events) {
  Array records = Array::withCapacity(static_cast<size_t>(events));
  for (int i = 0; i < events; ++i) records.append(record(i));
  return writeJSON(Dictionary{{"postTime", 1'700'000'100.5}, {"clientId", "device"}, {"events", records}},
                   JSONFormat::kCompact);
}

void gzipBody(benchmark::State& state) {
  SilentLog log;
  const std::string body = bodyOf(static_cast<int>(state.range(0)));
  size_t compressed = 0;
  for ([[maybe_unused]] auto iteration : state) {
    const auto result = gzipDeflate(body, log);
    compressed = result->size();
    benchmark::DoNotOptimize(compressed);
  }
  state.SetBytesProcessed(static_cast<int64_t>(body.size()) * static_cast<int64_t>(state.iterations()));
  state.counters["body"] = static_cast<double>(body.size());
  state.counters["compressed"] = static_cast<double>(compressed);
}
BENCHMARK(gzipBody)->Arg(50)->Arg(500);

}  // namespace
}  // namespace zun
