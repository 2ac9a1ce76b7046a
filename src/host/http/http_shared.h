// What the clients of one factory share.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/http/backoff.h"
#include "host/http/http_client.h"
#include "host/http/proxy.h"
#include "host/http/request_gate.h"
#include "host/http/url_codings.h"

namespace veld_report::host {

// Threads: any.
class HttpShared {
 public:
  HttpShared(HttpClientOptions givenOptions, ProxySettings givenProxy, std::shared_ptr<Clock> clock,
             std::function<double()> random)
      : options(std::move(givenOptions)),
        proxy(std::move(givenProxy)),
        backoff(options.backoff, std::move(clock), std::move(random)) {}

  void Announce(std::vector<std::string> urls) {
    const std::lock_guard lock(mutex_);
    announced_ = std::move(urls);
  }
  // An announcement is used once.
  std::optional<std::vector<std::string>> TakeAnnounced() {
    const std::lock_guard lock(mutex_);
    return std::exchange(announced_, std::nullopt);
  }

  const HttpClientOptions options;
  const ProxySettings proxy;
  Backoff backoff;
  RequestGate gate;
  UrlCodings codings;

 private:
  std::mutex mutex_;  // guards the member below
  std::optional<std::vector<std::string>> announced_;
};

}  // namespace veld_report::host
