// RateLimit: how many requests a client address may make.
//
// Each address has a bucket of `burst` requests that fills up again by `perSecond`. One broken client thus
// takes nothing of the others' room.
#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <unordered_map>

namespace veld_report::server {

// Threads: any.
class RateLimit {
 public:
  using Clock = std::chrono::steady_clock;

  // `perSecond` 0: no limit.
  RateLimit(double perSecond, double burst) : perSecond_(perSecond), burst_(burst) {}

  // Counts a request. Returns how long the client must wait before its next one will do; 0 if this one does.
  std::chrono::seconds Take(const std::string& address, Clock::time_point now);

 private:
  struct Bucket {
    double requests;
    Clock::time_point filled;
  };

  double Filled(const Bucket& bucket, Clock::time_point now) const;

  const double perSecond_, burst_;
  std::mutex mutex_;  // guards the buckets; held for moments
  std::unordered_map<std::string, Bucket> buckets_;
};

}  // namespace veld_report::server
