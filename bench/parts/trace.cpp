// Trace sites: the cost of a line that is off, and of one that is written.
#include <benchmark/benchmark.h>

#include <string_view>

#include "bench/common/allocations.h"
#include "host/base/host_object.h"
#include "host/services/line_tracer.h"
#include "trace/trace_stream.h"

namespace veld_report::bench {
namespace {

[[gnu::noinline]] void Nothing(zel::ITracer* tracer) { benchmark::DoNotOptimize(tracer); }

// In a function of its own, so that loop and call are the same as for the empty one.
[[gnu::noinline]] void SiteWithNumbers(zel::ITracer* tracer) {
  zel::TraceLine(tracer, zel::normalLevel, [&](zel::TraceStream& line) {
    line.PutText("Not all data were sent. NeedToSend size = ").PutUInt32(123456);
    line.PutText(". Sended size = ").PutUInt32(7890123);
  });
}

void TraceEmptyCall(benchmark::State& state) {
  const auto tracer = host::MakeObject<host::LineTracer>(host::LineTracerOptions{.level = 0});
  for (auto _ : state) Nothing(tracer.Get());
}
BENCHMARK(TraceEmptyCall);

void TraceSiteOff(benchmark::State& state) {
  const auto tracer = host::MakeObject<host::LineTracer>(host::LineTracerOptions{.level = 0});
  for (auto _ : state) SiteWithNumbers(tracer.Get());
}
BENCHMARK(TraceSiteOff);

// Takes lines into one buffer and discards them.
class BufferTracer final : public host::HostObject<zel::ITracer> {
 public:
  zel::ResultCode AcquireBuffer(std::uint32_t, char** buffer, std::uint64_t size) override {
    if (size > sizeof(buffer_)) return zel::eOutOfMemory;
    *buffer = buffer_;
    return zel::sOk;
  }
  zel::ResultCode CommitBuffer(char*, std::uint64_t length) override {
    lastLength = length;
    return zel::sOk;
  }
  std::uint64_t lastLength = 0;

 private:
  char buffer_[4096] = {};
};

// A line of 100 bytes, without the tracer's work.
void TraceLineOn(benchmark::State& state) {
  const auto tracer = host::MakeObject<BufferTracer>();
  const std::uint64_t before = AllocationsOfThisThread();
  for (auto _ : state) {
    zel::TraceLine(tracer.Get(), zel::normalLevel, [&](zel::TraceStream& line) {
      line.PutText("Not all data were sent. NeedToSend size = ").PutUInt32(1234567);
      line.PutText(". Sended size = ").PutUInt32(7890123).PutText(". Of the walk: ").PutUInt64(123456789);
    });
  }
  // The benchmark loop itself allocates a handful of times.
  const auto allocations = static_cast<double>(AllocationsOfThisThread() - before);
  state.counters["allocations"] = allocations / static_cast<double>(state.iterations());
  state.counters["bytes"] = static_cast<double>(tracer->lastLength);
}
BENCHMARK(TraceLineOn);

// The same line through the kit's tracer, up to the write.
void TraceLineOnKit(benchmark::State& state) {
  std::uint64_t bytes = 0;
  const auto tracer = host::MakeObject<host::LineTracer>(
      host::LineTracerOptions{.level = 700, .sink = [&](std::string_view line) { bytes += line.size(); }});
  for (auto _ : state) SiteWithNumbers(tracer.Get());
  benchmark::DoNotOptimize(bytes);
}
BENCHMARK(TraceLineOnKit);

}  // namespace
}  // namespace veld_report::bench
