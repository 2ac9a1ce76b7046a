// veld_bench_counts: repeats one part of the module so that callgrind can count the instructions between the
// marks. scripts/instruction-counts runs it and compares the counts with the recorded ones.
//
// Everything is fixed: one thread, no clock, no disk, no network, the same records in the same order. Without
// callgrind it does the same and counts nothing.
#include <valgrind/callgrind.h>

#include <cstdio>
#include <exception>
#include <functional>
#include <map>
#include <string>

#include "bench/common/module_host.h"
#include "bench/common/record.h"
#include "host/json/json_storage.h"

namespace veld_report::bench {
namespace {

// Callgrind starts with counting off, so two calls of this enclose what is counted.
void Mark() { CALLGRIND_TOGGLE_COLLECT; }

ModuleHostOptions FixedHost() {
  ModuleHostOptions options;
  options.realTimer = false;
  return options;
}

// Runs `once` that many times, after a few uncounted runs that resolve symbols and fill the heap.
int Repeat(int times, const std::function<void(bool counted)>& once) {
  for (int i = 0; i < 8; ++i) once(false);
  for (int i = 0; i < times; ++i) once(true);
  return times;
}

int CountSubmission(const ModuleHostOptions& options) {
  ModuleHost host(options);
  Opened record;
  return Repeat(256, [&](bool counted) {
    ++record.number;
    const zel::AnyPtr any = AnyOf(record);
    if (counted) Mark();
    host.Submit(any);
    if (counted) Mark();
  });
}

// Looks at no record, so that the host hardly adds to the count.
class FixedText final : public host::HostObject<zel::IStorageSerializer2> {
 public:
  zel::ResultCode Serialize(const zel::AnyPtr*, zel::IStorage* storage, std::uint32_t,
                            zel::IObject**) override {
    zel::Ref<host::IJsonTextAccess> access;
    const auto code = storage->QueryInterface(host::IJsonTextAccess::iid, access.OutVoid());
    if (!zel::Failed(code)) access->BeginValue()->Raw(text_);
    return code;
  }

 private:
  const std::string text_ = std::string(openedBytes, 'x');
};

int CountSubmissionModule() {
  ModuleHostOptions options = FixedHost();
  options.serializer = host::MakeObject<FixedText>();
  return CountSubmission(options);
}

int CountSubmissionKit() { return CountSubmission(FixedHost()); }

// Thirty records for three urls, five queues of which three are known, 25 items in packets of ten.
int CountCycle() {
  ModuleHostOptions options = FixedHost();
  options.urls = ManyUrls(3);
  options.packetLimit = 10;
  ModuleHost host(options);
  host.queues->item.assign(200, 'x');
  for (const std::string& url : options.urls) host.queues->names.push_back(host.QueueNameOf(url));
  for (const char* unknown : {"http://a.invalid/", "http://b.invalid/"}) {
    host.queues->names.push_back(host.QueueNameOf(unknown));
  }
  return Repeat(64, [&](bool counted) {
    Opened record;
    for (int i = 0; i < 30; ++i) host.Submit(AnyOf(record));
    host.queues->readable = 25;
    if (counted) Mark();
    host.RunCycle();
    if (counted) Mark();
  });
}

// From the last item of a packet of 100 items of 200 bytes to the call of the HTTP client.
int CountBody() {
  ModuleHost host(FixedHost());
  Opened record;
  host.Submit(AnyOf(record));
  host.queues->names = {host.QueueName()};
  host.queues->item.assign(200, 'x');
  return Repeat(64, [&](bool counted) {
    host.queues->readable = 100;
    host.queues->onLastRead = host.http->onRequest = counted ? Mark : std::function<void()>();
    host.RunCycle();
  });
}

int Count(const std::string& part) {
  const std::map<std::string, std::function<int()>> parts = {
      {"submission", CountSubmissionModule},
      {"submission-kit", CountSubmissionKit},
      {"cycle", CountCycle},
      {"body", CountBody},
  };
  if (const auto found = parts.find(part); found != parts.end()) {
    // The number of repetitions, for the script to divide by.
    std::printf("%d\n", found->second());
    return 0;
  }
  if (!part.empty()) {
    std::fprintf(stderr, "usage: veld_bench_counts PART; without one it names the parts\n");
    return 2;
  }
  for (const auto& [name, function] : parts) std::puts(name.c_str());
  return 0;
}

}  // namespace
}  // namespace veld_report::bench

int main(int argc, char** argv) {
  try {
    return veld_report::bench::Count(argc > 1 ? argv[1] : "");
  } catch (const std::exception& error) {
    std::fprintf(stderr, "veld_bench_counts: %s\n", error.what());
    return 1;
  }
}
