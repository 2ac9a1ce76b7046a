#include "host/kit/stoppable_http.h"

#include <utility>

namespace veld_report::host {
namespace {

using network_services::HttpRequestOptions;
using network_services::IAsyncHttpRequestCallback;
using network_services::IHttpClient;
using network_services::IHttpClientCertificates;
using network_services::IHttpRequestHandle;

class StoppableClient final : public HostObject<IHttpClient> {
 public:
  StoppableClient(zel::Ref<IHttpClient> inner, std::shared_ptr<HttpStop> stop)
      : inner_(std::move(inner)), stop_(std::move(stop)) {}

  zel::ResultCode QueryInterface(zel::InterfaceId interfaceId, void** out) override {
    // The certificates go to the inner client; nobody asks that interface for this one again.
    if (interfaceId == IHttpClientCertificates::iid) return inner_->QueryInterface(interfaceId, out);
    return HostObject::QueryInterface(interfaceId, out);
  }

  zel::ResultCode ReservedClientOperation0() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation1() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation2() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation3() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation4() override { return zel::eNotImplemented; }

  zel::ResultCode MakeRequestAsync(const zel::wstring& url, const HttpRequestOptions& options,
                                   const std::uint32_t* requestKind, zel::IIO* body, void* reserved,
                                   IAsyncHttpRequestCallback* callback,
                                   IHttpRequestHandle** request) override {
    const zel::ResultCode code =
        inner_->MakeRequestAsync(url, options, requestKind, body, reserved, callback, request);
    if (!zel::Failed(code)) stop_->Begin(zel::Ref<IHttpRequestHandle>(*request));
    return code;
  }

 private:
  const zel::Ref<IHttpClient> inner_;
  const std::shared_ptr<HttpStop> stop_;
};

}  // namespace

void HttpStop::Stop() {
  zel::Ref<IHttpRequestHandle> request;
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    request = std::move(last_);
  }
  if (request) request->Cancel();
}

void HttpStop::Begin(zel::Ref<IHttpRequestHandle> request) {
  zel::Ref<IHttpRequestHandle> toCancel;
  {
    const std::lock_guard lock(mutex_);
    if (stopped_) {
      toCancel = std::move(request);
    } else {
      std::swap(last_, request);
    }
  }
  if (toCancel) toCancel->Cancel();
}

StoppableHttpFactory::StoppableHttpFactory(zel::Ref<network_services::IHttpClientFactory> inner,
                                           std::shared_ptr<HttpStop> stop)
    : inner_(std::move(inner)), stop_(std::move(stop)) {}

zel::ResultCode StoppableHttpFactory::CreateClient(IHttpClient** out) {
  return Guarded([&] {
    zel::Ref<IHttpClient> client;
    const zel::ResultCode code = inner_->CreateClient(client.Out());
    if (zel::Failed(code)) return code;
    *out = MakeObject<StoppableClient>(std::move(client), stop_).Detach();
    return zel::sOk;
  });
}

}  // namespace veld_report::host
