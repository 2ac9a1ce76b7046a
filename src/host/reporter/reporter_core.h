// Reporter::Core, the implementation of a reporter; its operations are described in reporter.h.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include "host/kit/host_kit.h"
#include "host/kit/memory_meter.h"
#include "host/platform/process.h"
#include "host/reporter/call_gate.h"
#include "host/reporter/flusher.h"
#include "host/reporter/loss_reporter.h"
#include "veld_report/reporter.h"

namespace veld_report {

// Holds the current listener. Shared with the kit's notification, which may outlive the reporter.
class ListenerSlot {
 public:
  void Set(Listener listener);
  void Call(const FinishedRequest& request) const;
  // No call begins after the return, whatever is set later.
  void End();

 private:
  mutable std::mutex mutex_;  // guards the members below; not held while the listener is called
  std::shared_ptr<const Listener> listener_;
  bool ended_ = false;
};

// Life and threads: as for the reporter. Once it is closing, its own thread shares it.
class Reporter::Core : public std::enable_shared_from_this<Core> {
 public:
  // Throws ReporterError.
  explicit Core(ReporterOptions options);

  // True if this process was forked from the one that opened the reporter. Then no lock may be taken: the
  // thread that holds it may not exist here.
  bool IsInherited() const { return host::CurrentProcess() != process_; }
  // Keeps an inherited core as it is for the rest of the process.
  static void Abandon(std::shared_ptr<Core> core) noexcept;

  // Submits `record` or, if it is null, `json`. `error` may be null.
  zel::ResultCode Submit(const zel::AnyPtr* record, std::string_view json, std::string_view consumer,
                         std::string* error) noexcept;
  bool Flush(std::chrono::milliseconds deadline) noexcept;
  bool FlushToStore(std::chrono::milliseconds deadline) noexcept;
  bool Close(std::chrono::milliseconds deadline) noexcept;
  // What the reporter's destructor does.
  void CloseUnlessBegun() noexcept;
  bool IsClosed() const noexcept;
  void SetSettings(const Settings& settings);
  Settings CurrentSettings() const;
  void SetListener(Listener listener);
  void SetLossListener(LossListener listener);
  void AllowSending(bool allowed) noexcept;
  Statistics Stats();
  void Forget();

 private:
  using TimePoint = Flusher::TimePoint;
  class Forgetting;

  void RequireOwn() const;

  // A phrase that says what is wrong, or an empty text.
  std::string CheckConsumer(std::string_view consumer) const;
  void AdoptSettings(const Settings& settings);
  // Whether requests to all endpoints for which something waits are held back beyond `end`.
  bool IsAllHeldBack(TimePoint end) const;
  void BeginClose() noexcept;
  // Everything that a close does; on its own thread.
  void RunClose() noexcept;
  // Returns once that has ended, or at `end`. From then on the thread is on its own.
  void WaitForClose(TimePoint end) noexcept;
  // Changes one of the conditions for sending, and gives the kit the result of all of them.
  void ChangeConsent(bool Core::*part, bool value) noexcept;
  using FlushForm = bool (Flusher::*)(const std::function<TimePoint()>& end);
  bool FlushBy(FlushForm form, std::chrono::milliseconds deadline) noexcept;

  const std::uint64_t process_ = host::CurrentProcess();
  std::shared_ptr<Core> abandoned_;  // itself
  Core* nextAbandoned_ = nullptr;
  const std::chrono::milliseconds closeDeadline_;
  const std::shared_ptr<ListenerSlot> listener_ = std::make_shared<ListenerSlot>();
  // Shared with the store, which may outlive the reporter.
  const std::shared_ptr<LossReporter> losses_ = std::make_shared<LossReporter>();
  CallGate gate_;
  // For Stats, which may be a record apart from what else it reads.
  std::atomic<std::uint64_t> submitted_{0};
  std::atomic<std::uint64_t> refused_{0};

  mutable std::mutex settingsMutex_;  // guards the two members below; held briefly
  Settings settings_;
  std::set<std::string, std::less<>> consumers_;

  // Held while the settings change, so that they change in the same order everywhere.
  std::mutex changeMutex_;

  mutable std::mutex consentMutex_;  // guards the three members below; held while the kit gets the result
  bool sendingAllowed_ = true;       // the application's last choice
  bool forgetting_ = false;
  bool sendingEnded_ = false;  // set by RunClose; the kit no longer takes consent
  std::mutex forgetMutex_;     // held across a Forget

  // Created by the constructor, destroyed with the object; closed by RunClose.
  std::unique_ptr<host::HostKit> kit_;
  std::unique_ptr<Flusher> flusher_;
  std::unique_ptr<host::MemoryMeter> recordsInMemory_;
  std::unique_ptr<host::MemoryMeter> bytesInMemory_;

  // The earliest deadline of any Close. The closing thread polls it, so a later one may still shorten it.
  std::atomic<TimePoint> closeBy_{TimePoint::max()};
  // Read after `closed_`, whose lock publishes it, or before that if the wait for it has timed out.
  std::atomic<bool> flushedAtClose_{false};
  mutable std::mutex closeMutex_;  // guards the members below; held briefly
  bool closing_ = false;
  bool closed_ = false;
  std::condition_variable closedChanged_;
  std::thread closer_;
};

}  // namespace veld_report
