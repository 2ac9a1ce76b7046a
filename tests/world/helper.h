// The other thread of a world. It and the world's own thread take turns: one of them always waits for the
// other, so a world stays deterministic.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace veld_report::world {

class Helper {
 public:
  static Helper& Get();

  // Runs `work` on the other thread, and returns when it has ended or parks. A thread that does neither waits
  // for a lock that the caller's thread holds: that ends the process, with a line on stderr.
  void Do(std::function<void()> work);
  // On the other thread: waits for Resume.
  void Park();
  // Lets it go on, and returns when its work has ended.
  void Resume();
  bool Parked() const { return state_ == State::parked; }

 private:
  enum class State { idle, working, parked, resumed };
  Helper();
  void Loop();
  void AwaitTurn(std::unique_lock<std::mutex>& lock);

  std::mutex lock_;
  std::condition_variable changed_;
  State state_ = State::idle;
  std::function<void()> work_;
  std::thread thread_;
};

}  // namespace veld_report::world
