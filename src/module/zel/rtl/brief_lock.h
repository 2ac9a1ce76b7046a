// BriefLock: a recursive lock for what many threads hold for a moment.
//
// Whoever finds it taken tries again for 20 us at most before going to sleep: that is what sleeping and being
// woken cost, and many times what the lock is held for. Not for a lock that is held across something slow.
#pragma once

#include <atomic>
#include <mutex>

namespace zel {

class BriefLock {
 public:
  void lock() {
    for (int tries = 0; tries < maxTries; ++tries) {
      if (mutex_.try_lock()) return;
      // Each trial takes the cache line from the thread that is about to unlock, so not without a pause. The
      // fence is no instruction; it only keeps the compiler from dropping the loop.
      for (int i = 0; i < pause; ++i) std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    mutex_.lock();
  }
  void unlock() { mutex_.unlock(); }

 private:
  static constexpr int maxTries = 400;
  static constexpr int pause = 100;

  std::recursive_mutex mutex_;
};

}  // namespace zel
