#include "apps/veldrep/serve_log.h"

#include <poll.h>
#include <unistd.h>

#include <utility>

#include "server/record_sink.h"

namespace veld_report::app {
namespace {

constexpr std::size_t maxLines = 1000, maxRecent = 200;
constexpr std::chrono::seconds gatherFor{10}, endPatience{1};
// With its head below what a pipe takes without blocking once it is ready.
constexpr std::size_t maxSentence = 3500;

}  // namespace

ServeLog::ServeLog(int descriptor) : descriptor_(descriptor), thread_([this] { Run(); }) {}

ServeLog::~ServeLog() {
  {
    const Lock lock(mutex_);
    EndRepeated(Clock::time_point::max());
    ended_ = true;
    patienceEnds_ = Clock::now() + endPatience;
  }
  changed_.notify_all();
  thread_.join();
}

void ServeLog::Write(const std::string& sentence) {
  const Lock lock(mutex_);
  const Clock::time_point now = Clock::now();
  EndRepeated(now - gatherFor);
  const auto known = recent_.find(sentence);
  if (known != recent_.end()) {
    ++known->second.more;
    return;
  }
  if (recent_.size() < maxRecent) recent_.emplace(sentence, Repeated{now});
  Enqueue(sentence);
}

void ServeLog::EndRepeated(Clock::time_point before) {
  for (auto each = recent_.begin(); each != recent_.end();) {
    if (each->second.first > before) {
      ++each;
      continue;
    }
    if (each->second.more > 0) Enqueue(std::to_string(each->second.more) + " times more: " + each->first);
    each = recent_.erase(each);
  }
}

void ServeLog::Enqueue(const std::string& sentence) {
  if (lines_.size() >= maxLines) {
    ++dropped_;
    return;
  }
  lines_.push_back(server::TextOfTime(std::chrono::system_clock::now()) +
                   " veldrep: " + sentence.substr(0, maxSentence) + "\n");
  changed_.notify_all();
}

void ServeLog::Run() {
  Lock lock(mutex_);
  for (;;) {
    changed_.wait_for(lock, gatherFor, [this] { return ended_ || !lines_.empty(); });
    EndRepeated(Clock::now() - gatherFor);
    if (lines_.empty() && ended_) return;
    if (lines_.empty()) continue;
    const std::string line = std::move(lines_.front());
    lines_.pop_front();
    // Said once there is room again.
    if (dropped_ > 0 && lines_.size() < maxLines / 2)
      Enqueue(std::to_string(std::exchange(dropped_, 0)) + " lines of the log were dropped; nobody read it");
    lock.unlock();
    const bool written = Put(line);
    lock.lock();
    if (!written) return;
  }
}

bool ServeLog::Put(const std::string& line) {
  pollfd waiting{descriptor_, POLLOUT, 0};
  while (poll(&waiting, 1, 100) <= 0 || (waiting.revents & POLLOUT) == 0) {
    if (IsOver() || (waiting.revents & (POLLERR | POLLNVAL)) != 0) return !IsOver();
  }
  // What a full disk doesn't take is lost.
  [[maybe_unused]] const ssize_t written = write(descriptor_, line.data(), line.size());
  return true;
}

bool ServeLog::IsOver() {
  const Lock lock(mutex_);
  return ended_ && Clock::now() >= patienceEnds_;
}

}  // namespace veld_report::app
