// ClaimList: the tokens that a reader has handed out and that are neither acknowledged nor given back.
//
// A reader only moves forward, so its tokens are added in ascending order, and they usually leave in the same
// order. Then each costs a step at one end of an array; a hash map would allocate. One thread at a time;
// queue_store.h locks.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

namespace veld_report::host {

class ClaimList {
 public:
  // `token` is greater than all that were added before.
  void Add(std::uint64_t token, std::int64_t bytes) {
    claims_.push_back({token, bytes});
    bytes_ += bytes;
  }
  bool Contains(std::uint64_t token) const { return Find(token) != claims_.end(); }
  // Removes a claim. Returns the size of its item, or nothing if there is no such claim.
  std::optional<std::int64_t> Take(std::uint64_t token) {
    const auto found = Find(token);
    if (found == claims_.end()) return std::nullopt;
    const std::int64_t bytes = found->bytes;
    bytes_ -= bytes;
    claims_[static_cast<std::size_t>(found - claims_.begin())].bytes = taken;
    while (first_ < claims_.size() && claims_[first_].bytes == taken) ++first_;
    if (first_ * 2 >= claims_.size()) {
      claims_.erase(claims_.begin(), claims_.begin() + static_cast<std::ptrdiff_t>(first_));
      first_ = 0;
    }
    return bytes;
  }
  bool Empty() const { return first_ == claims_.size(); }
  std::int64_t Bytes() const { return bytes_; }
  void Clear() {
    bytes_ = 0;
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
    // Usually the first one.
    const auto found = first->token == token
                           ? first
                           : std::ranges::lower_bound(first, claims_.end(), token, {}, &Claim::token);
    return found != claims_.end() && found->token == token && found->bytes != taken ? found : claims_.end();
  }

  std::vector<Claim> claims_;
  std::size_t first_ = 0;  // the claims before it were taken
  std::int64_t bytes_ = 0;
};

}  // namespace veld_report::host
