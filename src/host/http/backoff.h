// Backoff remembers how urls have answered and decides whether a request may be sent.
#pragma once

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

// True if an answer of this status means that the server doesn't accept the content of the request, whenever
// it is sent: a status from 400 to 499, except those that are about the url, the sender or the moment.
bool RefusesContent(std::uint16_t status);

// Keeps a row for each url. The rows are independent, so one failing url doesn't hold up others. Threads:
// any.
class Backoff {
 public:
  // `random` returns numbers uniformly distributed in [0, 1).
  Backoff(const BackoffOptions& options, std::shared_ptr<Clock> clock, std::function<double()> random);

  // Returns the time of the start, or nothing if requests to the url are held back.
  std::optional<Clock::TimePoint> Start(const std::string& url) const;
  // How long requests to the url are still held back; 0: they aren't.
  std::chrono::milliseconds HeldBackFor(const std::string& url) const;
  // Records the outcome of a request that Start allowed. If it started before the last failure, only the
  // error text changes: the requests of one outage count as one failure.
  void End(const std::string& url, Clock::TimePoint startedAt, const HttpOutcome& outcome);
  // See HttpClientFactory.
  std::uint16_t TakeRefusal(const std::string& url);
  void ExpectRefusal(const std::string& url);
  void NoteStandingBack(const std::string& url, std::uint16_t status);
  // Forgets all other urls.
  void KeepOnly(const std::vector<std::string>& urls);
  std::vector<HttpClientState> States() const;
  // Of one url; nothing if it had no request.
  std::optional<HttpClientState> StateOf(const std::string& url) const;

 private:
  struct Row {
    Clock::TimePoint waitsUntil;
    Clock::TimePoint failedAt;
    std::uint32_t failures = 0;
    std::uint16_t lastStatus = 0;
    std::string lastError;
    std::uint16_t refusal = 0;  // of the last request, until it is taken
    bool expectsRefusal = false;
    std::uint16_t standingBack = 0;
  };

  HttpClientState StateOfRow(const std::string& url, const Row& row) const;
  void Note(Row& row, Clock::TimePoint startedAt, const HttpOutcome& outcome);
  Clock::TimePoint WaitAfterFailure(const Row& row, const HttpOutcome& outcome) const;

  const BackoffOptions options_;
  const std::shared_ptr<Clock> clock_;
  const std::function<double()> random_;

  mutable std::mutex mutex_;  // guards the rows and `random_`; only held across calls of clock and random
  std::map<std::string, Row> rows_;
};

}  // namespace veld_report::host
