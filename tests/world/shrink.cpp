#include "tests/world/shrink.h"

#include <algorithm>

namespace veld_report::world {

Script Shrink(Script script, const std::function<bool(const Script&)>& fails, int mostTries) {
  const auto better = [&](Script candidate) {
    if (mostTries-- <= 0 || !fails(candidate)) return false;
    script = std::move(candidate);
    return true;
  };
  // Delta debugging: halves, quarters and so on, until no single step can go.
  for (std::size_t stretch = std::max<std::size_t>(script.size() / 2, 1); stretch > 0 && mostTries > 0;) {
    bool shorter = false;
    for (std::size_t first = 0; first < script.size();) {
      Script candidate = script;
      const std::size_t last = std::min(first + stretch, script.size());
      candidate.erase(candidate.begin() + static_cast<std::ptrdiff_t>(first),
                      candidate.begin() + static_cast<std::ptrdiff_t>(last));
      if (better(std::move(candidate))) {
        shorter = true;
      } else {
        first = last;
      }
    }
    if (stretch == 1 && !shorter) break;
    stretch = std::max<std::size_t>(stretch / 2, 1);
  }
  for (std::size_t i = 0; i < script.size(); ++i) {
    for (int Step::*number : {&Step::a, &Step::b, &Step::c}) {
      for (const int smaller : {0, 1, script[i].*number / 2, script[i].*number - 1}) {
        if (smaller < 0 || smaller >= script[i].*number) continue;
        Script candidate = script;
        candidate[i].*number = smaller;
        if (better(std::move(candidate))) break;
      }
    }
    while (!script[i].settings.rows.empty()) {
      Script candidate = script;
      candidate[i].settings.rows.pop_back();
      if (!better(std::move(candidate))) break;
    }
  }
  return script;
}

}  // namespace veld_report::world
