// TimerService, the host kit's ITimerService: one-shot timers on one thread of their own.
//
// It differs from a thread that sleeps in that arming and disarming never wait for a Run, and in what a flush
// needs: firings can be brought forward, and a Run that began after a given moment can be waited for. Runs of
// all sinks share the one thread, so a sink that blocks holds up the others: give each sender a service of
// its own where that matters.
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
  zel::Ref<zel::ITracer> tracer{};  // may be null; told of an exception that leaves a Run
};

// Make it with MakeObject<TimerService>() or MakeObject<TimerService>(options).
//
// Life: running -> gone with the last Release, which forgets what is pending and waits for a Run in progress,
// unless it comes from that Run: then the thread ends by itself behind it.
// Threads: any, for all operations, also from inside a Run.
class TimerService final : public HostObject<zel::ITimerService> {
 public:
  // Starts the thread. Throws std::system_error if there is none to be had.
  explicit TimerService(TimerOptions options = {});

  zel::ResultCode ReservedTimerOperation0() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedTimerOperation1() override { return zel::eNotImplemented; }
  // An armed sink keeps the earlier of the two times, so a steady stream of calls can't put the firing off.
  // Answers 0x8000006a "Invalid state" while a CancelTimer of this sink waits, 0x80000046 for null.
  zel::ResultCode ArmTimer(zel::IRunnable* sink, std::uint32_t delayMs) override;
  zel::ResultCode DisarmTimer(zel::IRunnable* sink) override;
  // From inside a Run of the sink it doesn't wait; after that the sink must outlive this Run.
  zel::ResultCode CancelTimer(zel::IRunnable* sink) override;

  // Brings every pending firing forward to this moment. Returns their number.
  std::size_t FireNow();
  // For a Run in progress that is being cut short and should soon come again: its sink's next firing comes at
  // most so many milliseconds from here, or from its next ArmTimer. Does nothing and returns false if no Run
  // is in progress, or once it has done so `mostInARow` times for this sink without a firing in between that
  // came at its own time, so a Run that is always cut short doesn't turn into a busy loop.
  bool RunSoon(std::uint32_t delayMs, std::uint32_t mostInARow);
  // Whether any firing is pending. A Run in progress doesn't count.
  bool IsArmed() const;
  // How many Runs have begun, of all sinks.
  std::uint64_t RunsStarted() const;
  // How many Runs ended in an exception.
  std::uint64_t FailedRuns() const;
  // Blocks until a Run has ended that wasn't among the first `startedAfter`, that is, one that began after
  // RunsStarted() gave this number. `deadline` is real time, whatever clock the service goes by. Returns
  // false if there was none by then. Not from inside a Run.
  bool WaitForRun(std::uint64_t startedAfter, std::chrono::steady_clock::time_point deadline);

 protected:
  ~TimerService() override;

 private:
  std::shared_ptr<TimerQueue> queue_;
  std::thread thread_;
};

}  // namespace veld_report::host
