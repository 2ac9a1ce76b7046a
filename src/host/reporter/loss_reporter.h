// LossReporter collects what the store loses and passes it to the application's listener.
//
// The store reports each item while it holds its lock, so here it is only added up. A thread calls the
// listener, which may take its time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "veld_report/loss.h"

namespace veld_report {

// Life: collecting -> ended. Threads: any, except for the destructor.
class LossReporter {
 public:
  LossReporter() = default;
  LossReporter(const LossReporter&) = delete;
  LossReporter& operator=(const LossReporter&) = delete;
  ~LossReporter() { End(); }

  // Also gets what was lost before and not reported yet. Throws std::bad_alloc and std::system_error.
  void SetListener(LossListener listener);
  // Names the queues of these urls, in addition to those known.
  void AddUrls(const std::vector<std::string>& urls);
  void AddQueue(const std::string& queueName, const std::string& url);

  // Returns at once. If memory runs out, the loss isn't reported. `queueName` may be empty.
  void Note(const std::string& queueName, LossReason reason, ItemCount count,
            const std::string& why) noexcept;

  // Reports what hasn't been reported yet, and ends the thread.
  void End();
  // No call begins after the return.
  void Silence();

 private:
  struct Pending {
    ItemCount count;
    std::string why;
  };
  using Losses = std::map<std::pair<std::string, LossReason>, Pending>;

  void Run();
  void Report(const Losses& losses);

  std::mutex mutex_;  // guards the members below; not held while the listener is called
  std::condition_variable changed_;
  std::map<std::string, std::string> urls_;  // by the name of the queue
  Losses losses_;
  LossListener listener_;
  bool ending_ = false;
  std::thread thread_;  // exists once there is a listener
};

}  // namespace veld_report
