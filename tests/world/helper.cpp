#include "tests/world/helper.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace veld_report::world {

Helper& Helper::Get() {
  // Never destroyed: its thread runs to the end of the process.
  static Helper* const helper = new Helper();
  return *helper;
}

Helper::Helper() : thread_([this] { Loop(); }) { thread_.detach(); }

void Helper::Loop() {
  for (;;) {
    {
      std::unique_lock lock(lock_);
      changed_.wait(lock, [&] { return state_ == State::working; });
    }
    work_();
    work_ = nullptr;
    const std::lock_guard lock(lock_);
    state_ = State::idle;
    changed_.notify_all();
  }
}

void Helper::AwaitTurn(std::unique_lock<std::mutex>& lock) {
  changed_.notify_all();
  const auto done = [&] { return state_ == State::idle || state_ == State::parked; };
  if (changed_.wait_for(lock, std::chrono::seconds(10), done)) return;
  std::fputs("world: another thread can't come in: a lock is held across a call to the host\n", stderr);
  std::abort();
}

void Helper::Do(std::function<void()> work) {
  std::unique_lock lock(lock_);
  work_ = std::move(work);
  state_ = State::working;
  AwaitTurn(lock);
}

void Helper::Park() {
  std::unique_lock lock(lock_);
  state_ = State::parked;
  changed_.notify_all();
  changed_.wait(lock, [&] { return state_ == State::resumed; });
}

void Helper::Resume() {
  std::unique_lock lock(lock_);
  state_ = State::resumed;
  AwaitTurn(lock);
}

}  // namespace veld_report::world
