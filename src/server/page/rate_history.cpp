#include "server/page/rate_history.h"

namespace veld_report::server {

void RateHistory::Add(std::int64_t second, const RateSample& more) {
  for (Level& level : levels_) {
    const std::int64_t step = second / level.stepSeconds;
    if (level.samples.empty() || step > level.latest + static_cast<std::int64_t>(level.steps)) {
      level.samples.assign(level.steps, {});
      level.latest = step;
    }
    for (; level.latest < step; ++level.latest) {
      level.samples.pop_front();
      level.samples.emplace_back();
    }
    RateSample& sample = level.samples.back();
    sample.records += more.records;
    sample.messages += more.messages;
    sample.refused += more.refused;
  }
}

}  // namespace veld_report::server
