// RunHost: the kit with its store and its sink, as the modes use them.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "bench/common/record.h"
#include "bench/end_to_end/options.h"
#include "bench/end_to_end/watched_queues.h"
#include "host/kit/host_kit.h"

namespace veld_report::bench {

// The first record number, so that all numbers have the same number of digits.
inline constexpr std::int64_t firstNumber = 10'000'000;

// A folder that is removed with the object, unless the user named it.
class StoreFolder {
 public:
  explicit StoreFolder(const RunOptions& options);
  StoreFolder(const StoreFolder&) = delete;
  StoreFolder& operator=(const StoreFolder&) = delete;
  ~StoreFolder();
  const std::filesystem::path& Path() const { return path_; }

 private:
  std::filesystem::path path_;
  const bool kept_;
};

// The url with that index, on the sink at `base`.
std::string UrlOf(const std::string& base, std::uint64_t index);
// Puts options.fill items into the queue of the first url. It forks a process for that, so that the memory
// isn't counted here; this process must have one thread. Throws std::runtime_error on failure.
void FillStore(const RunOptions& options, const std::filesystem::path& folder, const std::string& base);

// For one thread, except Submit.
class RunHost {
 public:
  // Throws std::exception.
  RunHost(const RunOptions& options, const std::filesystem::path& folder, const std::string& base);

  // Submits records firstNumber + `from` up to `to` and waits while too many are in memory.
  void Submit(std::uint64_t from, std::uint64_t to);
  void AllowSending(bool allowed) { kit_->Mode().AllowBackground(allowed); }
  // Begins a cycle, even if nothing was submitted.
  void BeginCycle();
  // Runs one whole cycle.
  void RunCycle();
  // Triggers cycles until `done` returns true. Throws std::runtime_error after options.timeoutS.
  void WaitUntil(const std::function<bool()>& done);
  void WaitUntilPushed(std::uint64_t items);
  void WaitUntilAcknowledged(std::uint64_t items);
  void Close() { kit_.reset(); }

  host::HostKit& Kit() { return *kit_; }
  const QueueTraffic& Traffic() const { return traffic_; }
  std::uint64_t MaxPending() const { return maxPending_.load(); }

 private:
  void NotePending(std::uint64_t pending);

  const RunOptions options_;
  QueueTraffic traffic_;
  std::atomic<std::uint64_t> submitted_{0};
  std::atomic<std::uint64_t> maxPending_{0};
  std::unique_ptr<host::HostKit> kit_;
};

}  // namespace veld_report::bench
