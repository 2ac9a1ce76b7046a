// FunctionNotification, which hands each finished request to a function of the application.
#pragma once

#include <functional>
#include <string>

#include "contract/requests_notification.h"
#include "host/base/host_object.h"

namespace veld_report::host {

// One request that has ended, in terms of the standard library.
struct FinishedRequest {
  std::string url;  // UTF-8, as the settings gave it
  // 0: answered 200 and its items are gone from the queue. 0x80000071 "Invalid result": another status. Any
  // other code: no answer. In the last two cases the items stay in their queue.
  zel::ResultCode result = zel::sOk;
};

// The function runs on a thread of the HTTP client, possibly after the sender is gone, and may run on several
// threads at once. It should return soon: the sender waits for it. What it throws is dropped.
class FunctionNotification final : public HostObject<orvel::IRequestsNotification> {
 public:
  using Function = std::function<void(const FinishedRequest&)>;

  // An empty function is allowed.
  explicit FunctionNotification(Function function);

  zel::ResultCode OnRequestFinished(const orvel::RequestNotification* notification) override;

 private:
  const Function function_;
};

}  // namespace veld_report::host
