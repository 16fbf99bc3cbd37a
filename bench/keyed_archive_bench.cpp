#include <benchmark/benchmark.h>

#include "values/KeyedArchiver.h"

namespace zun {
namespace {

/// Log records as clients hand them over: the same keys and a few texts again and again.
Value logRecords(int64_t count) {
  Array records = Array::withCapacity(static_cast<size_t>(count));
  for (int64_t i = 0; i < count; ++i) {
    records.append(Dictionary{{"time", 1'700'000'000.0 + static_cast<double>(i)},
                              {"level", i % 7 == 0 ? "error" : "info"},
                              {"process", "player"},
                              {"line", "request " + std::to_string(i) + " finished"},
                              {"code", i % 20}});
  }
  return records;
}

void archive(benchmark::State& state) {
  const Value records = logRecords(state.range(0));
  size_t bytes = 0;
  for (auto _ : state) {
    const auto archive = archiveObject(records);
    bytes = archive->size();
    benchmark::DoNotOptimize(archive);
  }
  state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(archive)->Arg(50)->Arg(5000)->Unit(benchmark::kMicrosecond);

void unarchive(benchmark::State& state) {
  const auto archive = archiveObject(logRecords(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(unarchiveObject(*archive));
}
BENCHMARK(unarchive)->Arg(50)->Arg(5000)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace zun
