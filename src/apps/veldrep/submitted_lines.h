// SubmittedLines knows from which line of the input each record came that isn't known to be stored yet.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

namespace veld_report::app {

// Records are counted from 0, in the order of their submission. One thread at a time.
class SubmittedLines {
 public:
  void Add(std::uint64_t line) { lines_.push_back(line); }
  // How many records there were.
  std::uint64_t Count() const { return forgotten_ + lines_.size(); }
  // `record`: must not be forgotten.
  std::uint64_t LineOf(std::uint64_t record) const { return lines_[record - forgotten_]; }
  // The first `count` records are stored; their lines are forgotten.
  void Forget(std::uint64_t count) {
    for (; forgotten_ < count && !lines_.empty(); ++forgotten_) lines_.pop_front();
  }
  // Whether so many are kept that it is time to see what is stored.
  bool IsLong() const { return lines_.size() > 65536; }

 private:
  std::deque<std::uint64_t> lines_;
  std::uint64_t forgotten_ = 0;
};

}  // namespace veld_report::app
