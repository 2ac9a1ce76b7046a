#include "host/http/backoff.h"

#include <algorithm>
#include <array>
#include <set>
#include <string_view>
#include <utility>

#include "host/base/redact.h"
#include "host/http/retry_after.h"
#include "veld_report/code_text.h"

namespace veld_report::host {
namespace {

using std::chrono::milliseconds;

bool IsFailure(const HttpOutcome& outcome) { return zel::Failed(outcome.code) || outcome.status != 200; }

bool MayAskToWait(std::uint16_t status) { return status == 429 || status == 503; }

}  // namespace

std::string FailureText(const HttpOutcome& outcome) {
  if (!IsFailure(outcome)) return {};
  if (!zel::Failed(outcome.code)) {
    const std::string text = "the server answered with status " + std::to_string(outcome.status);
    return outcome.answer.empty() ? text : text + ": " + outcome.answer;
  }
  return outcome.error.empty() ? CodeText(outcome.code) : outcome.error + " (" + CodeText(outcome.code) + ")";
}

bool RefusesContent(std::uint16_t status) {
  constexpr std::array<std::uint16_t, 12> others{401, 402, 403, 404, 405, 407, 408, 410, 421, 425, 429, 431};
  return status >= 400 && status < 500 && !std::ranges::binary_search(others, status);
}

Backoff::Backoff(const BackoffOptions& options, std::shared_ptr<Clock> clock, std::function<double()> random)
    : options_(options), clock_(std::move(clock)), random_(std::move(random)) {}

std::optional<Clock::TimePoint> Backoff::Start(const std::string& url) const {
  const std::lock_guard lock(mutex_);
  const Clock::TimePoint now = clock_->Now();
  const auto row = rows_.find(url);
  if (row != rows_.end() && now < row->second.waitsUntil) return std::nullopt;
  return now;
}

milliseconds Backoff::HeldBackFor(const std::string& url) const {
  const std::lock_guard lock(mutex_);
  const auto row = rows_.find(url);
  if (row == rows_.end()) return milliseconds(0);
  return std::max(std::chrono::ceil<milliseconds>(row->second.waitsUntil - clock_->Now()), milliseconds(0));
}

void Backoff::End(const std::string& url, Clock::TimePoint startedAt, const HttpOutcome& outcome) {
  if (outcome.code == zel::eOperationCancelled) return;
  const std::lock_guard lock(mutex_);
  Note(rows_[url], startedAt, outcome);
}

void Backoff::Note(Row& row, Clock::TimePoint startedAt, const HttpOutcome& outcome) {
  row.lastError = FailureText(outcome);
  if (!zel::Failed(outcome.code)) row.lastStatus = outcome.status;
  row.refusal =
      !zel::Failed(outcome.code) && RefusesContent(outcome.status) ? outcome.status : std::uint16_t{0};
  if (std::exchange(row.expectsRefusal, false) && row.refusal != 0) return;
  if (outcome.local || startedAt < row.failedAt) return;
  if (IsFailure(outcome)) {
    row.failedAt = clock_->Now();
    ++row.failures;
    row.waitsUntil = WaitAfterFailure(row, outcome);
  } else {
    row.failures = 0;
    row.waitsUntil = {};
  }
}

Clock::TimePoint Backoff::WaitAfterFailure(const Row& row, const HttpOutcome& outcome) const {
  if (!options_.enabled) return {};
  milliseconds wait(0);
  if (row.failures >= 2) {
    const std::uint32_t doublings = std::min<std::uint32_t>(row.failures - 2, 31);
    const std::uint64_t bound =
        std::min<std::uint64_t>(std::uint64_t{options_.firstDelayMs} << doublings, options_.maxDelayMs);
    wait = milliseconds(static_cast<std::int64_t>(static_cast<double>(bound) * random_()));
  }
  if (outcome.retryAfter && MayAskToWait(outcome.status)) {
    const auto asked =
        ParseRetryAfter(*outcome.retryAfter, clock_->WallNow(), milliseconds(options_.maxRetryAfterMs));
    wait = std::max(wait, asked.value_or(milliseconds(0)));
  }
  return clock_->Now() + wait;
}

std::uint16_t Backoff::TakeRefusal(const std::string& url) {
  const std::lock_guard lock(mutex_);
  const auto row = rows_.find(url);
  return row == rows_.end() ? std::uint16_t{0} : std::exchange(row->second.refusal, std::uint16_t{0});
}

void Backoff::ExpectRefusal(const std::string& url) {
  const std::lock_guard lock(mutex_);
  const auto row = rows_.find(url);
  if (row != rows_.end()) row->second.expectsRefusal = true;
}

void Backoff::NoteStandingBack(const std::string& url, std::uint16_t status) {
  const std::lock_guard lock(mutex_);
  const auto row = rows_.find(url);
  if (row != rows_.end()) row->second.standingBack = status;
}

void Backoff::KeepOnly(const std::vector<std::string>& urls) {
  const std::set<std::string_view> kept(urls.begin(), urls.end());
  const std::lock_guard lock(mutex_);
  std::erase_if(rows_, [&](const auto& row) { return !kept.contains(row.first); });
}

std::vector<HttpClientState> Backoff::States() const {
  const std::lock_guard lock(mutex_);
  std::vector<HttpClientState> states;
  for (const auto& [url, row] : rows_) states.push_back(StateOfRow(url, row));
  return states;
}

std::optional<HttpClientState> Backoff::StateOf(const std::string& url) const {
  const std::lock_guard lock(mutex_);
  const auto row = rows_.find(url);
  if (row == rows_.end()) return std::nullopt;
  return StateOfRow(url, row->second);
}

HttpClientState Backoff::StateOfRow(const std::string& url, const Row& row) const {
  HttpClientState state{.url = WithoutCredentials(url)};
  const Clock::TimePoint now = clock_->Now();
  if (now < row.waitsUntil) {
    state.waitsUntil =
        clock_->WallNow() + std::chrono::duration_cast<Clock::WallTimePoint::duration>(row.waitsUntil - now);
  }
  state.lastError = row.lastError;
  state.lastStatus = row.lastStatus;
  state.failures = row.failures;
  if (row.lastError.empty() && row.standingBack != 0) {
    state.lastStatus = row.standingBack;
    state.lastError = "the server refuses some records with status " + std::to_string(row.standingBack);
  }
  return state;
}

}  // namespace veld_report::host
