// MachineClock: what the machine knows of time. For what must be known across restarts of the process.
//
// It differs from Clock (clock.h) in that its times can be compared between processes, and that one of them
// goes on while the machine sleeps. Not for delays.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

namespace veld_report::host {

// Threads: any.
class MachineClock {
 public:
  virtual ~MachineClock() = default;
  // Another text after each start of the machine, and empty if the machine has none. Lasts as long as the
  // object.
  virtual std::string_view Boot() const = 0;
  // Milliseconds since that start, including sleep. Nobody can set it.
  virtual std::int64_t UptimeMs() const = 0;
  // The same without sleep.
  virtual std::int64_t AwakeMs() const = 0;
  // Milliseconds since 1970, by a clock that anybody may have set to anything.
  virtual std::int64_t CalendarMs() const = 0;

  // The clock of this machine.
  static std::shared_ptr<const MachineClock> System();
};

// The calendar's time, milliseconds since 1970, a few milliseconds late at most; cheaper than any other
// clock.
std::int64_t CoarseCalendarMs() noexcept;

}  // namespace veld_report::host
