// CallGate lets calls in until it is shut. Who shuts it can then wait for the calls inside.
#pragma once

#include <atomic>
#include <mutex>
#include <shared_mutex>

namespace veld_report {

// Life: open -> shut. Threads: any.
class CallGate {
 public:
  // Held by a call while it is inside. False if the gate is shut.
  class Pass {
   public:
    explicit Pass(CallGate& gate) : lock_(gate.mutex_, std::defer_lock) {
      if (gate.IsShut()) return;
      lock_.lock();
      // It may have been shut meanwhile. Without the first test a steady stream of calls could keep
      // WaitUntilEmpty waiting.
      if (gate.IsShut()) lock_.unlock();
    }
    explicit operator bool() const { return lock_.owns_lock(); }

   private:
    std::shared_lock<std::shared_mutex> lock_;
  };

  // For calls that stay inside for a long time: they must leave soon once this is true.
  bool IsShut() const { return shut_.load(std::memory_order_acquire); }
  void Shut() { shut_.store(true, std::memory_order_release); }
  // Returns once no call is inside the shut gate. Not to be called from inside.
  void WaitUntilEmpty() { const std::unique_lock lock(mutex_); }

 private:
  // Of a call and WaitUntilEmpty, one has mutex_ first: either the wait is for the call, or the call then
  // sees that the gate is shut. So the flag's own order only matters to calls that poll it.
  std::atomic<bool> shut_{false};
  std::shared_mutex mutex_;  // shared by the calls inside
};

}  // namespace veld_report
