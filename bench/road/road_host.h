// RoadHost: the kit, its sink and its store, as the modes of the program use them.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "bench/common/record.h"
#include "bench/road/options.h"
#include "bench/road/watched_queues.h"
#include "host/kit/host_kit.h"

namespace veld_report::bench {

// Numbers of records begin here, so that all of them have as many digits.
inline constexpr std::int64_t firstNumber = 10'000'000;

// A folder that goes with the object, unless it was named by the user.
class StoreFolder {
 public:
  explicit StoreFolder(const RoadOptions& options);
  StoreFolder(const StoreFolder&) = delete;
  StoreFolder& operator=(const StoreFolder&) = delete;
  ~StoreFolder();
  const std::filesystem::path& Path() const { return path_; }

 private:
  std::filesystem::path path_;
  const bool kept_;
};

// The urls of a run on the sink at `base`.
std::string UrlOf(const std::string& base, std::uint64_t index);
// Puts options.fill items into the queue of the first url, in a process of its own, so that its memory isn't
// this one's. This process must have one thread. Throws std::runtime_error if that fails.
void FillStore(const RoadOptions& options, const std::filesystem::path& folder, const std::string& base);

// Belongs to one thread but for Submit.
class RoadHost {
 public:
  // Throws std::exception.
  RoadHost(const RoadOptions& options, const std::filesystem::path& folder, const std::string& base);

  // Submits records firstNumber + `from` up to `to`, waiting while too many stand in memory.
  void Submit(std::uint64_t from, std::uint64_t to);
  void AllowSending(bool allowed) { kit_->Mode().AllowBackground(allowed); }
  // Begins a cycle, also where nothing was submitted.
  void BeginCycle();
  // Runs one whole cycle.
  void RunCycle();
  // Waits until `done`, bringing cycles forward. Throws std::runtime_error when options.timeoutS are over.
  void WaitUntil(const std::function<bool()>& done);
  void WaitUntilPushed(std::uint64_t items);
  void WaitUntilAcknowledged(std::uint64_t items);
  void Close() { kit_.reset(); }

  host::HostKit& Kit() { return *kit_; }
  const QueueTraffic& Traffic() const { return traffic_; }
  std::uint64_t MostPending() const { return mostPending_.load(); }

 private:
  void NotePending(std::uint64_t pending);

  const RoadOptions options_;
  QueueTraffic traffic_;
  std::atomic<std::uint64_t> submitted_{0};
  std::atomic<std::uint64_t> mostPending_{0};
  std::unique_ptr<host::HostKit> kit_;
};

}  // namespace veld_report::bench
