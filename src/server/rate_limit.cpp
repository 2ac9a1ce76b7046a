#include "server/rate_limit.h"

#include <algorithm>
#include <cmath>

namespace veld_report::server {
namespace {

// Beyond it, full buckets are forgotten: they are the same as none.
constexpr std::size_t manyAddresses = 10'000;

}  // namespace

double RateLimit::Filled(const Bucket& bucket, Clock::time_point now) const {
  const std::chrono::duration<double> passed = now - bucket.filled;
  return std::min(burst_, bucket.requests + passed.count() * perSecond_);
}

std::chrono::seconds RateLimit::Take(const std::string& address, Clock::time_point now) {
  if (perSecond_ <= 0) return {};
  const std::lock_guard lock(mutex_);
  if (buckets_.size() >= manyAddresses) {
    std::erase_if(buckets_, [&](const auto& each) { return Filled(each.second, now) >= burst_; });
    // All of them are busy. To let some through is better than to remember without limit.
    if (buckets_.size() >= manyAddresses) buckets_.clear();
  }
  Bucket& bucket = buckets_.try_emplace(address, Bucket{burst_, now}).first->second;
  bucket = {Filled(bucket, now), now};
  if (bucket.requests < 1)
    return std::chrono::seconds(static_cast<std::int64_t>(std::ceil((1 - bucket.requests) / perSecond_)));
  --bucket.requests;
  return {};
}

}  // namespace veld_report::server
