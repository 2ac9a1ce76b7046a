// ServerCounters: what a server has done since its start, exactly, and as text for Prometheus.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "server/report_server.h"
#include "server/server_observer.h"

namespace veld_report::server {

struct ServerTotals {
  std::uint64_t messages = 0;  // stored ones
  std::uint64_t records = 0, repeated = 0;
  std::uint64_t bodyBytes = 0;  // of all bodies that were read, refused ones too
  std::uint64_t refused = 0;
  std::array<std::uint64_t, refusalCount> byReason{};
  std::array<std::uint64_t, cutCount> cut{};  // connections
};

// Threads: any. The figures of one text may be a request apart.
class ServerCounters {
 public:
  void Stored(const StoreResult& result, std::size_t bodyBytes, std::chrono::nanoseconds sinkTime);
  void Refused(unsigned status, RefusalReason reason, std::size_t bodyBytes);
  void Cut(CutReason reason) { ++cut_[static_cast<std::size_t>(reason)]; }
  void SkippedByPage(std::uint64_t records) { skipped_ += records; }

  ServerTotals Totals() const;
  std::uint64_t Skipped() const { return skipped_; }
  // The seconds that half of the sink's calls, or another share of them, didn't exceed: the upper end of a
  // class of the histogram. 0 before the first.
  double SinkSeconds(double share) const;
  // The text exposition format, version 0.0.4.
  std::string MetricsText(const ServerLoad& load) const;
  std::chrono::system_clock::time_point Started() const { return started_; }

 private:
  using Counter = std::atomic<std::uint64_t>;  // a figure; publishes nothing
  static constexpr std::array<double, 13> sinkClasses{0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                                                      0.1,    0.25,  0.5,    1.0,   2.5,  5.0};
  static constexpr unsigned statusLimit = 600;

  const std::chrono::system_clock::time_point started_ = std::chrono::system_clock::now();
  std::array<Counter, statusLimit> byStatus_{};
  std::array<Counter, refusalCount> byReason_{};
  std::array<Counter, cutCount> cut_{};
  std::array<Counter, sinkClasses.size() + 1> sinkTimes_{};  // the last is for all above
  Counter sinkNanoseconds_{0}, records_{0}, repeated_{0}, bodyBytes_{0}, skipped_{0};
};

}  // namespace veld_report::server
