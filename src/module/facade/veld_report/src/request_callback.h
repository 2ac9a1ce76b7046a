// The request callback keeps the books of one packet. The HTTP client reports to it, and it decides the fate
// of the packet's items: on status 200 it acknowledges them, in every other case it gives them back at its
// end.
//
// Life: filling (the walk holds the only reference) -> in flight (the client holds one too) -> acknowledged,
// refused or failed by one of its two operations; or dropped without a request. It has no link to the sender
// and may outlive it: an answer that comes after the walk has given up waiting still acknowledges the items.
//
// Threads: the walk fills it on the timer's thread, its operations run on the client's, and its end on
// either.
#pragma once

#include <atomic>
#include <cstdint>

#include "contract/http.h"
#include "contract/queue.h"
#include "contract/requests_notification.h"
#include "facade/veld_report/src/veld_report_sender.h"
#include "types/vector.h"
#include "zel/rtl/objclient.h"
#include "zel/rtl/object.h"

namespace orvel::veld_report {

class VeldReportSenderImpl::AsyncHttpRequestCallbackImpl
    : public network_services::IAsyncHttpRequestCallback,
      public zel::ObjectRootEx<zel::AllocatorTracerLocatorStrategy> {
 public:
  explicit AsyncHttpRequestCallbackImpl(zel::IServiceLocator* source) : ObjectRootEx(source) {}

  zel::ResultCode QueryInterface(zel::InterfaceId interfaceId, void** out) override;
  zel::ResultCode OnRequestCompleted(const zel::wstring& url, const void* response) override;
  zel::ResultCode OnRequestFailed(const zel::wstring& url, zel::ResultCode code) override;

  // Runs before the destructor: gives the tokens back unless they were acknowledged.
  void FinalRelease();

  // The reader of the tokens; reset once they are acknowledged.
  zel::Ref<IAckConsumer> consumer;
  // One for each item, in reading order.
  zel::vector_t<std::uint64_t> tokens;
  // The walk reads these three after its wait. A late answer may write them at that moment; at worst that
  // counts a packet in the wrong sum of one cycle. `sent` is stored first and published by the other, so
  // a packet is never missing from both.
  std::atomic<std::uint32_t> needToSend{0};  // bytes not acknowledged
  std::atomic<std::uint32_t> sent{0};        // bytes acknowledged
  std::atomic<zel::ResultCode> result{zel::eNotInitialized};
  // Notified of completed requests; may be null.
  zel::Ref<IRequestsNotification> notification;

 private:
  void Acknowledge();
  void NotifyRequestFinished(zel::ResultCode resultCode, const zel::wstring& url);
};

using RequestCallbackObject =
    zel::Object<VeldReportSenderImpl::AsyncHttpRequestCallbackImpl, zel::LocatorObjectFactory>;

// Makes a callback with the locator's allocator, with one reference for the caller.
zel::ResultCode CreateRequestCallback(zel::IServiceLocator* locator, RequestCallbackObject** out);

}  // namespace orvel::veld_report
