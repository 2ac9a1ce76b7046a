#include "bench/end_to_end/modes.h"

#include <algorithm>
#include <iterator>
#include <random>
#include <thread>
#include <vector>

#include "bench/end_to_end/run_host.h"
#include "bench/end_to_end/sink.h"
#include "host/queue/store_folder.h"
#include "host/services/queue_name.h"
#include "veld_report/reporter.h"

namespace veld_report::bench {
namespace {

Sink SinkFor(const RunOptions& options) { return Sink(static_cast<std::uint16_t>(options.port)); }

double Middle(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// Records that are all the same would shrink too well.
void Vary(Opened* record, std::minstd_rand& random) {
  constexpr const char* events[] = {"document_opened", "document_saved", "page_printed", "file_exported"};
  record->event = events[random() % std::size(events)];
  record->document = "/home/user/reports/" + std::to_string(random() % 100'000) + "-final.docx";
  record->durationMs = static_cast<double>(random() % 100'000) / 100;
}

// The cost of `items` records.
void SetCost(Result& result, double items, double wallSeconds, double cpuSeconds) {
  result.Set("seconds", wallSeconds);
  result.Set("recordsPerSecond", items / wallSeconds);
  result.Set("cpuUsPerRecord", cpuSeconds / items * 1e6);
}

}  // namespace

Result MeasureEndToEnd(const RunOptions& options) {
  const StoreFolder folder(options);
  const Sink sink = SinkFor(options);
  RunHost host(options, folder.Path(), sink.Url());
  ResetPeak();

  const std::uint64_t written = WrittenBytes();
  const Stopwatch watch;
  host.Submit(0, options.records);
  const double submitted = watch.WallSeconds();
  host.WaitUntilPushed(options.records);
  const double stored = watch.WallSeconds();
  host.WaitUntilAcknowledged(options.records);
  const double wall = watch.WallSeconds();
  const double cpu = watch.UsedCpuSeconds();

  Result result;
  SetCost(result, static_cast<double>(options.records), wall, cpu);
  result.Set("submittedAfterS", submitted);
  result.Set("storedAfterS", stored);
  result.Set("maxPending", host.MaxPending());
  result.Set("peakKb", PeakKb());
  result.Set("writtenBytesPerRecord",
             static_cast<double>(WrittenBytes() - written) / static_cast<double>(options.records));
  result.SetThreads(static_cast<double>(options.records));
  return result;
}

// As in an application: a record that is refused because memory is full is offered again, and a flush ends
// the run.
Result MeasureReporter(const RunOptions& options) {
  const StoreFolder folder(options);
  const Sink sink = SinkFor(options);
  ReporterOptions reporterOptions;
  reporterOptions.store = folder.Path();
  reporterOptions.endpoints = {{.url = UrlOf(sink.Url(), 0)}};
  reporterOptions.packetLimit = static_cast<std::uint32_t>(options.packet);
  reporterOptions.queueLimitKb = static_cast<std::uint32_t>(options.queueLimitKb);
  if (options.pending != 0) reporterOptions.memoryLimitRecords = options.pending;
  if (!options.compress.empty()) {
    reporterOptions.stamp = true;
    reporterOptions.endpoints[0].compress = options.compress;
  }
  Reporter reporter(reporterOptions);
  ResetPeak();

  const Stopwatch watch;
  Opened record = OpenedOfSize(options.size, firstNumber);
  std::minstd_rand random(1);
  for (std::uint64_t i = 0; i < options.records; ++i, ++record.number) {
    if (!options.compress.empty()) Vary(&record, random);
    zel::ResultCode code = reporter.TrySend(record);
    while (code == zel::eOutOfSpace) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      code = reporter.TrySend(record);
    }
    if (zel::Failed(code)) throw std::runtime_error("a record is refused");
  }
  const double submitted = watch.WallSeconds();
  if (!reporter.Flush(std::chrono::seconds(options.timeoutS)))
    throw std::runtime_error("the flush doesn't end");
  Result result;
  SetCost(result, static_cast<double>(options.records), watch.WallSeconds(), watch.UsedCpuSeconds());
  result.Set("submittedAfterS", submitted);
  result.Set("peakKb", PeakKb());
  result.Set("wireBytesPerRecord",
             static_cast<double>(sink.ReceivedBytes()) / static_cast<double>(options.records));
  return result;
}

Result MeasurePush(const RunOptions& options) {
  const StoreFolder folder(options);
  const Sink sink = SinkFor(options);
  FillStore(options, folder.Path(), sink.Url());
  RunHost host(options, folder.Path(), sink.Url());
  host.AllowSending(false);
  ResetPeak();

  const Stopwatch watch;
  host.Submit(0, options.records);
  host.WaitUntilPushed(options.records);
  host.Kit().Queues().Commit();
  Result result;
  SetCost(result, static_cast<double>(options.records), watch.WallSeconds(), watch.UsedCpuSeconds());
  result.Set("maxPending", host.MaxPending());
  result.Set("peakKb", PeakKb());
  return result;
}

Result MeasureDrain(const RunOptions& options) {
  const Sink sink = SinkFor(options);
  std::vector<double> walls, cpus;
  std::uint64_t peak = 0;
  const StoreFolder folder(options);
  for (std::uint64_t round = 0; round < options.rounds; ++round) {
    FillStore(options, folder.Path(), sink.Url());
    RunHost host(options, folder.Path(), sink.Url());
    const auto waiting = static_cast<std::uint64_t>(host.Kit().Queues().TotalWaiting().items);
    if (waiting == 0) throw std::runtime_error("drain: nothing waits in the store");
    ResetPeak();
    const Stopwatch watch;
    host.BeginCycle();
    host.WaitUntilAcknowledged(waiting);
    walls.push_back(watch.WallSeconds() / static_cast<double>(waiting));
    cpus.push_back(watch.UsedCpuSeconds() / static_cast<double>(waiting));
    peak = std::max(peak, PeakKb());
  }
  Result result;
  SetCost(result, 1, Middle(walls), Middle(cpus));
  result.Set("peakKb", peak);
  return result;
}

Result MeasureEviction(const RunOptions& options) {
  constexpr std::uint64_t fullKb = 2048;
  Result result;
  double cost[2] = {};
  for (const bool full : {false, true}) {
    RunOptions one = options;
    one.queueLimitKb = full ? fullKb : options.queueLimitKb;
    one.fill = full ? fullKb * 1024 / options.size : 0;
    const StoreFolder folder(one);
    const Sink sink = SinkFor(one);
    FillStore(one, folder.Path(), sink.Url());
    RunHost host(one, folder.Path(), sink.Url());
    host.AllowSending(false);
    host.Submit(0, one.records);
    const std::uint64_t early = host.Traffic().pushed.load();
    const Stopwatch watch;
    host.WaitUntilPushed(one.records);
    host.Kit().Queues().Commit();
    const double cpu = watch.UsedCpuSeconds();
    if (early > one.records / 10)
      throw std::runtime_error("evict: a cycle came too early; take fewer records");
    const auto evicted = static_cast<std::uint64_t>(
        host.Kit().Queues().Ledgers().at(host::QueueNameOfUrl(UrlOf(sink.Url(), 0))).evicted.items);
    if (full && evicted + 100 < one.records) throw std::runtime_error("evict: the queue wasn't full");
    cost[full] = cpu / static_cast<double>(one.records - early) * 1e6;
  }
  result.Set("emptyCpuUsPerPush", cost[0]);
  result.Set("fullCpuUsPerPush", cost[1]);
  result.Set("ratio", cost[1] / cost[0]);
  return result;
}

Result MeasureStart(const RunOptions& options) {
  const StoreFolder folder(options);
  const Sink sink = SinkFor(options);
  FillStore(options, folder.Path(), sink.Url());
  const auto begin = std::chrono::steady_clock::now();
  RunHost host(options, folder.Path(), sink.Url());
  const auto opened = std::chrono::steady_clock::now();
  host.BeginCycle();
  host.WaitUntil([&] { return host.Traffic().firstReadNs.load() != 0; });
  host.AllowSending(false);
  const std::chrono::nanoseconds first(host.Traffic().firstReadNs.load());
  Result result;
  result.Set("openMs", std::chrono::duration<double, std::milli>(opened - begin).count());
  result.Set("firstReadMs",
             std::chrono::duration<double, std::milli>(first - begin.time_since_epoch()).count());
  return result;
}

Result MeasureQueues(const RunOptions& options) {
  const StoreFolder folder(options);
  const Sink sink = SinkFor(options);
  RunHost host(options, folder.Path(), sink.Url());
  // One record for each url first, so that every queue exists.
  host.Submit(0, options.urls);
  host.WaitUntilAcknowledged(options.urls);
  std::vector<double> walls, cpus;
  for (std::uint64_t round = 0; round < options.rounds; ++round) {
    host.AllowSending(false);
    const std::uint64_t pushed = host.Traffic().pushed.load();
    const std::uint64_t acknowledged = host.Traffic().acknowledged.load();
    // Records go round-robin to the urls. `active` numbers from a multiple of `urls` on therefore reach the
    // first `active` urls.
    for (std::uint64_t i = 0; i < options.records; ++i) {
      host.Submit(i * options.urls, i * options.urls + options.active);
    }
    host.WaitUntilPushed(pushed + options.records * options.active);
    host.RunCycle();
    host.AllowSending(true);
    const Stopwatch watch;
    host.RunCycle();
    walls.push_back(watch.WallSeconds());
    cpus.push_back(watch.UsedCpuSeconds());
    host.WaitUntilAcknowledged(acknowledged + options.records * options.active);
  }
  Result result;
  result.Set("cycleWallUs", Middle(walls) * 1e6);
  result.Set("cycleCpuUs", Middle(cpus) * 1e6);
  return result;
}

Result FillOnly(const RunOptions& options) {
  const StoreFolder folder(options);
  const Sink sink = SinkFor(options);
  const Stopwatch watch;
  FillStore(options, folder.Path(), sink.Url());
  Result result;
  result.Set("seconds", watch.WallSeconds());
  const auto file = host::StoreFilePath(folder.Path(), std::string(host::defaultDomain));
  result.Set("fileBytesPerItem", static_cast<double>(std::filesystem::file_size(file)) /
                                     static_cast<double>(std::max<std::uint64_t>(options.fill, 1)));
  return result;
}

}  // namespace veld_report::bench
