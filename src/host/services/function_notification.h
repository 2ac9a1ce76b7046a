// FunctionNotification passes each completed request to a function of the application.
#pragma once

#include <functional>

#include "contract/requests_notification.h"
#include "host/base/host_object.h"
#include "veld_report/finished_request.h"

namespace veld_report::host {

using veld_report::FinishedRequest;

// The function runs on a thread of the HTTP client, possibly after the sender is gone, and on several threads
// at once. It should return soon, since the sender waits for it. Its exceptions are dropped.
class FunctionNotification final : public HostObject<orvel::IRequestsNotification> {
 public:
  using Function = std::function<void(const FinishedRequest&)>;

  // `function` may be empty.
  explicit FunctionNotification(Function function);

  zel::ResultCode OnRequestFinished(const orvel::RequestNotification* notification) override;

 private:
  const Function function_;
};

}  // namespace veld_report::host
