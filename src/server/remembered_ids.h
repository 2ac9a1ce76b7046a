// RememberedIds: the latest ids of records, up to a number of them.
//
// It differs from a plain set in that it has a bound: the oldest id goes when another one comes. One of 36
// bytes takes about 140 bytes of memory. Threads: one at a time.
#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <unordered_set>

namespace veld_report::server {

class RememberedIds {
 public:
  explicit RememberedIds(std::size_t limit) : limit_(limit) {}
  RememberedIds(const RememberedIds&) = delete;
  RememberedIds& operator=(const RememberedIds&) = delete;

  std::size_t Limit() const { return limit_; }
  bool Contains(const std::string& id) const { return ids_.contains(id); }
  // An id that it has stays as old as it is.
  void Add(std::string id) {
    const auto [place, isNew] = ids_.insert(std::move(id));
    if (!isNew) return;
    byAge_.push_back(&*place);
    for (; byAge_.size() > limit_; byAge_.pop_front()) ids_.erase(ids_.find(*byAge_.front()));
  }

 private:
  const std::size_t limit_;
  std::unordered_set<std::string> ids_;
  std::deque<const std::string*> byAge_;  // point into ids_
};

}  // namespace veld_report::server
