#include "apps/veldrep/progress.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>

#include "host/base/printable.h"
#include "host/base/text.h"
#include "host/platform/console.h"

namespace veld_report::app {
namespace {

constexpr std::chrono::milliseconds showEvery{100};
constexpr std::chrono::seconds markEvery{2};
constexpr std::size_t minBarWidth = 5, maxBarWidth = 20;

// A longer line would wrap, and the bar could no longer be found.
std::size_t LineWidth() { return host::ErrorColumns().value_or(80) - 1; }

// As much of the figures as the line has room for.
std::string Figures(const SendFigures& figures, double rate, std::size_t width) {
  const std::string delivered = "delivered " + std::to_string(figures.delivered);
  const std::string waiting = "waiting " + std::to_string(figures.waiting) + ", " + delivered;
  char perSecond[32];
  std::snprintf(perSecond, sizeof perSecond, ", %.0f/s", rate);
  const std::string all = "submitted " + std::to_string(figures.submitted) + ", " + waiting + perSecond;
  for (const std::string& each : {all, waiting, delivered}) {
    if (each.size() <= width) return each;
  }
  return std::to_string(figures.delivered).substr(0, width);
}

// Cut at the end of a character, each of which takes a column at least.
std::string_view Cut(std::string_view text, std::size_t width) {
  std::size_t end = 0;
  for (std::size_t columns = 0; columns < width && end < text.size(); ++columns)
    end += std::max<std::size_t>(1, host::ValidUtf8Prefix(text.substr(end)));
  return text.substr(0, end);
}

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
  const std::size_t width = LineWidth();
  std::string line = Figures(figures, rate_, width);
  constexpr std::size_t brackets = 3;  // with the blank after them
  if (line.size() + brackets + minBarWidth <= width) {
    const std::size_t barWidth = std::min(maxBarWidth, width - line.size() - brackets);
    const auto filled = static_cast<std::size_t>(std::clamp(done, 0.0, 1.0) * static_cast<double>(barWidth));
    line.insert(0, '[' + std::string(filled, '#') + std::string(barWidth - filled, '-') + "] ");
  }
  std::fprintf(stderr, "\r%s\x1b[K", line.c_str());
  const std::string wrong = figures.waiting > 0 ? host::WithoutControls(trouble()) : "";
  if (!wrong.empty()) std::fprintf(stderr, "\n%s\x1b[K\x1b[1A", std::string(Cut(wrong, width)).c_str());
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
