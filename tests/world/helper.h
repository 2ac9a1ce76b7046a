// The other thread of a world. It and the world's own thread take turns: one of them always waits for the
// other, so a world stays deterministic.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <thread>
#include <utility>

namespace veld_report::world {

class Helper {
 public:
  // Runs `work` on the other thread, and returns when it has ended or parks. A thread that does neither waits
  // for a lock that the caller's thread holds: that ends the process, with a line on stderr.
  void Do(std::function<void()> work) {
    GiveTurn([&] {
      thread_ = std::thread([this, work = std::move(work)] {
        work();
        back_.set_value();
      });
    });
  }
  // On the other thread: waits for Resume.
  void Park() {
    go_ = {};
    const auto go = go_.get_future();
    parked_ = true;
    back_.set_value();
    go.wait();
  }
  // Lets it go on, and returns when its work has ended.
  void Resume() {
    parked_ = false;
    GiveTurn([&] { go_.set_value(); });
  }
  bool Parked() const { return parked_; }

 private:
  template <class Start>
  void GiveTurn(Start start) {
    back_ = {};
    const auto back = back_.get_future();
    start();
    if (back.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
      std::fputs("world: another thread can't come in: a lock is held across a call to the host\n", stderr);
      std::abort();
    }
    if (!parked_) thread_.join();
  }

  std::promise<void> back_, go_;
  bool parked_ = false;
  std::thread thread_;
};

}  // namespace veld_report::world
