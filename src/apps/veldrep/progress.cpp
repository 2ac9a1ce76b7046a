#include "apps/veldrep/progress.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "host/base/printable.h"
#include "host/platform/console.h"

namespace veld_report::app {
namespace {

constexpr std::chrono::milliseconds showEvery{100};
constexpr std::chrono::seconds markEvery{2};
constexpr int barWidth = 20;

// A longer line would wrap, and the bar could no longer be found.
std::size_t LineWidth() { return host::ErrorColumns().value_or(80) - 1; }

}  // namespace

Progress::Progress() : terminal_(host::ErrorColumns().has_value()), markTime_(Clock::now()) {}

void Progress::Show(const SendFigures& figures, const std::function<std::string()>& trouble) {
  const Clock::time_point now = Clock::now();
  if (!terminal_ || now - lastShown_ < showEvery) return;
  lastShown_ = now;
  const std::chrono::duration<double> sinceMark = now - markTime_;
  const auto deliveredSinceMark = static_cast<double>(figures.delivered - markDelivered_);
  if (sinceMark >= markEvery || rate_ == 0) rate_ = deliveredSinceMark / std::max(sinceMark.count(), 0.001);
  if (sinceMark >= markEvery) {
    markTime_ = now;
    markDelivered_ = figures.delivered;
  }
  const auto all = static_cast<double>(figures.delivered + figures.waiting);
  const double done = figures.readShare * (all > 0 ? static_cast<double>(figures.delivered) / all : 1);
  const int filled = std::clamp(static_cast<int>(done * barWidth), 0, barWidth);
  const std::string bar = std::string(static_cast<std::size_t>(filled), '#') +
                          std::string(static_cast<std::size_t>(barWidth - filled), '-');
  char line[200];
  std::snprintf(line, sizeof line, "[%s] submitted %llu, waiting %lld, delivered %lld, %.0f/s", bar.c_str(),
                static_cast<unsigned long long>(figures.submitted), static_cast<long long>(figures.waiting),
                static_cast<long long>(figures.delivered), rate_);
  std::fprintf(stderr, "\r%s\x1b[K", std::string(line).substr(0, LineWidth()).c_str());
  const std::string wrong = figures.waiting > 0 ? host::WithoutControls(trouble()) : "";
  if (!wrong.empty()) std::fprintf(stderr, "\n%s\x1b[K\x1b[1A", wrong.substr(0, LineWidth()).c_str());
  std::fflush(stderr);
  shown_ = true;
}

void Progress::Clear() {
  if (!shown_) return;
  std::fputs("\r\x1b[J", stderr);
  std::fflush(stderr);
  shown_ = false;
}

}  // namespace veld_report::app
