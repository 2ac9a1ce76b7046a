// The progress bar of send: a line on stderr that is overwritten, and one below it for what is wrong, shown
// only if stderr is a terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace veld_report::app {

struct SendFigures {
  std::uint64_t submitted = 0;  // records
  std::int64_t delivered = 0;   // items: a record counts once for each queue that it goes to
  std::int64_t waiting = 0;     // the same, in memory and in the queues
  std::uint64_t refusedLines = 0;
  double readShare = 0;  // of the input, 0 to 1; 1 if its size isn't known
};

// One thread at a time.
class Progress {
 public:
  Progress();
  ~Progress() { Clear(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Shows the figures if the last time was long enough ago, and below them, if records wait, what `trouble`
  // returns.
  void Show(const SendFigures& figures, const std::function<std::string()>& trouble);
  // Erases the bar, to make way for other text on the terminal.
  void Clear();

 private:
  using Clock = std::chrono::steady_clock;

  const bool terminal_;
  bool shown_ = false;
  Clock::time_point lastShown_{};
  // The rate is measured between two marks, about two seconds apart.
  Clock::time_point markTime_{};
  std::int64_t markDelivered_ = 0;
  double rate_ = 0;
};

}  // namespace veld_report::app
