// State queues stand before every read and write of a backend or a helper.

#include <benchmark/benchmark.h>

#include <latch>

#include "linux/loop/WorkerPool.h"
#include "platform/SerialQueue.h"

namespace zun {
namespace {

void syncOnIdleQueue(benchmark::State& state) {
  WorkerPool pool(2);
  const auto queue = SerialQueue::create("bench", pool);
  int counter = 0;
  for (auto _ : state) benchmark::DoNotOptimize(queue->sync([&counter] { return ++counter; }));
}
BENCHMARK(syncOnIdleQueue);

void syncWithinSync(benchmark::State& state) {
  WorkerPool pool(2);
  const auto queue = SerialQueue::create("bench", pool);
  int counter = 0;
  queue->sync([&] {
    for (auto _ : state) benchmark::DoNotOptimize(queue->sync([&counter] { return ++counter; }));
  });
}
BENCHMARK(syncWithinSync);

// The common pair: a write that nobody waits for and a read right behind it.
void asyncThenSync(benchmark::State& state) {
  WorkerPool pool(2);
  const auto queue = SerialQueue::create("bench", pool);
  int counter = 0;
  for (auto _ : state) {
    queue->async([&counter] { ++counter; });
    benchmark::DoNotOptimize(queue->sync([&counter] { return counter; }));
  }
}
BENCHMARK(asyncThenSync)->UseRealTime();

void asyncThroughput(benchmark::State& state) {
  WorkerPool pool(2);
  const auto queue = SerialQueue::create("bench", pool);
  constexpr int kBatch = 1000;
  int counter = 0;
  for (auto _ : state) {
    std::latch done(1);
    for (int i = 1; i < kBatch; ++i) queue->async([&counter] { ++counter; });
    queue->async([&done] { done.count_down(); });
    done.wait();
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(asyncThroughput)->UseRealTime();

void contendedSync(benchmark::State& state) {
  static WorkerPool pool(2);
  static const auto queue = SerialQueue::create("bench", pool);
  static int counter = 0;
  for (auto _ : state) benchmark::DoNotOptimize(queue->sync([] { return ++counter; }));
}
BENCHMARK(contendedSync)->Threads(2)->UseRealTime();

}  // namespace
}  // namespace zun
