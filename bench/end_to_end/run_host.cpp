#include "bench/end_to_end/run_host.h"

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "host/queue/queue_service.h"
#include "host/services/queue_name.h"

namespace veld_report::bench {
namespace {

using namespace std::chrono_literals;

std::string ConsumerOf(std::uint64_t index) { return "c" + std::to_string(index); }

void Fill(const RunOptions& options, const std::filesystem::path& folder, const std::string& base) {
  const auto service = host::QueueService::Open({.folder = folder});
  zel::Ref<orvel::IQueueProducer> producer;
  const zel::string domain(host::defaultDomain);
  const zel::string name(host::QueueNameOfUrl(UrlOf(base, 0)));
  if (zel::Failed(service->CreateProducer(domain, name, UINT32_MAX, producer.Out()))) {
    throw std::runtime_error("fill: no producer");
  }
  char text[4096];
  const auto size = static_cast<int>(std::min<std::uint64_t>(options.size, sizeof(text) - 1));
  for (std::uint64_t i = 0; i < options.fill; ++i) {
    const int head = std::snprintf(text, sizeof(text), R"({"number":%lld,"document":")",
                                   static_cast<long long>(firstNumber + static_cast<std::int64_t>(i)));
    std::snprintf(text + head, sizeof(text) - static_cast<std::size_t>(head), "%0*d\"}",
                  std::max(size - head - 2, 1), 0);
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(text);
    const zel::ByteRange range{bytes, bytes + size};
    if (producer->Push(&range) != zel::sOk) throw std::runtime_error("fill: a push is refused");
  }
  if (!service->Commit()) throw std::runtime_error("fill: the store can't be written");
}

}  // namespace

StoreFolder::StoreFolder(const RunOptions& options) : path_(options.store), kept_(!options.store.empty()) {
  if (kept_) return;
  std::string name = (std::filesystem::temp_directory_path() / "veld-bench-XXXXXX").string();
  if (!::mkdtemp(name.data())) throw std::runtime_error("no folder can be made in the temporary one");
  path_ = name;
}

StoreFolder::~StoreFolder() {
  std::error_code ignored;
  if (!kept_) std::filesystem::remove_all(path_, ignored);
}

std::string UrlOf(const std::string& base, std::uint64_t index) {
  return base + "/in/" + std::to_string(index);
}

void FillStore(const RunOptions& options, const std::filesystem::path& folder, const std::string& base) {
  if (options.fill == 0) return;
  const pid_t process = ::fork();
  if (process == 0) {
    int code = 0;
    try {
      Fill(options, folder, base);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "veld_bench_end_to_end: %s\n", error.what());
      code = 1;
    }
    ::_exit(code);
  }
  int status = 1;
  if (process < 0 || ::waitpid(process, &status, 0) < 0 || status != 0) {
    throw std::runtime_error("the store could not be filled");
  }
}

RunHost::RunHost(const RunOptions& options, const std::filesystem::path& folder, const std::string& base)
    : options_(options) {
  host::HostKitOptions kit;
  kit.queues.folder = folder;
  kit.settings.packetLimit = static_cast<std::uint32_t>(options.packet);
  kit.settings.queueLimitKb = static_cast<std::uint32_t>(options.queueLimitKb);
  kit.settings.sendTimeoutS = 1;
  kit.http.proxy = "";
  for (std::uint64_t i = 0; i < options.urls; ++i) {
    kit.settings.endpoints.push_back({.url = UrlOf(base, i), .consumer = ConsumerOf(i)});
  }
  kit.wrapQueues = [this](zel::Ref<orvel::IQueueFactory> inner) {
    return WatchQueues(std::move(inner), traffic_);
  };
  kit_ = std::make_unique<host::HostKit>(kit);
}

void RunHost::Submit(std::uint64_t from, std::uint64_t to) {
  constexpr std::uint64_t lookEvery = 64;
  std::vector<std::string> consumers;
  for (std::uint64_t i = 0; i < options_.urls; ++i) consumers.push_back(ConsumerOf(i));
  Opened record = OpenedOfSize(options_.size, firstNumber);
  std::uint64_t unnoted = 0;
  const auto look = [&] {
    submitted_.fetch_add(std::exchange(unnoted, 0), std::memory_order_relaxed);
    const std::uint64_t pushed = traffic_.pushed.load(std::memory_order_relaxed);
    const std::uint64_t pending = submitted_.load(std::memory_order_relaxed) - pushed;
    NotePending(pending);
    return pending;
  };
  for (std::uint64_t i = from; i < to; ++i) {
    record.number = firstNumber + static_cast<std::int64_t>(i);
    if (!kit_->Submit(consumers[i % options_.urls], AnyOf(record)).Accepted()) {
      throw std::runtime_error("a record is refused");
    }
    if (++unnoted < lookEvery) continue;
    while (look() >= options_.pending && options_.pending != 0) {
      kit_->BeginDrain();
      std::this_thread::sleep_for(100us);
    }
  }
  look();
}

void RunHost::NotePending(std::uint64_t pending) {
  std::uint64_t max = maxPending_.load(std::memory_order_relaxed);
  while (pending > max && !maxPending_.compare_exchange_weak(max, pending)) {
  }
}

void RunHost::BeginCycle() { kit_->BeginDrain(); }

void RunHost::RunCycle() {
  if (!kit_->RunCycle(std::chrono::steady_clock::now() + std::chrono::seconds(options_.timeoutS))) {
    throw std::runtime_error("a cycle doesn't end");
  }
}

void RunHost::WaitUntil(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options_.timeoutS);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline)
      throw std::runtime_error("the time for this run is over");
    kit_->DrainTimer().FireNow();
    kit_->Timer().FireNow();
    std::this_thread::sleep_for(1ms);
  }
}

void RunHost::WaitUntilPushed(std::uint64_t items) {
  WaitUntil([&] { return traffic_.pushed.load() >= items; });
}

void RunHost::WaitUntilAcknowledged(std::uint64_t items) {
  WaitUntil([&] { return traffic_.acknowledged.load() >= items; });
}

}  // namespace veld_report::bench
