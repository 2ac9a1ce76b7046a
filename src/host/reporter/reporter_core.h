// Reporter::Core, what a reporter consists of; reporter.h tells what its operations do.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "host/kit/host_kit.h"
#include "host/kit/memory_meter.h"
#include "host/reporter/call_gate.h"
#include "host/reporter/flusher.h"
#include "veld_report/reporter.h"

namespace veld_report {

// Holds the listener of the moment. It is shared with the kit's notification, which may outlive the rest.
class ListenerSlot {
 public:
  void Set(Listener listener);
  void Call(const FinishedRequest& request) const;

 private:
  mutable std::mutex mutex_;  // guards listener_; not held across a call of it
  std::shared_ptr<const Listener> listener_;
};

// Life, threads: those of the reporter.
class Reporter::Core {
 public:
  // Throws ReporterError.
  explicit Core(ReporterOptions options);
  ~Core();

  // `record` or, if it is null, `json`. `error` may be null.
  zel::ResultCode Submit(const zel::AnyPtr* record, std::string_view json, std::string_view consumer,
                         std::string* error) noexcept;
  bool Flush(std::chrono::milliseconds deadline) noexcept;
  bool FlushToStore(std::chrono::milliseconds deadline) noexcept;
  bool Close(std::chrono::milliseconds deadline) noexcept;
  void SetSettings(const Settings& settings);
  Settings CurrentSettings() const;
  void SetListener(Listener listener) { listener_->Set(std::move(listener)); }
  void AllowSending(bool allowed) noexcept;
  Statistics Stats();
  void Forget();

 private:
  using TimePoint = Flusher::TimePoint;
  class Forgetting;

  // A phrase of what is wrong, or an empty text.
  std::string CheckConsumer(std::string_view consumer) const;
  void AdoptSettings(const Settings& settings);
  void CloseOnce() noexcept;
  // Changes a part of what decides whether may be sent, and gives the sum of it to the kit.
  void ChangeConsent(bool Core::*part, bool value) noexcept;
  using FlushForm = bool (Flusher::*)(const std::function<TimePoint()>& end);
  bool FlushBy(FlushForm form, std::chrono::milliseconds deadline) noexcept;

  const std::chrono::milliseconds closeDeadline_;
  const std::shared_ptr<ListenerSlot> listener_ = std::make_shared<ListenerSlot>();
  CallGate gate_;
  std::atomic<std::uint64_t> submitted_{0};
  std::atomic<std::uint64_t> refused_{0};

  mutable std::mutex settingsMutex_;  // guards the two below, for moments
  Settings settings_;
  std::set<std::string, std::less<>> consumers_;

  std::mutex
      changeMutex_;  // held across a change of the settings, so that they change in one order everywhere

  mutable std::mutex consentMutex_;  // guards the three below; held while the kit is given their sum
  bool sendingAllowed_ = true;       // what the application said last
  bool forgetting_ = false;
  bool sendingEnded_ = false;  // by CloseOnce; the kit isn't there for consent any more
  std::mutex forgetMutex_;     // held across a Forget

  // Created by the constructor, gone with the object; closed by CloseOnce.
  std::unique_ptr<host::HostKit> kit_;
  std::unique_ptr<Flusher> flusher_;
  std::unique_ptr<host::MemoryMeter> memory_;

  std::atomic<TimePoint> closeBy_{TimePoint::max()};  // the earliest end that a Close has asked for
  std::mutex closeMutex_;                             // held across the close; guards the two below
  bool closed_ = false;
  bool flushedAtClose_ = false;
};

}  // namespace veld_report
