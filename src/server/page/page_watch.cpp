#include "server/page/page_watch.h"

#include <algorithm>

#include "host/platform/service_thread.h"

namespace veld_report::server {
namespace {

constexpr std::chrono::milliseconds tick{200};
// In a tick, so that a reader gets 100 in a second: more than anybody reads, and little enough for a browser.
constexpr std::size_t shownInATick = 20;
constexpr std::size_t shownAtTheBeginning = 200;

}  // namespace

PageWatch::~PageWatch() { Stop(); }

void PageWatch::OnStored(const ObservedRequest& request, const StoredMessage& message) noexcept {
  counters_.Stored(message.result, request.body.size(), message.sinkTime);
  try {
    sources_.Count(request.host, request.path, message.result);
    counters_.SkippedByPage(intake_.Offer(request, message));
  } catch (const std::exception&) {
    counters_.SkippedByPage(message.content.itemCount);  // out of memory
  }
}

void PageWatch::OnRefused(const ObservedRequest& request, const RefusedMessage& message) noexcept {
  counters_.Refused(message.status, message.reason, request.body.size());
  try {
    refused_.Add(request, message);
  } catch (const std::exception&) {
    // Out of memory; it is counted.
  }
}

void PageWatch::Run(std::function<ServerLoad()> load) {
  load_ = std::move(load);
  thread_ = host::StartServiceThread("veld-page", [this] { Watch(); });
}

void PageWatch::Stop() {
  streams_.End();
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
  }
  ending_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void PageWatch::Watch() {
  std::unique_lock lock(mutex_);
  while (!ending_.wait_for(lock, tick, [this] { return ended_; })) {
    try {
      const std::vector<const ShownRecord*> arrived = AddToWindow();
      for (const auto& stream : streams_.Streams()) ShowTo(*stream, arrived, shownInATick);
      CountSecond();
    } catch (const std::bad_alloc&) {
      // What was taken is counted and stored; only the page lacks it.
    }
  }
}

// The new records that are still in the window, oldest first.
std::vector<const ShownRecord*> PageWatch::AddToWindow() {
  std::size_t added = 0;
  for (const TakenMessage& message : intake_.Take()) {
    std::string_view lines = message.lines;
    for (std::size_t place = 0; !lines.empty(); ++place) {
      const std::string_view line = lines.substr(0, lines.find('\n'));
      window_.Add(message.packet, place, line);
      lines.remove_prefix(std::min(line.size() + 1, lines.size()));
      ++added;
    }
  }
  const auto& records = window_.Records();
  std::vector<const ShownRecord*> arrived;
  for (std::size_t i = records.size() - std::min(added, records.size()); i < records.size(); ++i)
    arrived.push_back(&records[i]);
  return arrived;
}

// Of more than `limit` that fit, some at even distances.
void PageWatch::ShowTo(EventStream& stream, const std::vector<const ShownRecord*>& arrived,
                       std::size_t limit) {
  std::vector<const ShownRecord*> fitting;
  for (const ShownRecord* each : arrived) {
    if (stream.Filter().Fits(each->text, each->packet->path, walk_)) fitting.push_back(each);
  }
  if (fitting.empty()) return;
  const std::size_t shown = std::min(limit, fitting.size());
  std::string data = "{\"fitting\":" + std::to_string(fitting.size()) + ",\"records\":[";
  for (std::size_t i = 0; i < shown; ++i) {
    if (i != 0) data += ',';
    data += RecordLineJson(*fitting[(i + 1) * fitting.size() / shown - 1]);
  }
  stream.Push("records", data + "]}");
}

void PageWatch::CountSecond() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const std::int64_t second = std::chrono::duration_cast<std::chrono::seconds>(now).count();
  if (second == secondNumber_) return;
  const ServerTotals totals = counters_.Totals();
  second_ = {totals.records + totals.repeated - before_.records - before_.repeated,
             totals.messages - before_.messages, totals.refused - before_.refused};
  before_ = totals;
  secondNumber_ = second;
  // What has come since the previous call came in the second before this one.
  history_.Add(second - 1, second_);
  const auto streams = streams_.Streams();
  if (streams.empty()) return;
  const std::string data = TotalsJson(Totals());
  for (const auto& stream : streams) stream->Push("totals", data);
}

// Called with the lock held.
PageTotals PageWatch::Totals() const {
  constexpr double half = 0.5, nearlyAll = 0.99;
  return {counters_.Totals(),
          second_,
          load_ ? load_() : ServerLoad{},
          counters_.SinkSeconds(half),
          counters_.SinkSeconds(nearlyAll),
          counters_.Skipped()};
}

std::string PageWatch::State(const std::string& serverUrl) const {
  const std::lock_guard lock(mutex_);
  return StateJson(serverUrl, counters_.Started(), Totals(), history_);
}

std::string PageWatch::Members(const std::string& path) {
  const std::lock_guard lock(mutex_);
  const auto now = std::chrono::steady_clock::now();
  if (members_.empty() || path != membersPath_ || now - membersMade_ >= std::chrono::seconds(1)) {
    MemberTable table;
    for (const ShownRecord& each : window_.Records()) {
      if (path.empty() || each.packet->path == path) table.Add(each.text);
    }
    members_ = MembersJson(table);
    membersPath_ = path;
    membersMade_ = now;
  }
  return members_;
}

std::string PageWatch::Record(std::uint64_t number) const {
  const std::lock_guard lock(mutex_);
  const ShownRecord* const record = window_.Find(number);
  if (!record) return {};
  std::vector<std::uint64_t> others;
  // A packet's records lie side by side.
  const std::uint64_t first = number > record->place ? number - record->place : 1;
  for (std::uint64_t each = first; each < first + record->packet->records; ++each) {
    const ShownRecord* const other = window_.Find(each);
    if (other && other->packet == record->packet) others.push_back(each);
    if (!other && each > number) break;
  }
  return RecordJson(*record, others);
}

std::shared_ptr<EventStream> PageWatch::OpenStream(RecordFilter filter) {
  const std::lock_guard lock(mutex_);
  auto stream = streams_.Open(std::move(filter));
  if (!stream) return nullptr;
  std::vector<const ShownRecord*> latest;
  for (const ShownRecord& each : window_.Records()) {
    if (stream->Filter().Fits(each.text, each.packet->path, walk_)) latest.push_back(&each);
  }
  const std::size_t left = latest.size() - std::min(latest.size(), shownAtTheBeginning);
  latest.erase(latest.begin(), latest.begin() + static_cast<std::ptrdiff_t>(left));
  stream->Push("begin", "{}");
  ShowTo(*stream, latest, shownAtTheBeginning);
  stream->Push("totals", TotalsJson(Totals()));
  return stream;
}

}  // namespace veld_report::server
