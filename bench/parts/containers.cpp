// The strings, vectors and streams that cross between host and module, next to those of the standard library.
// Each pair does the same work.
#include <benchmark/benchmark.h>

#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "contract/io.h"
#include "memory_io/memory_io.h"
#include "types/basic_string.h"
#include "types/vector.h"

namespace veld_report::bench {
namespace {

constexpr std::string_view shortText = "document_opened";  // fits into both inline buffers
const std::string longText(200, 'x');                      // an item

zel::string Make(std::string_view text, const zel::string*) { return zel::string(text); }
std::string Make(std::string_view text, const std::string*) { return std::string(text); }

template <class String>
void StringShort(benchmark::State& state) {
  for (auto _ : state) {
    String text = Make(shortText, static_cast<const String*>(nullptr));
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK_TEMPLATE(StringShort, zel::string);
BENCHMARK_TEMPLATE(StringShort, std::string);

template <class String>
void StringCopy(benchmark::State& state) {
  const String source = Make(longText, static_cast<const String*>(nullptr));
  for (auto _ : state) {
    String text(source);
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK_TEMPLATE(StringCopy, zel::string);
BENCHMARK_TEMPLATE(StringCopy, std::string);

// A text of 2,000 bytes in pieces of 20.
template <class String>
void StringAppend(benchmark::State& state) {
  for (auto _ : state) {
    String text;
    for (int i = 0; i < 100; ++i) text.append(std::string_view("twenty bytes, twenty"));
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK_TEMPLATE(StringAppend, zel::string);
BENCHMARK_TEMPLATE(StringAppend, std::string);

// The items of a packet.
template <class Vector, class String>
void VectorOfStrings(benchmark::State& state) {
  for (auto _ : state) {
    Vector items;
    for (int i = 0; i < 100; ++i) items.push_back(Make(longText, static_cast<const String*>(nullptr)));
    benchmark::DoNotOptimize(items);
  }
}
BENCHMARK_TEMPLATE(VectorOfStrings, zel::vector_t<zel::string>, zel::string);
BENCHMARK_TEMPLATE(VectorOfStrings, std::vector<std::string>, std::string);

// The walk's scratch memory: the same vector filled again and again.
void VectorAssign(benchmark::State& state) {
  zel::vector_t<std::uint8_t> scratch;
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(longText.data());
  for (auto _ : state) {
    scratch.assign(bytes, longText.size());
    benchmark::DoNotOptimize(scratch.first);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(VectorAssign);

void VectorAssignStandard(benchmark::State& state) {
  std::vector<std::uint8_t> scratch;
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(longText.data());
  for (auto _ : state) {
    scratch.assign(bytes, bytes + longText.size());
    benchmark::DoNotOptimize(scratch.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(VectorAssignStandard);

// A record's text in 21 writes: five fields from a serialiser that doesn't buffer.
void StreamWrite(benchmark::State& state) {
  for (auto _ : state) {
    zel::string text;
    zel::Ref<zel::IIO> stream;
    zel::memory_io::CreateIOFromBuffer(&text, stream.Out());
    std::uint32_t written = 0;
    for (int i = 0; i < 21; ++i) stream->Write("sevenby", 7, &written);
    benchmark::DoNotOptimize(text.data);
  }
}
BENCHMARK(StreamWrite);

void StreamWriteStandard(benchmark::State& state) {
  for (auto _ : state) {
    std::ostringstream stream;
    for (int i = 0; i < 21; ++i) stream.write("sevenby", 7);
    const std::string text = std::move(stream).str();
    benchmark::DoNotOptimize(text.data());
  }
}
BENCHMARK(StreamWriteStandard);

// A body of 27 KB written to a stream, and read in the pieces that an HTTP client asks for.
void StreamRead(benchmark::State& state) {
  const zel::string body(std::string(27'000, 'x'));
  char piece[16384];
  for (auto _ : state) {
    zel::Ref<zel::IIO> stream;
    zel::memory_io::CreateIOFromBuffer(body, stream.Out());
    std::uint32_t got = 1;
    while (got != 0) stream->Read(piece, sizeof(piece), &got);
    benchmark::DoNotOptimize(piece);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(StreamRead);

void StreamReadStandard(benchmark::State& state) {
  const std::string body(27'000, 'x');
  char piece[16384];
  for (auto _ : state) {
    std::istringstream stream(body);
    do {
      stream.read(piece, sizeof(piece));
    } while (stream.gcount() != 0);
    benchmark::DoNotOptimize(piece);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(StreamReadStandard);

}  // namespace
}  // namespace veld_report::bench
