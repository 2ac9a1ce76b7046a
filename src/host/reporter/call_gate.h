// CallGate lets calls in until it is shut; shutting it waits for the calls inside.
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
    explicit Pass(CallGate& gate) : mutex_(gate.inside_, std::defer_lock) {
      if (gate.IsShut()) return;
      mutex_.lock();
      // It may have been shut meanwhile. Without the first test a steady stream of calls could keep Shut
      // waiting.
      if (gate.IsShut()) mutex_.unlock();
    }
    explicit operator bool() const { return mutex_.owns_lock(); }

   private:
    std::shared_lock<std::shared_mutex> mutex_;
  };

  // For calls that stay inside for a long time: they must leave soon once this is true.
  bool IsShut() const { return shut_.load(std::memory_order_acquire); }
  // Returns once no call is inside. Not to be called from inside.
  void Shut() {
    shut_.store(true, std::memory_order_release);
    const std::unique_lock waitsForAll(inside_);
  }

 private:
  std::atomic<bool> shut_{false};
  std::shared_mutex inside_;
};

}  // namespace veld_report
