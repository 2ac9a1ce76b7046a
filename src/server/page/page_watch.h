// PageWatch: hears of all that a server does, counts it, and keeps the latest for the page.
//
// The server's threads do three things here: they count, they copy a sample (intake.h, refused_list.h), and
// they never wait for a reader of the page. A thread of the watch does the rest five times a second.
//
// Memory, whatever comes: 16 MiB for records and 3 MiB for what is about them, 16 MiB for refused bodies, 4
// MiB for what arrives, 1 MiB for each of up to 16 readers, and while somebody looks at the members up to 10
// MiB more.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "server/page/event_stream.h"
#include "server/page/intake.h"
#include "server/page/page_json.h"
#include "server/page/rate_history.h"
#include "server/page/record_window.h"
#include "server/page/refused_list.h"
#include "server/page/server_counters.h"
#include "server/page/source_table.h"
#include "server/server_observer.h"

namespace veld_report::server {

// Life: counts from the constructor on; Run starts the thread and Stop ends it, both once.
// Threads: any, except for Run and Stop.
class PageWatch final : public ServerObserver {
 public:
  PageWatch() = default;
  ~PageWatch() override;
  PageWatch(const PageWatch&) = delete;
  PageWatch& operator=(const PageWatch&) = delete;

  void OnStored(const ObservedRequest& request, const StoredMessage& message) noexcept override;
  void OnRefused(const ObservedRequest& request, const RefusedMessage& message) noexcept override;
  void OnCut(CutReason reason) noexcept override { counters_.Cut(reason); }

  // `load`: of the server; called on any thread until Stop returns.
  void Run(std::function<ServerLoad()> load);
  // Ends the streams and the thread.
  void Stop();

  const ServerCounters& Counters() const { return counters_; }
  const RefusedList& Refused() const { return refused_; }

  std::string State(const std::string& serverUrl) const;
  std::string Sources() const { return SourcesJson(sources_.Figures()); }
  // From the records of the window that came by this path, or of all if it is empty. For one path it is made
  // at most once a second.
  std::string Members(const std::string& path);
  // Empty if the record isn't there, or not any more.
  std::string Record(std::uint64_t number) const;
  // A stream that begins with the latest 200 records that fit. Null if there are too many.
  std::shared_ptr<EventStream> OpenStream(RecordFilter filter);
  void CloseStream(const std::shared_ptr<EventStream>& stream) { streams_.Close(stream); }

 private:
  void Watch();
  std::vector<const ShownRecord*> AddToWindow();
  void ShowTo(EventStream& stream, const std::vector<const ShownRecord*>& arrived, std::size_t limit);
  void CountSecond();
  PageTotals Totals() const;

  ServerCounters counters_;
  Intake intake_;
  SourceTable sources_;
  RefusedList refused_;
  StreamHub streams_;
  std::function<ServerLoad()> load_;

  mutable std::mutex mutex_;  // guards the members below; the server's threads never take it
  std::condition_variable ending_;
  bool ended_ = false;
  RecordWindow window_;
  MemberWalk walk_;
  RateHistory history_;
  ServerTotals before_;  // at the end of the latest second
  RateSample second_;
  std::int64_t secondNumber_ = 0;
  std::string members_, membersPath_;
  std::chrono::steady_clock::time_point membersMade_{};
  std::thread thread_;  // guarded by nothing: Run and Stop only
};

}  // namespace veld_report::server
