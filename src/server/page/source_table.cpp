#include "server/page/source_table.h"

#include <algorithm>
#include <numeric>

namespace veld_report::server {
namespace {

constexpr std::size_t maxNameBytes = 512;

std::int64_t SecondsNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

void SourceTable::Source::Advance(std::int64_t slot) {
  const std::int64_t size = slots;
  for (std::int64_t each = std::max(latest + 1, slot - size + 1); each <= slot; ++each)
    records[static_cast<std::size_t>(each % size)] = 0;
  latest = slot;
}

void SourceTable::Count(std::string_view host, std::string_view path, const StoreResult& result) {
  host = host.substr(0, maxNameBytes);
  path = path.substr(0, maxNameBytes);
  const std::int64_t slot = SecondsNow() / slotSeconds;
  std::string key(host);
  key.append(path);
  const std::lock_guard lock(mutex_);
  auto found = sources_.find(key);
  if (found == sources_.end()) {
    const bool full = sources_.size() >= maxSources;
    found = sources_.try_emplace(full ? std::string() : std::move(key)).first;
    Source& fresh = found->second;
    if (fresh.latest == 0) {
      if (!full) {
        fresh.figures.host = host;
        fresh.figures.path = path;
      }
      fresh.first = fresh.latest = slot;
    }
  }
  Source& source = found->second;
  source.Advance(slot);
  source.records[static_cast<std::size_t>(slot % std::int64_t{slots})] += result.stored + result.repeated;
  SourceFigures& figures = source.figures;
  ++figures.messages;
  figures.records += result.stored;
  figures.repeated += result.repeated;
  figures.lastSeen = std::chrono::system_clock::now();
}

std::vector<SourceFigures> SourceTable::Figures() const {
  const std::int64_t second = SecondsNow();
  std::vector<SourceFigures> all;
  const std::lock_guard lock(mutex_);
  for (const auto& [key, counted] : sources_) {
    Source source = counted;
    source.Advance(second / slotSeconds);
    const auto sum = std::accumulate(source.records.begin(), source.records.end(), std::uint64_t{0});
    // The slot in progress counts as far as it has come.
    const std::int64_t known = std::min<std::int64_t>(source.latest - source.first, slots - 1);
    const auto seconds = static_cast<double>(known * slotSeconds + second % slotSeconds + 1);
    source.figures.recordsASecond = static_cast<double>(sum) / seconds;
    all.push_back(std::move(source.figures));
  }
  std::sort(all.begin(), all.end(), [](const auto& one, const auto& other) {
    return one.records + one.repeated > other.records + other.repeated;
  });
  return all;
}

}  // namespace veld_report::server
