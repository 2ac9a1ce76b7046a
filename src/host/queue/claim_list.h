// ClaimList, the tokens that a reader has handed out and that are neither acknowledged nor given back.
//
// A reader moves forward, so its tokens come in ascending order, and as a rule they leave in the same order:
// then each costs a step at one end of an array, where a hash map would allocate for it.
// One thread at a time; queue_store.h locks.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

namespace veld_report::host {

class ClaimList {
 public:
  // `token` is above all that were added before.
  void Add(std::uint64_t token, std::int64_t bytes) { claims_.push_back({token, bytes}); }
  bool Contains(std::uint64_t token) const { return Find(token) != claims_.end(); }
  // Takes a claim out. Returns the size of its item, or nothing where there is no such claim.
  std::optional<std::int64_t> Take(std::uint64_t token) {
    const auto found = Find(token);
    if (found == claims_.end()) return std::nullopt;
    const std::int64_t bytes = found->bytes;
    claims_[static_cast<std::size_t>(found - claims_.begin())].bytes = taken;
    while (first_ < claims_.size() && claims_[first_].bytes == taken) ++first_;
    if (first_ * 2 >= claims_.size()) {
      claims_.erase(claims_.begin(), claims_.begin() + static_cast<std::ptrdiff_t>(first_));
      first_ = 0;
    }
    return bytes;
  }
  bool Empty() const { return first_ == claims_.size(); }
  void Clear() {
    claims_.clear();
    first_ = 0;
  }

 private:
  static constexpr std::int64_t taken = -1;
  struct Claim {
    std::uint64_t token;
    std::int64_t bytes;
  };

  std::vector<Claim>::const_iterator Find(std::uint64_t token) const {
    const auto first = claims_.begin() + static_cast<std::ptrdiff_t>(first_);
    if (first == claims_.end()) return first;
    // The next in line, mostly.
    const auto found = first->token == token
                           ? first
                           : std::ranges::lower_bound(first, claims_.end(), token, {}, &Claim::token);
    return found != claims_.end() && found->token == token && found->bytes != taken ? found : claims_.end();
  }

  std::vector<Claim> claims_;
  std::size_t first_ = 0;  // what stands before it has been taken
};

}  // namespace veld_report::host
