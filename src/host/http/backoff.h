// Backoff, the memory of how urls have answered, and the decision whether a request may go.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/base/clock.h"
#include "host/http/http_client.h"
#include "host/http/http_outcome.h"

namespace veld_report::host {

// Keeps a row for each url: rows don't know each other, so that one url in trouble holds up no other.
// Threads: any.
class Backoff {
 public:
  // `random` gives numbers evenly in [0, 1).
  Backoff(const BackoffOptions& options, std::shared_ptr<Clock> clock, std::function<double()> random);

  // Returns when the request starts, or nothing if the url is to be left alone for the time being.
  std::optional<Clock::TimePoint> Start(const std::string& url) const;
  // How a request that Start let pass has ended. One that began before the last failure changes nothing but
  // the error text: requests of one and the same outage count once.
  void End(const std::string& url, Clock::TimePoint startedAt, const HttpOutcome& outcome);
  // Forgets all other urls.
  void KeepOnly(const std::vector<std::string>& urls);
  std::vector<HttpClientState> States() const;
  // Another number than before whenever States would tell something new, but for waits that have run out.
  std::uint64_t Version() const { return version_.load(std::memory_order_acquire); }

 private:
  struct Row {
    Clock::TimePoint waitsUntil;
    Clock::TimePoint failedAt;
    std::uint32_t failures = 0;
    std::uint16_t lastStatus = 0;
    std::string lastError;

    bool operator==(const Row&) const = default;
  };

  void Note(Row& row, Clock::TimePoint startedAt, const HttpOutcome& outcome);
  Clock::TimePoint WaitAfterFailure(const Row& row, const HttpOutcome& outcome) const;

  const BackoffOptions options_;
  const std::shared_ptr<Clock> clock_;
  const std::function<double()> random_;

  mutable std::mutex mutex_;  // guards the rows and `random_`; held across calls of clock and random alone
  std::map<std::string, Row> rows_;
  std::atomic<std::uint64_t> version_{0};
};

}  // namespace veld_report::host
