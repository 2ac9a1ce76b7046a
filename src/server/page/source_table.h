// SourceTable: for each url that messages came by, how many, how fast, and when the last one was.
//
// Exact for the first 200 urls, which are those of most installations; the others share one row.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "server/record_sink.h"

namespace veld_report::server {

struct SourceFigures {
  std::string host, path;  // both empty: all others
  std::uint64_t messages = 0, records = 0, repeated = 0;
  double recordsASecond = 0;  // over the last minute
  std::chrono::system_clock::time_point lastSeen;
};

// Threads: any.
class SourceTable {
 public:
  static constexpr std::size_t maxSources = 200;

  // Throws std::bad_alloc.
  void Count(std::string_view host, std::string_view path, const StoreResult& result);
  std::vector<SourceFigures> Figures() const;

 private:
  static constexpr std::size_t slots = 12;
  static constexpr std::int64_t slotSeconds = 5;

  struct Source {
    SourceFigures figures;
    std::int64_t first = 0, latest = 0;  // slots since the clock's beginning
    std::array<std::uint64_t, slots> records{};

    void Advance(std::int64_t slot);
  };

  mutable std::mutex mutex_;  // guards the members below
  std::unordered_map<std::string, Source> sources_;
};

}  // namespace veld_report::server
