// RememberedIds: the latest ids of records, up to a number of them.
//
// It differs from a plain set in that it has a bound: the oldest id goes when another one comes. And it is
// laid out for caches, since each record of a server asks it: the ids lie in the order of their age, and a
// look-up reads one place of a table of numbers. Ids are added for the time being first, since their records
// aren't safe yet. An id takes 90 to 120 bytes of memory. Threads: one at a
// time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace veld_report::server {

class RememberedIds {
 public:
  static constexpr std::size_t maxIdBytes = 64;

  explicit RememberedIds(std::size_t limit) : limit_(limit), places_(64) {}
  RememberedIds(const RememberedIds&) = delete;
  RememberedIds& operator=(const RememberedIds&) = delete;

  std::size_t Limit() const { return limit_; }
  bool Contains(std::string_view id) const {
    const std::uint32_t hash = Hash(id);
    return IsUsed(Find(id, hash));
  }
  // Adds the id for the time being, above the limit too: until Keep or Withdraw. False if it has it already;
  // then the id stays as old as it is. Of more than the limit between two Keeps, the rest isn't added. At
  // most `maxIdBytes`.
  bool Add(std::string_view id) {
    if (id.size() > maxIdBytes) throw std::length_error("an id is too long");
    const std::uint32_t hash = Hash(id);
    std::size_t at = Find(id, hash);
    if (IsUsed(at)) return false;
    if (fresh_ == limit_) return true;
    if (2 * byAge_.size() >= places_.size()) {
      Grow();
      at = Find(id, hash);
    }
    Id& added = byAge_.emplace_back();
    added.hash = hash;
    added.length = static_cast<unsigned char>(id.size());
    std::memcpy(added.text, id.data(), id.size());
    places_[at] = {hash, first_ + static_cast<std::uint32_t>(byAge_.size() - 1)};
    ++fresh_;
    return true;
  }
  // Keeps what was added, and forgets the oldest above the limit.
  void Keep() {
    fresh_ = 0;
    for (; byAge_.size() > limit_; ++first_) {
      Free(byAge_.front().hash, first_);
      byAge_.pop_front();
    }
  }
  // Forgets what was added since the latest Keep.
  void Withdraw() {
    for (; fresh_ > 0; --fresh_) {
      Free(byAge_.back().hash, first_ + static_cast<std::uint32_t>(byAge_.size() - 1));
      byAge_.pop_back();
    }
  }

 private:
  struct Id {
    std::uint32_t hash;
    unsigned char length;
    char text[maxIdBytes];
    std::string_view Text() const { return {text, length}; }
  };
  // Where the table says that an id is: with the hash, few look-ups read an id that isn't theirs.
  struct Place {
    std::uint32_t hash = 0;    // 0: free
    std::uint32_t number = 0;  // of the id, in the order of arrival; wraps around
  };

  // Never 0.
  static std::uint32_t Hash(std::string_view id) {
    const auto hash = static_cast<std::uint32_t>(std::hash<std::string_view>()(id));
    return hash == 0 ? 1 : hash;
  }
  bool IsUsed(std::size_t at) const { return places_[at].hash != 0; }
  std::size_t Next(std::size_t at) const { return (at + 1) & (places_.size() - 1); }
  // The place of the id, or the free one that it would get.
  std::size_t Find(std::string_view id, std::uint32_t hash) const {
    std::size_t at = hash & (places_.size() - 1);
    while (IsUsed(at) && !(places_[at].hash == hash && byAge_[places_[at].number - first_].Text() == id))
      at = Next(at);
    return at;
  }
  // Frees the place of an id. Those behind it move up, so that no search ends too early.
  void Free(std::uint32_t hash, std::uint32_t number) {
    const std::size_t mask = places_.size() - 1;
    std::size_t hole = hash & mask;
    while (places_[hole].number != number || places_[hole].hash != hash) hole = Next(hole);
    for (std::size_t at = Next(hole); IsUsed(at); at = Next(at)) {
      const std::size_t home = places_[at].hash & mask;
      if (((at - home) & mask) < ((at - hole) & mask)) continue;
      places_[hole] = places_[at];
      hole = at;
    }
    places_[hole] = {};
  }
  void Grow() {
    std::vector<Place> old(2 * places_.size());
    old.swap(places_);
    for (const Place& each : old) {
      if (each.hash == 0) continue;
      std::size_t at = each.hash & (places_.size() - 1);
      while (IsUsed(at)) at = Next(at);
      places_[at] = each;
    }
  }

  const std::size_t limit_;
  std::deque<Id> byAge_;       // the oldest first
  std::uint32_t first_ = 0;    // the number of the oldest
  std::size_t fresh_ = 0;      // the newest that aren't kept yet
  std::vector<Place> places_;  // a power of two of them, at least half of them free
};

}  // namespace veld_report::server
