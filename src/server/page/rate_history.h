// RateHistory: how many records and messages came in each second of the last five minutes, each ten seconds
// of the last hour and each five minutes of the last day. Its size is fixed: 948 counts.
#pragma once

#include <array>
#include <cstdint>
#include <deque>

namespace veld_report::server {

struct RateSample {
  std::uint64_t records = 0, messages = 0, refused = 0;
};

// Threads: one at a time.
class RateHistory {
 public:
  struct Level {
    std::int64_t stepSeconds;
    std::size_t steps;
    std::int64_t latest = 0;  // the number of the latest step since 1970
    std::deque<RateSample> samples{};
  };

  // Counts what has come since the previous call. `second`: since 1970. Time that has gone back counts for
  // the latest step.
  void Add(std::int64_t second, const RateSample& more);
  const std::array<Level, 3>& Levels() const { return levels_; }

 private:
  std::array<Level, 3> levels_{{{1, 300}, {10, 360}, {300, 288}}};
};

}  // namespace veld_report::server
