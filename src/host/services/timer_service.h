// TimerService: the host kit's ITimerService, with one-shot timers on a thread of its own.
//
// It differs from a sleeping thread in that arming and disarming never wait for a Run. It also offers what a
// flush needs: pending calls can be made at once, and a caller can wait for a Run that began after a given
// moment. All sinks share the one thread, so a blocking sink holds up the others; if that matters, give each
// sender its own service.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>

#include "contract/timer.h"
#include "contract/tracer.h"
#include "host/base/clock.h"
#include "host/base/host_object.h"

namespace veld_report::host {

class TimerQueue;

struct TimerOptions {
  std::shared_ptr<Clock> clock{};   // null: the machine's
  zel::Ref<zel::ITracer> tracer{};  // may be null; traces an exception that leaves a Run
  // A longer delay given to ArmTimer is cut to this one.
  std::chrono::milliseconds maxDelay = std::chrono::milliseconds::max();
};

// Make it with MakeObject<TimerService>() or MakeObject<TimerService>(options).
//
// Life: running -> gone with the last Release. That drops what is pending and waits for a Run in progress. If
// it comes from that Run, it doesn't wait, and the thread ends by itself after it.
// Threads: any, for all operations, even inside a Run.
class TimerService final : public HostObject<zel::ITimerService> {
 public:
  // Starts the thread. Throws std::system_error if that fails.
  explicit TimerService(TimerOptions options = {});

  zel::ResultCode ReservedTimerOperation0() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedTimerOperation1() override { return zel::eNotImplemented; }
  // An armed sink keeps the earlier of the two times, so a steady stream of calls can't postpone a Run.
  // Returns 0x8000006a "Invalid state" while a CancelTimer of this sink is waiting, 0x80000046 for null.
  zel::ResultCode ArmTimer(zel::IRunnable* sink, std::uint32_t delayMs) override;
  zel::ResultCode DisarmTimer(zel::IRunnable* sink) override;
  // Inside a Run of the sink it doesn't wait; the sink must then outlive this Run.
  zel::ResultCode CancelTimer(zel::IRunnable* sink) override;

  // Makes every pending call due now. Returns their number.
  std::size_t FireNow();
  // The sink that is running, or ran last, runs again within `delayMs`, even if it doesn't arm itself.
  // Returns false if there is none, or if it was cancelled. For a host that knows better than its sender when
  // there is something to do.
  bool RunWithin(std::uint32_t delayMs);
  // True if any call is pending. A Run in progress doesn't count.
  bool IsArmed() const;
  // The number of Runs that have begun, over all sinks.
  std::uint64_t RunsStarted() const;
  // The number of Runs that ended in an exception.
  std::uint64_t FailedRuns() const;
  // Blocks until a Run has ended that wasn't among the first `startedAfter`, that is, one that began after
  // RunsStarted() returned this number. `deadline` is real time, whatever the service's clock. Returns false
  // if there was none by then. Not to be called inside a Run.
  bool WaitForRun(std::uint64_t startedAfter, std::chrono::steady_clock::time_point deadline);

 protected:
  ~TimerService() override;

 private:
  std::shared_ptr<TimerQueue> queue_;
  std::thread thread_;
};

}  // namespace veld_report::host
