// What a reporter costs that has little or nothing to do.
#include <stdexcept>
#include <thread>

#include "bench/end_to_end/modes.h"
#include "bench/end_to_end/run_host.h"
#include "bench/end_to_end/sink.h"
#include "veld_report/reporter.h"

namespace veld_report::bench {
namespace {

using std::chrono::seconds;

ReporterOptions OptionsFor(const RunOptions& options, const StoreFolder& folder, const std::string& base) {
  ReporterOptions own;
  own.store = folder.Path();
  own.proxy = "";
  for (std::uint64_t i = 0; i < options.urls; ++i) own.endpoints.push_back({.url = UrlOf(base, i)});
  return own;
}

// For the seconds of the options, with a call of `everySecond` in each.
template <class Action>
Result Watch(const RunOptions& options, Action&& everySecond) {
  const Stopwatch watch;
  const std::uint64_t sleeps = Sleeps();
  const std::uint64_t written = WrittenBytes();
  const auto begin = std::chrono::steady_clock::now();
  for (std::uint64_t second = 1; second <= options.seconds; ++second) {
    everySecond();
    std::this_thread::sleep_until(begin + seconds(second));
  }
  Result result;
  result.Set("wakeUps", Sleeps() - sleeps);
  result.Set("cpuMs", watch.UsedCpuSeconds() * 1e3);
  result.Set("memoryKb", CurrentKb());
  result.Set("ownKb", OwnKb());
  result.Set("writtenBytes", WrittenBytes() - written);
  return result;
}

}  // namespace

Result MeasureIdle(const RunOptions& options) {
  const StoreFolder folder(options);
  const Sink sink(0);
  Reporter reporter(OptionsFor(options, folder, sink.Url()));
  reporter.Send(OpenedOfSize(options.size, firstNumber));
  if (!reporter.Flush(seconds(options.timeoutS))) throw std::runtime_error("the flush doesn't end");
  std::this_thread::sleep_for(seconds(2));
  return Watch(options, [] {});
}

Result MeasureDown(const RunOptions& options) {
  const StoreFolder folder(options);
  // Nobody listens on its port once it has ended.
  const std::string base = Sink(0).Url();
  Reporter reporter(OptionsFor(options, folder, base));
  Opened record = OpenedOfSize(options.size, firstNumber);
  for (std::uint64_t i = 0; i < options.records; ++i, ++record.number) reporter.Send(record);
  if (!reporter.FlushToStore(seconds(options.timeoutS))) throw std::runtime_error("the flush doesn't end");
  return Watch(options, [] {});
}

Result MeasureTrickle(const RunOptions& options) {
  const StoreFolder folder(options);
  const Sink sink(0);
  Reporter reporter(OptionsFor(options, folder, sink.Url()));
  Opened record = OpenedOfSize(options.size, firstNumber);
  reporter.Send(record);
  if (!reporter.Flush(seconds(options.timeoutS))) throw std::runtime_error("the flush doesn't end");
  return Watch(options, [&] {
    ++record.number;
    reporter.Send(record);
  });
}

// The application's own loop costs more than its calls at such rates, so it is also measured alone.
Result MeasurePaced(const RunOptions& options) {
  if (options.rate == 0) throw std::invalid_argument("the mode paced needs a rate");
  const StoreFolder folder(options);
  const Sink sink(0);
  ReporterOptions own = OptionsFor(options, folder, sink.Url());
  own.storeWithin = std::chrono::milliseconds(options.storeWithinMs);
  Reporter reporter(own);
  Opened record = OpenedOfSize(options.size, firstNumber);
  const auto runFor = [&](std::uint64_t time, auto&& call) {
    const auto begin = std::chrono::steady_clock::now();
    for (std::uint64_t i = 1; i <= time * options.rate; ++i) {
      call();
      std::this_thread::sleep_until(begin + std::chrono::nanoseconds(1'000'000'000 / options.rate) * i);
    }
  };
  const auto send = [&] {
    ++record.number;
    reporter.Send(record);
  };
  runFor(2, send);  // until cycles come at their pace
  const Stopwatch watch;
  const std::uint64_t sleeps = Sleeps();
  const std::uint64_t written = WrittenBytes();
  runFor(options.seconds, send);
  const double cpu = watch.UsedCpuSeconds();
  const auto records = static_cast<double>(options.seconds * options.rate);
  Result result;
  result.Set("wakeUpsPerSecond",
             static_cast<double>(Sleeps() - sleeps) / static_cast<double>(options.seconds));
  result.Set("writtenBytesPerRecord", static_cast<double>(WrittenBytes() - written) / records);
  result.SetThreads(records * static_cast<double>(options.seconds + 2) /
                    static_cast<double>(options.seconds));
  if (!reporter.Flush(seconds(options.timeoutS))) throw std::runtime_error("the flush doesn't end");
  const Stopwatch alone;
  runFor(options.seconds, [] {});
  result.Set("loopCpuUs", alone.UsedCpuSeconds() / records * 1e6);
  result.Set("cpuUsPerRecord", cpu / records * 1e6);
  return result;
}

}  // namespace veld_report::bench
