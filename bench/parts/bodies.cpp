// The steps that make a request: the base64 text, and the whole body from the items of a packet.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <chrono>
#include <string>
#include <vector>

#include "bench/common/module_host.h"
#include "bench/common/record.h"
#include "bench/common/thread_time.h"
#include "formats/base64.h"

namespace veld_report::bench {
namespace {

// Payload texts are JSON, but the encoders don't care.
std::vector<std::uint8_t> Bytes(std::size_t count) {
  std::vector<std::uint8_t> bytes(count);
  std::uint32_t state = 1;
  for (std::uint8_t& byte : bytes)
    byte = static_cast<std::uint8_t>((state = state * 1664525 + 1013904223) >> 24);
  return bytes;
}

void SetThroughput(benchmark::State& state) { state.SetBytesProcessed(state.iterations() * state.range(0)); }

// Includes the allocation of the text, which a caller passes on.
void Base64Module(benchmark::State& state) {
  const std::vector<std::uint8_t> bytes = Bytes(static_cast<std::size_t>(state.range(0)));
  zel::string text;
  for (auto _ : state) {
    orvel::veld_report::Base64Encode(bytes.data(), bytes.size(), &text);
    benchmark::DoNotOptimize(text.data);
  }
  SetThroughput(state);
}
BENCHMARK(Base64Module)->Arg(20'000)->Arg(500'000);

void Base64OpenSsl(benchmark::State& state) {
  const std::vector<std::uint8_t> bytes = Bytes(static_cast<std::size_t>(state.range(0)));
  std::vector<unsigned char> text(bytes.size() / 3 * 4 + 8);
  for (auto _ : state) {
    benchmark::DoNotOptimize(EVP_EncodeBlock(text.data(), bytes.data(), static_cast<int>(bytes.size())));
    benchmark::ClobberMemory();
  }
  SetThroughput(state);
}
BENCHMARK(Base64OpenSsl)->Arg(20'000)->Arg(500'000);

// From the last item of a packet to the call of the HTTP client with the body: 100 items of 200 bytes.
void PacketToBody(benchmark::State& state) {
  ModuleHost host;
  Opened record = OpenedOfSize(200, 1234567);
  host.Submit(AnyOf(record));
  host.queues->names = {host.QueueName()};
  host.queues->item.assign(200, 'x');
  host.RunCycle();

  std::chrono::steady_clock::time_point begin;
  double wall = 0, cpu = 0, cpuBegin = 0;
  host.queues->onLastRead = [&] {
    cpuBegin = ThreadCpuSeconds();
    begin = std::chrono::steady_clock::now();
  };
  host.http->onRequest = [&] {
    wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    cpu += ThreadCpuSeconds() - cpuBegin;
  };
  const std::uint64_t before = host.http->requests;
  for (auto _ : state) {
    host.queues->readable = 100;
    host.RunCycle();
    state.SetIterationTime(wall);
  }
  if (host.http->requests - before != static_cast<std::uint64_t>(state.iterations()) ||
      host.http->lastSize < 26'000) {
    return state.SkipWithError("a cycle didn't send its packet");
  }
  state.counters["cpu_us"] = cpu / static_cast<double>(state.iterations()) * 1e6;
}
BENCHMARK(PacketToBody)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace veld_report::bench
