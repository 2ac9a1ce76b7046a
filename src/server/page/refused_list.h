// RefusedList: the last hundred refused requests, with the sentence why and the body as far as there is room.
//
// Limits: bodies of up to 1 MiB and 16 MiB together, the oldest go first. Of a flood it takes 50 in a second.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "server/server_observer.h"

namespace veld_report::server {

struct RefusedRequest {
  std::uint64_t number = 0;  // counted from 1
  std::chrono::system_clock::time_point time{};
  std::string host{}, path{}, peer{}, sentence{};
  unsigned status = 0;
  RefusalReason reason{};
  std::size_t bodyBytes = 0;
  std::shared_ptr<const std::string> body{};  // null: it was empty, too large, or has made room for others
};

// Threads: any.
class RefusedList {
 public:
  static constexpr std::size_t maxRequests = 100;
  static constexpr std::size_t maxInASecond = 50;
  static constexpr std::size_t maxBodyBytes = std::size_t{1} << 20;
  static constexpr std::size_t maxBytes = std::size_t{16} << 20;

  // Throws std::bad_alloc.
  void Add(const ObservedRequest& request, const RefusedMessage& message);
  // Newest first.
  std::vector<RefusedRequest> Latest() const;
  // Null if it isn't there, or not any more.
  std::shared_ptr<const std::string> Body(std::uint64_t number) const;

 private:
  bool MayTake(std::chrono::system_clock::time_point time);

  mutable std::mutex mutex_;  // guards the members below
  std::deque<RefusedRequest> requests_;
  std::size_t bytes_ = 0;
  std::uint64_t added_ = 0;
  std::chrono::system_clock::time_point second_{};
  std::size_t inSecond_ = 0;
};

}  // namespace veld_report::server
