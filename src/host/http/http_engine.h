// HttpEngine: the thread of a client and its state, libcurl's multi handle and the requests in flight.
//
// It is separate from the client so that it can outlive it: a client's last Release may come from a
// completion on the engine's own thread.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "host/http/body_encoder.h"
#include "host/http/certificates.h"
#include "host/http/http_request.h"
#include "host/http/http_shared.h"
#include "host/http/http_transfer.h"

namespace veld_report::host {

// Life: made -> looping (one thread in Loop) -> stopped. Stop ends every request as cancelled.
// Threads: any, except for Loop. Only Loop blocks.
class HttpEngine {
 public:
  // Throws std::bad_alloc, std::runtime_error.
  explicit HttpEngine(std::shared_ptr<HttpShared> shared);
  HttpEngine(const HttpEngine&) = delete;
  HttpEngine& operator=(const HttpEngine&) = delete;
  ~HttpEngine();

  void Loop();
  void Stop();

  // Accepts a request, which will get its End, or returns 0x8000006a "Invalid state" once stopped.
  zel::ResultCode Submit(zel::Ref<HttpRequest> request);
  // Makes the loop check its requests after one was cancelled.
  void Wake();
  // For the requests that start from now on.
  void SetCertificates(CertificateTable certificates);

 private:
  using Transfers = std::unordered_map<CURL*, std::unique_ptr<HttpTransfer>>;

  // Returns false once stopped. Moves the accepted requests out in either case.
  bool TakeIncoming(std::vector<zel::Ref<HttpRequest>>* incoming);
  void Start(const zel::Ref<HttpRequest>& request);
  void StartAllowed(const zel::Ref<HttpRequest>& request, Clock::TimePoint startedAt);
  void Perform(CURLM* multi);
  void StartTransfer(const zel::Ref<HttpRequest>& request, Clock::TimePoint startedAt);
  void EndCancelled();
  void EndDone();
  bool StartAsPlain(Transfers::iterator refused) noexcept;
  void EndStalled();
  int PollMs() const;
  void EndAll(const HttpOutcome& outcome);
  void EndTransfer(Transfers::iterator transfer, const HttpOutcome& outcome) noexcept;
  void NotifyBackoff() noexcept;
  void End(HttpRequest& request, const HttpOutcome& outcome) noexcept;
  void Note(const HttpRequest& request, Clock::TimePoint startedAt, const HttpOutcome& outcome) noexcept;

  const std::shared_ptr<HttpShared> shared_;

  std::mutex mutex_;  // guards the four members below; held briefly, only across curl_multi_wakeup
  CURLM* multi_;      // null once the loop has ended; the loop itself uses it without the lock
  bool stopped_ = false;
  std::vector<zel::Ref<HttpRequest>> incoming_;
  std::shared_ptr<const CertificateTable> certificates_;

  // Only used by the loop.
  Transfers transfers_;
  BodyEncoder encoder_;
};

}  // namespace veld_report::host
