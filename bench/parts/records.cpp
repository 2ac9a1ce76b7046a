// The serialiser: what a record costs that has one field of a certain type.
#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

#include "bench/common/allocations.h"
#include "host/base/host_object.h"
#include "host/json/json_storage.h"
#include "host/json/serializer.h"
#include "veld_report/record.h"

namespace veld_report::bench {

enum class Number : int { first, second };
enum class Name : int { first, second };
VELD_ENUM(Name, first, second)

struct Inner {
  int number = 7;
};
VELD_RECORD(Inner, 1, number)

namespace {

// Drops what is written.
class NullStream final : public host::HostObject<zel::IIO> {
 public:
  zel::ResultCode Write(const void*, std::uint32_t count, std::uint32_t* written) override {
    *written = count;
    return zel::sOk;
  }
  zel::ResultCode Read(void*, std::uint32_t, std::uint32_t*) override { return zel::eNotImplemented; }
  zel::ResultCode Seek(std::uint32_t, std::int64_t, std::uint64_t*) override { return zel::eNotImplemented; }
  zel::ResultCode GetPosition(std::uint64_t*) override { return zel::eNotImplemented; }
  zel::ResultCode GetSize(std::uint64_t*) override { return zel::eNotImplemented; }
  zel::ResultCode SetSize(std::uint64_t) override { return zel::eNotImplemented; }
  zel::ResultCode Flush() override { return zel::sOk; }
};

// Includes what every record costs: a storage and the end of the text.
template <class T>
void RecordOf(benchmark::State& state, T value) {
  static constexpr zel::SerFieldDescriptor rows[] = {record_detail::DescribeField<T>("value", 0),
                                                     record_detail::EndOfTable()};
  static constexpr zel::SerObjDescriptor descriptor = {1, "Record", sizeof(T), rows};
  const auto stream = host::MakeObject<NullStream>();
  const auto storages = host::CreateJsonStorageFactory();
  const auto serializer = host::CreateSerializer();
  const zel::AnyPtr record(&value, &descriptor);
  const std::uint64_t before = AllocationsOfThisThread();
  for (auto _ : state) {
    const zel::JsonStorageOptions options;
    zel::Ref<zel::IStorage> storage;
    zel::Ref<zel::IObject> context;
    storages->CreateJsonStorage(stream.Get(), &options, storage.Out());
    if (zel::Failed(serializer->Serialize(&record, storage.Get(), options.flag, context.Out())))
      return state.SkipWithError("the record is refused");
    storage->Flush();
  }
  state.counters["allocations"] =
      static_cast<double>(AllocationsOfThisThread() - before) / static_cast<double>(state.iterations());
}

constexpr std::chrono::sys_days day = std::chrono::year(2026) / 11 / 25;
using Map = std::map<std::string, int>;
using HashMap = std::unordered_map<std::string, int>;

BENCHMARK_CAPTURE(RecordOf, number, 7);
BENCHMARK_CAPTURE(RecordOf, text, std::string("seven"));
BENCHMARK_CAPTURE(RecordOf, text view, std::string_view("seven"));
BENCHMARK_CAPTURE(RecordOf, enumeration, Number::second);
BENCHMARK_CAPTURE(RecordOf, named enumeration, Name::second);
BENCHMARK_CAPTURE(RecordOf, duration, std::chrono::milliseconds(7));
BENCHMARK_CAPTURE(RecordOf, point in time, std::chrono::sys_time<std::chrono::milliseconds>(day));
BENCHMARK_CAPTURE(RecordOf, record, Inner());
BENCHMARK_CAPTURE(RecordOf, variant, std::variant<Inner>());
BENCHMARK_CAPTURE(RecordOf, optional, std::optional(7));
BENCHMARK_CAPTURE(RecordOf, nested optional, std::optional(std::optional(std::optional(7))));
BENCHMARK_CAPTURE(RecordOf, vector of 4, std::vector{1, 2, 3, 4});
BENCHMARK_CAPTURE(RecordOf, array of 4, std::array{1, 2, 3, 4});
BENCHMARK_CAPTURE(RecordOf, array of 2 arrays of 2, std::array{std::array{1, 2}, std::array{3, 4}});
BENCHMARK_CAPTURE(RecordOf, map of 4, Map{{"a", 1}, {"b", 2}, {"c", 3}, {"d", 4}});
BENCHMARK_CAPTURE(RecordOf, hash map of 4, HashMap{{"a", 1}, {"b", 2}, {"c", 3}, {"d", 4}});

}  // namespace
}  // namespace veld_report::bench
