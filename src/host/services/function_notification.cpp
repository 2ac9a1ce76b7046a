#include "host/services/function_notification.h"

#include <utility>

#include "host/base/text.h"

namespace veld_report::host {

FunctionNotification::FunctionNotification(Function function) : function_(std::move(function)) {}

zel::ResultCode FunctionNotification::OnRequestFinished(const orvel::RequestNotification* notification) {
  return Guarded([&] {
    if (function_) function_({.url = ToStd(notification->url), .result = notification->resultCode});
    return zel::sOk;
  });
}

}  // namespace veld_report::host
