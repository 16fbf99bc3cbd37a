#include <benchmark/benchmark.h>

#include "values/JSONReader.h"
#include "values/JSONWriter.h"

namespace zun {
namespace {

/// An event record as the HTTPS backend builds it: 35 entries of mixed kinds.
Value eventRecord() {
  Dictionary record;
  for (int i = 0; i < 15; ++i)
    record.set(fmt::format("_stringField{}", i), fmt::format("value {} of a field", i));
  for (int i = 0; i < 12; ++i) record.set(fmt::format("counter{}", i), int64_t{1} << (i * 3));
  record.set("_eventTime", 1700000000.123456);
  record.set("_startTS", 1699999980.5);
  record.set("duration", 12.25);
  record.set("flag", true);
  record.set("internal", false);
  record.set("deviceName", "Größe \"S\" / \u65e5\u672c");
  record.set("list", Array{1, 2, 3});
  record.set("nested", Dictionary{{"method", 5}, {"respCode", 200}});
  return record;
}

void writeRecord(benchmark::State& state, JSONFormat format) {
  const Value record = eventRecord();
  size_t bytes = 0;
  for (auto _ : state) {
    const std::string text = writeJSON(record, format);
    bytes += text.size();
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

void JSONWriteCompact(benchmark::State& state) {
  writeRecord(state, JSONFormat::kCompact);
}
BENCHMARK(JSONWriteCompact);

void JSONWritePretty(benchmark::State& state) {
  writeRecord(state, JSONFormat::kPretty);
}
BENCHMARK(JSONWritePretty);

void JSONRead(benchmark::State& state) {
  const std::string text = writeJSON(eventRecord(), JSONFormat::kCompact);
  for (auto _ : state) benchmark::DoNotOptimize(parseJSON(text));
  state.SetBytesProcessed(static_cast<int64_t>(text.size() * state.iterations()));
}
BENCHMARK(JSONRead);

}  // namespace
}  // namespace zun
