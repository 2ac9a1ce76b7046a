#include "facade/veld_report/src/request_callback.h"

#include "trace/trace_stream.h"
#include "types/text_conversion.h"

namespace orvel::veld_report {
namespace {

// Settles one token and ignores the outcome, even if the queue service throws. The other tokens must be
// settled all the same, and this runs inside a Release.
template <class Settle>
void Settled(Settle&& settle) noexcept {
  try {
    settle();
  } catch (...) {
  }
}

}  // namespace

using Callback = VeldReportSenderImpl::AsyncHttpRequestCallbackImpl;

zel::ResultCode Callback::QueryInterface(zel::InterfaceId interfaceId, void** out) {
  if (interfaceId != 0 && interfaceId != network_services::IAsyncHttpRequestCallback::iid) {
    *out = nullptr;
    return zel::eInterfaceNotSupported;
  }
  *out = static_cast<network_services::IAsyncHttpRequestCallback*>(this);
  AddRef();
  return zel::sOk;
}

zel::ResultCode Callback::OnRequestCompleted(const zel::wstring& url, const void* response) {
  const std::uint16_t status = network_services::ResponseStatus(response);
  if (status == 200) {
    zel::TraceLine(tracer.Get(), zel::normalLevel, [&](zel::TraceStream& line) {
      line.PutText("Request for url ").PutWide(url).PutText(" finished with success");
    });
    Acknowledge();
    NotifyRequestFinished(zel::sOk, url);
  } else {
    zel::TraceLine(tracer.Get(), zel::normalLevel, [&](zel::TraceStream& line) {
      line.PutText("Request for url ").PutWide(url);
      line.PutText(" failed. Result is sOk, but status code is ").PutUInt32(status);
    });
    NotifyRequestFinished(zel::eInvalidResult, url);
  }
  // Whatever the status, the transport worked, so the next packet may be sent.
  result.store(zel::sOk, std::memory_order_release);
  return zel::sOk;
}

zel::ResultCode Callback::OnRequestFailed(const zel::wstring& url, zel::ResultCode code) {
  zel::TraceLine(tracer.Get(), zel::normalLevel, [&](zel::TraceStream& line) {
    line.PutText("Request for url ").PutWide(url).PutText(" failed. Error: ").PutInt32(code);
  });
  result.store(code, std::memory_order_release);
  NotifyRequestFinished(code, url);
  return zel::sOk;
}

void Callback::FinalRelease() {
  if (!consumer) return;
  for (const std::uint64_t& token : tokens) Settled([&] { consumer->ReturnItem(&token); });
}

void Callback::Acknowledge() {
  for (const std::uint64_t& token : tokens) Settled([&] { consumer->Ack(&token); });
  sent.store(needToSend.load(std::memory_order_relaxed), std::memory_order_release);
  needToSend.store(0, std::memory_order_release);
  // Keeps FinalRelease from giving the tokens back.
  consumer.Reset();
}

void Callback::NotifyRequestFinished(zel::ResultCode resultCode, const zel::wstring& url) {
  if (!notification) return;
  RequestNotification record;
  record.source = zel::string("VeldRep");
  record.resultCode = resultCode;
  // If memory runs out, the url stays empty and the notification is sent all the same.
  static_cast<void>(zel::WideToUtf8(url.View(), &record.url));
  notification->OnRequestFinished(&record);
}

zel::ResultCode CreateRequestCallback(zel::IServiceLocator* locator, RequestCallbackObject** out) {
  return zel::LocatorObjectFactory::Make(locator, out);
}

}  // namespace orvel::veld_report
