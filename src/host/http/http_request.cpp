#include "host/http/http_request.h"

#include <chrono>
#include <cstddef>
#include <utility>

#include "host/http/http_client.h"
#include "host/http/http_engine.h"

namespace veld_report::host {
namespace {

// The answer record. The contract only defines its status.
struct HttpResponse {
  std::uint8_t unused[network_services::responseStatusOffset] = {};
  std::uint16_t status = 0;
};
static_assert(offsetof(HttpResponse, status) == 80);

thread_local constinit const EndingRequest* ending = nullptr;

class EndingScope {
 public:
  explicit EndingScope(const EndingRequest& request) { ending = &request; }
  EndingScope(const EndingScope&) = delete;
  EndingScope& operator=(const EndingScope&) = delete;
  ~EndingScope() { ending = nullptr; }
};

}  // namespace

HttpRequest::HttpRequest(Content content, std::shared_ptr<HttpEngine> engine)
    : content_(std::move(content)), engine_(std::move(engine)) {}

zel::ResultCode HttpRequest::Wait(std::uint32_t timeoutMs) {
  return Guarded([&] {
    std::unique_lock lock(mutex_);
    const bool ended = changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return ended_; });
    return ended ? result_ : zel::eOperationTimeout;
  });
}

zel::ResultCode HttpRequest::Cancel() {
  return Guarded([&] {
    cancelled_.store(true, std::memory_order_release);
    engine_->Wake();
    return zel::sOk;
  });
}

bool HttpRequest::End(const HttpOutcome& outcome) noexcept {
  const bool completed = Complete(outcome);
  {
    const std::lock_guard lock(mutex_);
    result_ = outcome.code;
    ended_ = true;
  }
  // The caller has a reference. A waiter that wakes doesn't find the lock taken.
  changed_.notify_all();
  return completed;
}

const EndingRequest* CurrentEndingRequest() noexcept { return ending; }

bool HttpRequest::Complete(const HttpOutcome& outcome) noexcept {
  bool completed = false;
  try {
    const EndingRequest self{started_, outcome.status, FailureText(outcome), content_.records};
    const EndingScope scope(self);
    if (zel::Failed(outcome.code)) {
      content_.callback->OnRequestFailed(content_.url, outcome.code);
    } else {
      HttpResponse response;
      response.status = outcome.status;
      content_.callback->OnRequestCompleted(content_.url, &response);
    }
    completed = true;
  } catch (...) {
    // The request has ended all the same.
  }
  try {
    // Before Wait returns, so that a waiter then holds the only reference.
    content_.body.Reset();
    content_.callback.Reset();
  } catch (...) {
    completed = false;
  }
  return completed;
}

}  // namespace veld_report::host
