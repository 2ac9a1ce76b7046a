// RememberedIds: the latest ids of records, up to a number of them.
//
// It differs from a plain set in that it has a bound: the oldest id goes when another one comes. And it is
// laid out for caches, since each record of a server asks it: the ids lie in the order of their age, and a
// look-up reads one place of a table of numbers. An id takes 90 to 120 bytes of memory. Threads: one at a
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
  bool Contains(std::string_view id) const { return places_[Find(id, Hash(id))].used; }
  // An id that it has stays as old as it is. At most `maxIdBytes`.
  void Add(std::string_view id) {
    if (id.size() > maxIdBytes) throw std::length_error("an id is too long");
    if (limit_ == 0) return;
    const std::uint32_t hash = Hash(id);
    if (places_[Find(id, hash)].used) return;
    if (byAge_.size() == limit_) Forget();
    if (2 * byAge_.size() >= places_.size()) Grow();
    Id& added = byAge_.emplace_back();
    added.length = static_cast<unsigned char>(id.size());
    std::memcpy(added.text, id.data(), id.size());
    places_[Find(id, hash)] = {hash, first_ + static_cast<std::uint32_t>(byAge_.size() - 1), true};
  }

 private:
  struct Id {
    unsigned char length;
    char text[maxIdBytes];
    std::string_view Text() const { return {text, length}; }
  };
  // Where the table says that an id is: with the hash, few look-ups read an id that isn't theirs.
  struct Place {
    std::uint32_t hash = 0;
    std::uint32_t number = 0;  // of the id, in the order of arrival; wraps around
    bool used = false;
  };

  static std::uint32_t Hash(std::string_view id) {
    return static_cast<std::uint32_t>(std::hash<std::string_view>()(id));
  }
  std::size_t Next(std::size_t at) const { return (at + 1) & (places_.size() - 1); }
  // The place of the id, or the free one that it would get.
  std::size_t Find(std::string_view id, std::uint32_t hash) const {
    std::size_t at = hash & (places_.size() - 1);
    while (places_[at].used &&
           !(places_[at].hash == hash && byAge_[places_[at].number - first_].Text() == id))
      at = Next(at);
    return at;
  }
  // Drops the oldest. Ids behind its place move up, so that no search ends too early.
  void Forget() {
    const std::string_view id = byAge_.front().Text();
    std::size_t hole = Find(id, Hash(id));
    for (std::size_t at = Next(hole); places_[at].used; at = Next(at)) {
      const std::size_t mask = places_.size() - 1;
      const std::size_t home = places_[at].hash & mask;
      if (((at - home) & mask) < ((at - hole) & mask)) continue;
      places_[hole] = places_[at];
      hole = at;
    }
    places_[hole].used = false;
    byAge_.pop_front();
    ++first_;
  }
  void Grow() {
    std::vector<Place> old(2 * places_.size());
    old.swap(places_);
    for (const Place& each : old) {
      if (!each.used) continue;
      std::size_t at = each.hash & (places_.size() - 1);
      while (places_[at].used) at = Next(at);
      places_[at] = each;
    }
  }

  const std::size_t limit_;
  std::deque<Id> byAge_;       // the oldest first
  std::uint32_t first_ = 0;    // the number of the oldest
  std::vector<Place> places_;  // a power of two of them, at least half of them free
};

}  // namespace veld_report::server
