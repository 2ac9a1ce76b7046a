#include "host/http/http_engine.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <utility>

#include "host/base/redact.h"
#include "host/base/write_trace.h"

namespace veld_report::host {
namespace {

// The loop is woken for everything else that it has to do; this is only a safety net.
constexpr int maxPollMs = 60000;

// Without a text it doesn't allocate.
HttpOutcome LocalFailure(zel::ResultCode code, std::string error = {}) {
  HttpOutcome outcome;
  outcome.code = code;
  outcome.error = std::move(error);
  outcome.local = true;
  return outcome;
}

HttpOutcome OutcomeOf(const HttpTransfer& transfer, CURLcode result) noexcept {
  try {
    return transfer.Outcome(result);
  } catch (...) {
    return LocalFailure(zel::eOutOfMemory);
  }
}

}  // namespace

HttpEngine::HttpEngine(std::shared_ptr<HttpShared> shared)
    : shared_(std::move(shared)), multi_(curl_multi_init()) {
  if (!multi_) throw std::bad_alloc();
  // Without a free descriptor to wake it by, the loop would sleep through its requests.
  if (curl_multi_wakeup(multi_) != CURLM_OK) {
    curl_multi_cleanup(multi_);
    throw std::runtime_error("the HTTP client's thread can't be woken; are there file descriptors left?");
  }
  try {
    shared_->gate.Add(this);
  } catch (...) {
    curl_multi_cleanup(multi_);
    throw;
  }
}

HttpEngine::~HttpEngine() {
  shared_->gate.Remove(this);
  if (multi_) curl_multi_cleanup(multi_);
}

void HttpEngine::Loop() {
  CURLM* const multi = multi_;
  std::vector<zel::Ref<HttpRequest>> incoming;
  while (TakeIncoming(&incoming)) {
    for (const zel::Ref<HttpRequest>& request : incoming) Start(request);
    incoming.clear();
    EndCancelled();
    Perform(multi);
    EndStalled();
    if (curl_multi_poll(multi, nullptr, 0, PollMs(), nullptr) != CURLM_OK) {
      // Most likely out of memory: go on, but without a busy loop.
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  const HttpOutcome cancelled = LocalFailure(zel::eOperationCancelled);
  EndAll(cancelled);
  for (const zel::Ref<HttpRequest>& request : incoming) End(*request, cancelled);
  {
    const std::lock_guard lock(mutex_);
    multi_ = nullptr;
  }
  curl_multi_cleanup(multi);
}

void HttpEngine::Perform(CURLM* multi) {
  bool failed = false;
  for (bool done = false; !done; EndCancelled()) {
    const RequestGate::Pass pass(shared_->gate);
    done = true;
    for (const auto& [handle, transfer] : transfers_) {
      if (pass.Holds(transfer->Request().Admission())) continue;
      transfer->Request().SetAdmission(std::nullopt);
      done = false;
    }
    int running = 0;
    if (done) failed = curl_multi_perform(multi, &running) != CURLM_OK;
  }
  EndDone();
  // Most likely out of memory. libcurl goes on with what it had half built, and may divide by a zero in it
  // (7.88 does that for a table of sockets). So everything in flight must end here.
  if (failed) EndAll(LocalFailure(zel::eOutOfMemory));
}

bool HttpEngine::TakeIncoming(std::vector<zel::Ref<HttpRequest>>* incoming) {
  const std::lock_guard lock(mutex_);
  incoming->swap(incoming_);
  return !stopped_;
}

void HttpEngine::Stop() {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  if (multi_) curl_multi_wakeup(multi_);
}

void HttpEngine::Wake() {
  const std::lock_guard lock(mutex_);
  if (multi_) curl_multi_wakeup(multi_);
}

zel::ResultCode HttpEngine::Submit(zel::Ref<HttpRequest> request) {
  request->SetAdmission(shared_->gate.Admit());
  const std::lock_guard lock(mutex_);
  if (stopped_) return zel::eInvalidState;
  incoming_.push_back(std::move(request));
  curl_multi_wakeup(multi_);
  return zel::sOk;
}

void HttpEngine::SetCertificates(CertificateTable certificates) {
  auto table = std::make_shared<const CertificateTable>(std::move(certificates));
  const std::lock_guard lock(mutex_);
  certificates_.swap(table);
}

void HttpEngine::Start(const zel::Ref<HttpRequest>& request) {
  if (request->IsCancelled()) {
    End(*request, LocalFailure(zel::eOperationCancelled));
    return;
  }
  const std::string& url = request->GetContent().urlText;
  const std::optional<Clock::TimePoint> startedAt = shared_->backoff.Start(url);
  if (!startedAt) {
    NotifyBackoff();
    End(*request, LocalFailure(zel::eNotReady));
    return;
  }
  StartAllowed(request, *startedAt);
}

void HttpEngine::StartAllowed(const zel::Ref<HttpRequest>& request, Clock::TimePoint startedAt) {
  HttpOutcome failure = LocalFailure(zel::eOutOfMemory, "out of memory");
  try {
    StartTransfer(request, startedAt);
    return;
  } catch (const HttpTransferRefused& refused) {
    failure = LocalFailure(refused.code, refused.error);
  } catch (const std::bad_alloc&) {
    // As prepared.
  } catch (...) {
    failure = LocalFailure(zel::eUnspecifiedError, "the request can't be built");
  }
  Note(*request, startedAt, failure);
  End(*request, failure);
}

void HttpEngine::StartTransfer(const zel::Ref<HttpRequest>& request, Clock::TimePoint startedAt) {
  std::shared_ptr<const CertificateTable> certificates;
  {
    const std::lock_guard lock(mutex_);
    certificates = certificates_;
  }
  const HttpRequest::Content& content = request->GetContent();
  EncodedBody body = encoder_.Encode(shared_->codings.Of(content.urlText), *content.body);
  auto transfer =
      std::make_unique<HttpTransfer>(request, std::move(body), *shared_, std::move(certificates), startedAt);
  CURL* const handle = transfer->Handle();
  const auto place = transfers_.emplace(handle, std::move(transfer)).first;
  const CURLMcode added = curl_multi_add_handle(multi_, handle);
  request->SetStarted(added == CURLM_OK);
  if (added == CURLM_OK) return;
  transfers_.erase(place);
  throw HttpTransferRefused{zel::eUnspecifiedError, curl_multi_strerror(added)};
}

void HttpEngine::EndCancelled() {
  const HttpOutcome cancelled = LocalFailure(zel::eOperationCancelled);
  for (auto transfer = transfers_.begin(); transfer != transfers_.end();) {
    // No End adds to the transfers: what a completion submits waits for the next turn of the loop.
    const auto next = std::next(transfer);
    if (transfer->second->Request().IsCancelled()) EndTransfer(transfer, cancelled);
    transfer = next;
  }
}

void HttpEngine::EndAll(const HttpOutcome& outcome) {
  while (!transfers_.empty()) EndTransfer(transfers_.begin(), outcome);
}

void HttpEngine::EndDone() {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    const auto transfer = transfers_.find(message->easy_handle);
    const HttpOutcome outcome = OutcomeOf(*transfer->second, message->data.result);
    constexpr std::uint16_t unsupportedMediaType = 415;
    if (outcome.status == unsupportedMediaType && StartAsPlain(transfer)) continue;
    EndTransfer(transfer, outcome);
  }
}

// If the body was compressed, the server may mean that. The request goes on as if nothing had been sent.
// False if it wasn't, or if memory runs out; then nothing has changed.
bool HttpEngine::StartAsPlain(Transfers::iterator refused) noexcept {
  const std::unique_ptr<HttpTransfer>& transfer = refused->second;
  if (transfer->Coding() == BodyCoding::none) return false;
  const zel::Ref<HttpRequest> request(&transfer->Request());
  const std::string& url = request->GetContent().urlText;
  try {
    shared_->codings.Refuse(url);
    WriteTrace(shared_->options.tracer.Get(), failureLevel,
               "veld_host\tHttp: " + WithoutCredentials(url) + " doesn't take bodies in " +
                   NameOf(transfer->Coding()) + "; it gets plain ones from now on");
  } catch (...) {
    return false;
  }
  const Clock::TimePoint startedAt = transfer->StartedAt();
  curl_multi_remove_handle(multi_, transfer->Handle());
  transfers_.erase(refused);
  StartAllowed(request, startedAt);
  return true;
}

void HttpEngine::EndStalled() {
  const auto now = std::chrono::steady_clock::now();
  const HttpClientOptions& options = shared_->options;
  for (auto transfer = transfers_.begin(); transfer != transfers_.end();) {
    const auto next = std::next(transfer);
    if (transfer->second->HasStalled(now)) {
      HttpOutcome stalled;
      stalled.code = zel::eOperationTimeout;
      stalled.error = "fewer than " + std::to_string(options.stallBytesPerSecond) + " bytes a second in " +
                      std::to_string(options.stallTimeoutMs) + " ms, with no answer";
      EndTransfer(transfer, stalled);
    }
    transfer = next;
  }
}

int HttpEngine::PollMs() const {
  using std::chrono::milliseconds;
  const auto now = std::chrono::steady_clock::now();
  milliseconds wait(maxPollMs);
  for (const auto& [handle, transfer] : transfers_) {
    wait = std::min(wait, std::chrono::ceil<milliseconds>(transfer->NextLook() - now));
  }
  return static_cast<int>(std::max<std::int64_t>(wait.count(), 0));
}

void HttpEngine::EndTransfer(Transfers::iterator transfer, const HttpOutcome& outcome) noexcept {
  const std::unique_ptr<HttpTransfer> owner = std::move(transfer->second);
  curl_multi_remove_handle(multi_, owner->Handle());
  transfers_.erase(transfer);
  HttpRequest& request = owner->Request();
  Note(request, owner->StartedAt(), outcome);
  End(request, outcome);
}

void HttpEngine::NotifyBackoff() noexcept {
  try {
    if (shared_->options.onBackoff) shared_->options.onBackoff();
  } catch (...) {
    // The request ends all the same.
  }
}

void HttpEngine::End(HttpRequest& request, const HttpOutcome& outcome) noexcept {
  if (request.End(outcome)) return;
  WriteTrace(shared_->options.tracer.Get(), failureLevel,
             "veld_host\tHttp: the completion of a request threw an exception; the client continues");
}

void HttpEngine::Note(const HttpRequest& request, Clock::TimePoint startedAt,
                      const HttpOutcome& outcome) noexcept {
  try {
    const std::string& url = request.GetContent().urlText;
    shared_->backoff.End(url, startedAt, outcome);
    const std::string why = FailureText(outcome);
    if (why.empty() || outcome.code == zel::eOperationCancelled) return;
    WriteTrace(shared_->options.tracer.Get(), failureLevel,
               "veld_host\tHttp: request to " + WithoutCredentials(url) + " failed: " + why);
  } catch (...) {
    // If memory runs out, the url's row stays as it is, and the line is lost.
  }
}

}  // namespace veld_report::host
