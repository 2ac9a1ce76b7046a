#include "host/platform/machine_clock.h"

#include <time.h>

#include <fstream>
#include <string>

namespace veld_report::host {
namespace {

std::int64_t Milliseconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return std::int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000;
}

class SystemMachineClock final : public MachineClock {
 public:
  SystemMachineClock() {
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::getline(file, boot_);
  }
  std::string_view Boot() const override { return boot_; }
  std::int64_t UptimeMs() const override { return Milliseconds(CLOCK_BOOTTIME); }
  std::int64_t AwakeMs() const override { return Milliseconds(CLOCK_MONOTONIC); }
  std::int64_t CalendarMs() const override { return Milliseconds(CLOCK_REALTIME); }

 private:
  std::string boot_;
};

}  // namespace

std::shared_ptr<const MachineClock> MachineClock::System() {
  // Never destroyed: a static reporter would outlive it.
  static const auto& clock = *new std::shared_ptr<const MachineClock>(std::make_shared<SystemMachineClock>());
  return clock;
}

std::int64_t CoarseCalendarMs() noexcept { return Milliseconds(CLOCK_REALTIME_COARSE); }

}  // namespace veld_report::host
