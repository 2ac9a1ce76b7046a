#include "tests/world/shrink.h"

#include <algorithm>

namespace veld_report::world {

namespace {

using Better = std::function<bool(Script candidate)>;  // takes it if it fails

// Delta debugging: halves, quarters and so on, until no single step can go.
void LeaveOut(const Script& script, const Better& better) {
  for (std::size_t stretch = std::max<std::size_t>(script.size() / 2, 1);;) {
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
    if (stretch == 1 && !shorter) return;
    stretch = std::max<std::size_t>(stretch / 2, 1);
  }
}

void MakeSmaller(const Script& script, const Better& better) {
  for (std::size_t i = 0; i < script.size(); ++i) {
    for (int Step::*number : {&Step::a, &Step::b, &Step::c}) {
      for (const int smaller : {0, 1, script[i].*number / 2, script[i].*number - 10, script[i].*number - 1}) {
        if (smaller < 0 || smaller >= script[i].*number) continue;
        Script candidate = script;
        candidate[i].*number = smaller;
        if (better(std::move(candidate))) break;
      }
    }
    for (std::size_t row = script[i].settings.rows.size(); row-- > 0;) {
      Script candidate = script;
      auto& rows = candidate[i].settings.rows;
      rows.erase(rows.begin() + static_cast<std::ptrdiff_t>(row));
      better(std::move(candidate));
    }
  }
}

}  // namespace

Script Shrink(Script script, const std::function<bool(const Script&)>& fails, int mostTries) {
  bool changed = true;
  const auto better = [&](Script candidate) {
    if (mostTries-- <= 0 || !fails(candidate)) return false;
    script = std::move(candidate);
    return changed = true;
  };
  while (changed) {
    changed = false;
    LeaveOut(script, better);
    MakeSmaller(script, better);
  }
  return script;
}

}  // namespace veld_report::world
