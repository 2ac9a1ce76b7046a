// What grows with the number of urls: the snapshot of a cycle, the upkeep of the queues, the lookups of the
// walk. Each is a whole cycle of the module in which nothing else happens.
#include <benchmark/benchmark.h>

#include <chrono>

#include "bench/common/module_host.h"
#include "bench/common/record.h"
#include "bench/common/thread_time.h"
#include "host/kit/module_path.h"
#include "host/services/queue_name.h"

namespace veld_report::bench {
namespace {

// A host with range(0) urls that has run one cycle.
struct TableHost {
  explicit TableHost(const benchmark::State& state)
      : urls(ManyUrls(static_cast<std::size_t>(state.range(0)))), host({.urls = urls}) {
    Opened record;
    host.Submit(AnyOf(record));
    host.Drain();
  }
  const std::vector<std::string> urls;
  ModuleHost host;
};

// `count` queue names that match no url of the table.
std::vector<std::string> UnknownNames(std::size_t count) {
  std::vector<std::string> names;
  for (std::size_t i = 0; i < count; ++i) {
    names.push_back(host::QueueNameOfUrl("http://elsewhere.invalid/" + std::to_string(i)));
  }
  return names;
}

// Runs `cycle` once per iteration, after an unmeasured `prepare`. The figure is CPU time.
template <class Prepare, class Cycle>
void MeasureCycles(benchmark::State& state, Prepare&& prepare, Cycle&& cycle) {
  for (auto _ : state) {
    prepare();
    const double begin = ThreadCpuSeconds();
    cycle();
    state.SetIterationTime(ThreadCpuSeconds() - begin);
  }
}

void CycleSnapshot(benchmark::State& state) {
  TableHost table(state);
  MeasureCycles(
      state, [] {}, [&] { table.host.Drain(); });
}

// Half of the queues in the service are in the table; the other half are removed.
void CycleUpdateQueues(benchmark::State& state) {
  TableHost table(state);
  NullQueues& queues = *table.host.queues;
  queues.names = UnknownNames(table.urls.size() / 2);
  for (std::size_t i = 0; i < table.urls.size(); i += 2) {
    queues.names.push_back(host::QueueNameOfUrl(table.urls[i]));
  }
  queues.removed = 0;
  MeasureCycles(
      state, [&] { table.host.SetUrls(table.urls); }, [&] { table.host.Drain(); });
  const auto expected = static_cast<std::uint64_t>(state.iterations()) * (table.urls.size() / 2);
  if (queues.removed != expected) state.SkipWithError("the cycle removed other queues than it should");
}

// The walk visits as many queues as the table has rows. None of them is in the table.
void CycleLookUps(benchmark::State& state) {
  TableHost table(state);
  table.host.queues->names = UnknownNames(table.urls.size());
  MeasureCycles(
      state, [] {}, [&] { table.host.RunCycle(); });
}

void SetSettings(benchmark::State& state) {
  TableHost table(state);
  MeasureCycles(
      state, [] {}, [&] { table.host.SetUrls(table.urls); });
}

#define VELD_TABLE_BENCHMARK(name) \
  BENCHMARK(name)->Arg(1'000)->Arg(10'000)->UseManualTime()->Unit(benchmark::kMicrosecond)
VELD_TABLE_BENCHMARK(CycleSnapshot);
VELD_TABLE_BENCHMARK(CycleUpdateQueues);
VELD_TABLE_BENCHMARK(CycleLookUps);
VELD_TABLE_BENCHMARK(SetSettings);

// The cost of loading: from nothing to a factory and back.
void ModuleLoad(benchmark::State& state) {
  const std::string path = host::LoadModule()->Path();
  for (auto _ : state) {
    host::LoadedModule module(path);
    benchmark::DoNotOptimize(module.MakeFactory(nullptr));
  }
}
BENCHMARK(ModuleLoad)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace veld_report::bench
