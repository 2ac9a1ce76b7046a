#include "host/json/utc_time.h"

#include <chrono>

#include "veld_report/field_kinds.h"

namespace veld_report::host {
namespace {

struct Unit {
  std::int64_t ticksPerSecond;
  int digits;
};

Unit UnitOf(std::uint32_t kind) {
  switch (kind) {
    case field_kinds::timeNanoseconds:
      return {1'000'000'000, 9};
    case field_kinds::timeMicroseconds:
      return {1'000'000, 6};
    case field_kinds::timeMilliseconds:
      return {1000, 3};
    default:
      return {1, 0};
  }
}

constexpr std::int64_t secondsPerDay = 86400;

// Writes `value` with leading zeros, followed by `after`.
char* WriteDigits(char* out, std::int64_t value, int digits, char after) {
  for (int i = digits; i-- > 0; value /= 10) out[i] = static_cast<char>('0' + value % 10);
  out[digits] = after;
  return out + digits + 1;
}

}  // namespace

std::string_view WriteUtc(std::uint32_t kind, std::int64_t ticks, UtcText& text) {
  using std::chrono::days;
  using std::chrono::sys_days;
  using std::chrono::year_month_day;
  const Unit unit = UnitOf(kind);
  const std::int64_t ticksPerDay = kind == field_kinds::timeDays ? 1 : unit.ticksPerSecond * secondsPerDay;
  std::int64_t day = ticks / ticksPerDay;
  std::int64_t inDay = ticks % ticksPerDay;
  if (inDay < 0) {
    --day;
    inDay += ticksPerDay;
  }
  constexpr sys_days first = std::chrono::year(0) / 1 / 1, last = std::chrono::year(9999) / 12 / 31;
  if (day < first.time_since_epoch().count() || day > last.time_since_epoch().count()) return {};
  const year_month_day date{sys_days(days(day))};
  const std::int64_t second = inDay / unit.ticksPerSecond;
  char* out = WriteDigits(text.data(), int{date.year()}, 4, '-');
  out = WriteDigits(out, unsigned{date.month()}, 2, '-');
  out = WriteDigits(out, unsigned{date.day()}, 2, 'T');
  out = WriteDigits(out, second / 3600, 2, ':');
  out = WriteDigits(out, second / 60 % 60, 2, ':');
  out = WriteDigits(out, second % 60, 2, unit.digits == 0 ? 'Z' : '.');
  if (unit.digits != 0) out = WriteDigits(out, inDay % unit.ticksPerSecond, unit.digits, 'Z');
  return {text.data(), static_cast<std::size_t>(out - text.data())};
}

}  // namespace veld_report::host
