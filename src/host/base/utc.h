// A point in time as calendar and clock show it in UTC. Threads: any; needs no lock and no allocation.
#pragma once

#include <chrono>
#include <cstdint>

namespace veld_report::host {

struct UtcTime {
  int year;
  int month;  // 1 to 12
  int day;    // 1 to 31
  int hour;
  int minute;
  int second;
};

// `seconds`: since 1970.
inline UtcTime UtcOf(std::int64_t seconds) {
  const std::chrono::sys_seconds time{std::chrono::seconds(seconds)};
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(time - day);
  return {static_cast<int>(date.year()),
          static_cast<int>(static_cast<unsigned>(date.month())),
          static_cast<int>(static_cast<unsigned>(date.day())),
          static_cast<int>(clock.hours().count()),
          static_cast<int>(clock.minutes().count()),
          static_cast<int>(clock.seconds().count())};
}

}  // namespace veld_report::host
