// Waiting in tests: for a condition and never for a time. All of it gives up in the end, so that a broken
// program fails its test instead of hanging it.
#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <thread>

namespace veld_report::tests {

inline constexpr std::chrono::seconds patience{60};

// Polls, for what another thread or process brings about without a notification. Returns whether the
// condition came true.
inline bool Eventually(const std::function<bool()>& condition, std::chrono::seconds limit = patience) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Opened once; passes everybody who waits for it.
class Gate {
 public:
  void Open() { open_.set_value(); }
  bool WaitOpen() const { return opened_.wait_for(patience) == std::future_status::ready; }

 private:
  std::promise<void> open_;
  const std::shared_future<void> opened_ = open_.get_future().share();
};

}  // namespace veld_report::tests
