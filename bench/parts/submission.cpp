// SendStatistic: the cost of a call for the producer.
#include <benchmark/benchmark.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <barrier>
#include <charconv>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "bench/common/allocations.h"
#include "bench/common/module_host.h"
#include "bench/common/record.h"
#include "bench/common/thread_time.h"
#include "host/json/json_storage.h"
#include "host/json/record_stamp.h"
#include "host/json/serializer.h"
#include "host/kit/submission_watch.h"

namespace veld_report::bench {
namespace {

// Calls between two drains: few enough that a call gets memory that was used before.
constexpr int callsInARow = 20000;

// Hands on what is written four bytes at a time, as a JSON service without a buffer would.
class PieceStream final : public host::HostObject<zel::IIO> {
 public:
  explicit PieceStream(zel::IIO* inner) : inner_(inner) {}
  zel::ResultCode Write(const void* buffer, std::uint32_t count, std::uint32_t* written) override {
    for (*written = 0; *written < count;) {
      std::uint32_t piece = 0;
      const char* const at = static_cast<const char*>(buffer) + *written;
      const zel::ResultCode code = inner_->Write(at, std::min<std::uint32_t>(4, count - *written), &piece);
      if (zel::Failed(code)) return code;
      *written += piece;
    }
    return zel::sOk;
  }
  zel::ResultCode Read(void*, std::uint32_t, std::uint32_t*) override { return zel::eNotImplemented; }
  zel::ResultCode Seek(std::uint32_t, std::int64_t, std::uint64_t*) override { return zel::eNotImplemented; }
  zel::ResultCode GetPosition(std::uint64_t*) override { return zel::eNotImplemented; }
  zel::ResultCode GetSize(std::uint64_t*) override { return zel::eNotImplemented; }
  zel::ResultCode SetSize(std::uint64_t) override { return zel::eNotImplemented; }
  zel::ResultCode Flush() override { return zel::sOk; }

 private:
  const zel::Ref<zel::IIO> inner_;
};

class PieceStorageFactory final : public host::HostObject<zel::IJsonStorageFactory> {
 public:
  zel::ResultCode CreateJsonStorage(zel::IIO* stream, const zel::JsonStorageOptions* options,
                                    zel::IStorage** out) override {
    return host::Guarded(
        [&] { return kit_->CreateJsonStorage(host::MakeObject<PieceStream>(stream).Get(), options, out); });
  }

 private:
  const zel::Ref<zel::IJsonStorageFactory> kit_ = host::CreateJsonStorageFactory();
};

ModuleHostOptions PieceHost() {
  ModuleHostOptions options;
  options.storages = host::MakeObject<PieceStorageFactory>();
  return options;
}

// A series of calls on this thread, and its cost.
struct Run {
  double wallSeconds = 0;
  double cpuSeconds = 0;
  std::uint64_t allocations = 0;

