// StoppableHttp: the HTTP client of a kit that is about to close.
//
// The sender cancels the request that it waits for when it is released. Between the start of a request and
// its wait there is a moment at which it has nothing to cancel yet, and then its release takes as long as the
// wait, 5 seconds. Ending the requests from the client's side as well leaves no such moment.
#pragma once

#include <memory>
#include <mutex>

#include "contract/http.h"
#include "host/base/host_object.h"

namespace veld_report::host {

// What a factory shares with its clients. Threads: any.
class HttpStop {
 public:
  // Cancels the request in flight and every later one as soon as it has begun.
  void Stop();
  // Notes a request that has begun, and cancels it if the stop has come.
  void Begin(zel::Ref<network_services::IHttpRequestHandle> request);

 private:
  std::mutex mutex_;  // guards both; not held across Cancel
  bool stopped_ = false;
  // The sender has one request at a time, so the last one is the only one that it can be waiting for.
  zel::Ref<network_services::IHttpRequestHandle> last_;
};

// Hands on everything to `inner`. Its clients offer what the inner ones do.
class StoppableHttpFactory final : public HostObject<network_services::IHttpClientFactory> {
 public:
  StoppableHttpFactory(zel::Ref<network_services::IHttpClientFactory> inner, std::shared_ptr<HttpStop> stop);

  zel::ResultCode CreateClient(network_services::IHttpClient** out) override;

 private:
  const zel::Ref<network_services::IHttpClientFactory> inner_;
  const std::shared_ptr<HttpStop> stop_;
};

}  // namespace veld_report::host
