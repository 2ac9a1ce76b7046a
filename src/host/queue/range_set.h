// RangeSet: a set of numbers, kept as the ranges that it consists of. For numbers that come in long runs, as
// the positions of acknowledged items do: adding the next one, and asking for one beyond the last range,
// costs a comparison.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace veld_report::host {

class RangeSet {
 public:
  struct Range {
    std::uint64_t first;
    std::uint64_t last;
    bool operator==(const Range&) const = default;
  };

  // Ascending, with a gap between any two.
  const std::vector<Range>& Ranges() const { return ranges_; }
  bool Empty() const { return ranges_.empty(); }
  void Clear() { ranges_.clear(); }
  bool operator==(const RangeSet&) const = default;

  void Add(std::uint64_t number) { Add(number, number); }
  // Does nothing if `last` is below `first`.
  void Add(std::uint64_t first, std::uint64_t last) {
    if (last < first) return;
    if (!ranges_.empty() && first == ranges_.back().last + 1) {
      ranges_.back().last = last;
      return;
    }
    // Those that overlap with the new one or touch it become one with it.
    const auto from = std::ranges::lower_bound(ranges_, first, {}, [](const Range& r) { return r.last + 1; });
    auto to = from;
    while (to != ranges_.end() && to->first <= last + 1) ++to;
    if (from == to) {
      ranges_.insert(from, {first, last});
      return;
    }
    from->first = std::min(from->first, first);
    from->last = std::max((to - 1)->last, last);
    ranges_.erase(from + 1, to);
  }
  void Add(const RangeSet& other) {
    for (const Range& range : other.ranges_) Add(range.first, range.last);
  }
  void RemoveUpTo(std::uint64_t last) {
    const auto end = std::ranges::upper_bound(ranges_, last, {}, &Range::last);
    ranges_.erase(ranges_.begin(), end);
    if (!ranges_.empty()) ranges_.front().first = std::max(ranges_.front().first, last + 1);
  }

  bool Contains(std::uint64_t number) const { return NextOutside(number) != number; }
  // The first number from `from` on that isn't in the set.
  std::uint64_t NextOutside(std::uint64_t from) const {
    if (ranges_.empty() || from > ranges_.back().last) return from;
    const auto at = std::ranges::lower_bound(ranges_, from, {}, &Range::last);
    return at->first <= from ? at->last + 1 : from;
  }
  // The numbers from `first` to `last` that aren't in the set.
  RangeSet Missing(std::uint64_t first, std::uint64_t last) const {
    RangeSet result;
    for (const Range& range : ranges_) {
      if (range.first > last) break;
      result.Add(first, range.first - 1);
      first = std::max(first, range.last + 1);
    }
    result.Add(first, last);
    return result;
  }
  std::uint64_t Count() const {
    std::uint64_t count = 0;
    for (const Range& range : ranges_) count += range.last - range.first + 1;
    return count;
  }

 private:
  std::vector<Range> ranges_;
};

}  // namespace veld_report::host
