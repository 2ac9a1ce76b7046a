// HttpRequest: one request of the kit's client, with its content and the handle to wait for it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "contract/http.h"
#include "host/base/host_object.h"
#include "host/http/http_outcome.h"
#include "veld_report/queue_ledger.h"

namespace veld_report::host {

class HttpEngine;

// Life: in flight -> ended. It holds the body and the callback while in flight; End releases them.
class HttpRequest final : public HostObject<network_services::IHttpRequestHandle> {
 public:
  struct Content {
    zel::wstring url;
    std::string urlText;               // the same in UTF-8
    std::vector<std::string> headers;  // "Name: value"
    zel::Ref<zel::IIO> body;
    zel::Ref<network_services::IAsyncHttpRequestCallback> callback;
    ItemCount records{};
  };
  HttpRequest(Content content, std::shared_ptr<HttpEngine> engine);

  zel::ResultCode ReservedRequestOperation() override { return zel::eNotImplemented; }
  zel::ResultCode Wait(std::uint32_t timeoutMs) override;
  zel::ResultCode Cancel() override;

  // For the engine. From submission on, the content's body and callback are for the engine's thread only.
  const Content& GetContent() const { return content_; }
  // Of the factory's gate; none: it was shut, and the request ends as cancelled.
  void SetAdmission(std::optional<std::uint64_t> admission) {
    admission_ = admission.value_or(0);
    if (!admission) cancelled_.store(true, std::memory_order_release);
  }
  std::uint64_t Admission() const { return admission_; }
  // Whether it got as far as the network.
  void SetStarted(bool started) { started_ = started; }
  bool IsCancelled() const { return cancelled_.load(std::memory_order_acquire); }
  // Calls the completion, releases body and callback, and then wakes the waiters. Called once. Returns false
  // if the completion threw.
  bool End(const HttpOutcome& outcome) noexcept;

 private:
  bool Complete(const HttpOutcome& outcome) noexcept;

  Content content_;
  const std::shared_ptr<HttpEngine> engine_;
  std::atomic<bool> cancelled_ = false;  // set before the engine is woken under its lock
  std::uint64_t admission_ = 0;
  bool started_ = false;

  std::mutex mutex_;  // guards the two members below
  std::condition_variable changed_;
  bool ended_ = false;
  zel::ResultCode result_ = zel::eNotInitialized;
};

}  // namespace veld_report::host