  void Measure(ModuleHost& host, Opened& record) {
    const std::uint64_t allocationsBefore = AllocationsOfThisThread();
    const double cpuBefore = ThreadCpuSeconds();
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < callsInARow; ++i) {
      record.number = 1000000 + i;
      host.Submit(AnyOf(record));
    }
    wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    cpuSeconds = ThreadCpuSeconds() - cpuBefore;
    allocations = AllocationsOfThisThread() - allocationsBefore;
  }
};

// The number of blocks that a call takes from the host's allocator. Counting isn't free, so this has a host
// of its own. No other host may exist, or the module would stay loaded.
double HostAllocations(ModuleHostOptions options) {
  const auto allocator = host::MakeObject<CountingAllocator>();
  options.allocator = allocator;
  ModuleHost host(options);
  Opened record;
  const std::uint64_t before = allocator->blocks;
  Run().Measure(host, record);
  return static_cast<double>(allocator->blocks - before) / callsInARow;
}

// Wall time, CPU time and allocations of one call, in every library of the process. The reported time is that
// of callsInARow calls on each thread at once; `wall_ns` and `cpu_ns` are for one call.
void Submission(benchmark::State& state, const ModuleHostOptions& options, std::size_t bytes = openedBytes) {
  const auto threadCount = static_cast<std::size_t>(state.range(0));
  const double hostAllocations = HostAllocations(options);
  ModuleHost host(options);
  std::vector<Opened> records(threadCount);
  // A warm-up run, so that the deque and the heap have their blocks.
  Run().Measure(host, records[0]);
  host.Drain();
  if (host.queues->lastSize != bytes) return state.SkipWithError("the record's text has another length");

  double wall = 0, cpu = 0;
  std::uint64_t allocations = 0;
  for (auto _ : state) {
    std::vector<Run> runs(threadCount);
    std::barrier start(static_cast<std::ptrdiff_t>(threadCount));
    std::vector<std::thread> others;
    const auto body = [&](std::size_t index) {
      start.arrive_and_wait();
      runs[index].Measure(host, records[index]);
    };
    for (std::size_t i = 1; i < threadCount; ++i) others.emplace_back(body, i);
    body(0);
    for (std::thread& other : others) other.join();
    double longest = 0;
    for (const Run& run : runs) {
      longest = std::max(longest, run.wallSeconds);
      wall += run.wallSeconds;
      cpu += run.cpuSeconds;
      allocations += run.allocations;
    }
    state.SetIterationTime(longest);
    host.Drain();
  }
  const double calls =
      static_cast<double>(state.iterations()) * callsInARow * static_cast<double>(threadCount);
  state.counters["wall_ns"] = wall / calls * 1e9;
  state.counters["cpu_ns"] = cpu / calls * 1e9;
  state.counters["allocations"] = static_cast<double>(allocations) / calls;
  state.counters["host_allocations"] = hostAllocations;
}

void SubmissionKit(benchmark::State& state) { Submission(state, {}); }
BENCHMARK(SubmissionKit)
    ->ArgName("threads")
    ->RangeMultiplier(2)
    ->Range(1, 8)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// What an id and a time add.
void SubmissionStamped(benchmark::State& state) {
  ModuleHostOptions options;
  options.serializer =
      host::CreateWatchedSerializer(host::CreateSerializer(std::make_shared<host::RecordStamp>(true)));
  Submission(state, options, openedBytes + host::RecordStamp::stampBytes);
}
BENCHMARK(SubmissionStamped)->ArgName("threads")->Arg(1)->UseManualTime()->Unit(benchmark::kMillisecond);

void SubmissionInPieces(benchmark::State& state) { Submission(state, PieceHost()); }
BENCHMARK(SubmissionInPieces)->ArgName("threads")->Arg(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// The lower bound: the same text written by hand into an existing buffer.
char* Copy(char* out, std::string_view text) {
  std::memcpy(out, text.data(), text.size());
  return out + text.size();
}

void JsonByHand(benchmark::State& state) {
  Opened record;
  char buffer[256];
  for (auto _ : state) {
    ++record.number;
    char* out = Copy(buffer, R"({"event":")");
    out = Copy(out, record.event);
    out = Copy(out, R"(","document":")");
    out = Copy(out, record.document);
    out = Copy(out, R"(","number":)");
    out = std::to_chars(out, buffer + sizeof(buffer), record.number).ptr;
    out = Copy(out, R"(,"durationMs":)");
    out = std::to_chars(out, buffer + sizeof(buffer), record.durationMs).ptr;
    out = Copy(out, record.ok ? R"(,"ok":true})" : R"(,"ok":false})");
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(JsonByHand);

// The usual way to produce just the text.
void JsonRapidJson(benchmark::State& state) {
  Opened record;
  rapidjson::StringBuffer buffer;
  for (auto _ : state) {
    ++record.number;
    buffer.Clear();
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartObject();
    writer.Key("event");
    writer.String(record.event.data(), static_cast<rapidjson::SizeType>(record.event.size()));
    writer.Key("document");
    writer.String(record.document.data(), static_cast<rapidjson::SizeType>(record.document.size()));
    writer.Key("number");
    writer.Int64(record.number);
    writer.Key("durationMs");
    writer.Double(record.durationMs);
    writer.Key("ok");
    writer.Bool(record.ok);
    writer.EndObject();
    benchmark::DoNotOptimize(buffer.GetString());
  }
}
BENCHMARK(JsonRapidJson);

}  // namespace
}  // namespace veld_report::bench
