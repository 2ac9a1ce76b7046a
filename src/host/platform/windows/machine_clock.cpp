#include "host/platform/machine_clock.h"

#include <string>

#include "host/platform/windows/wide.h"

namespace veld_report::host {
namespace {

std::int64_t MillisecondsSince1970(const FILETIME& time) noexcept {
  constexpr std::int64_t ticksPerMs = 10'000;
  constexpr std::int64_t from1601Ms = 11'644'473'600'000;
  const auto ticks = std::int64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
  return ticks / ticksPerMs - from1601Ms;
}

std::int64_t CalendarNowMs() noexcept {
  FILETIME now{};
  GetSystemTimePreciseAsFileTime(&now);
  return MillisecondsSince1970(now);
}

// The number of starts, which the system's boot manager counts; a machine without one has none.
std::string ReadBoot() {
  DWORD count = 0;
  DWORD bytes = sizeof count;
  const LSTATUS found = RegGetValueW(
      HKEY_LOCAL_MACHINE,
      LR"(SYSTEM\CurrentControlSet\Control\Session Manager\Memory Management\PrefetchParameters)", L"BootId",
      RRF_RT_REG_DWORD, nullptr, &count, &bytes);
  return found == ERROR_SUCCESS ? "boot-" + std::to_string(count) : std::string();
}

class SystemMachineClock final : public MachineClock {
 public:
  std::string_view Boot() const override { return boot_; }
  std::int64_t UptimeMs() const override { return static_cast<std::int64_t>(GetTickCount64()); }
  std::int64_t AwakeMs() const override {
    ULONGLONG ticks = 0;
    if (!QueryUnbiasedInterruptTime(&ticks)) return UptimeMs();
    return static_cast<std::int64_t>(ticks / 10'000);
  }
  std::int64_t CalendarMs() const override { return CalendarNowMs(); }

 private:
  const std::string boot_ = ReadBoot();
};

}  // namespace

std::shared_ptr<const MachineClock> MachineClock::System() {
  // Never destroyed: a static reporter would outlive it.
  static const auto& clock = *new std::shared_ptr<const MachineClock>(std::make_shared<SystemMachineClock>());
  return clock;
}

std::int64_t CoarseCalendarMs() noexcept {
  FILETIME now{};
  GetSystemTimeAsFileTime(&now);
  return MillisecondsSince1970(now);
}

}  // namespace veld_report::host
