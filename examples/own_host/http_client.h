// The HTTP client: a thread for each request, over plain sockets. Enough to show what the module expects. A
// production client uses a library, with TLS, reused connections, proxies and a time limit for the whole
// request.
#pragma once

#include <memory>

#include "counted.h"
#include "veld_report/contract/http.h"

namespace own_host {

class HttpClient final
    : public Counted<network_services::IHttpClient, network_services::IHttpClientCertificates> {
 public:
  HttpClient();
  // Cancels what is left ("Operation cancelled") and waits for the completions. Inside a completion it waits
  // for the others.
  ~HttpClient() override;

  zel::ResultCode ReservedClientOperation0() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation1() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation2() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation3() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation4() override { return zel::eNotImplemented; }
  zel::ResultCode MakeRequestAsync(const zel::wstring& url,
                                   const network_services::HttpRequestOptions& options,
                                   const std::uint32_t* requestKind, zel::IIO* body, void* reserved,
                                   network_services::IAsyncHttpRequestCallback* callback,
                                   network_services::IHttpRequestHandle** request) override;

  // This client supports no certificates, but without this operation settings are refused.
  zel::ResultCode SetCertificates(const network_services::CertificateRange*) override { return zel::sOk; }

 private:
  struct InFlight;
  const std::shared_ptr<InFlight> inFlight_;  // shared with the requests' threads
};

class HttpClientFactory final : public Counted<network_services::IHttpClientFactory> {
 public:
  zel::ResultCode CreateClient(network_services::IHttpClient** out) override {
    *out = Make<HttpClient>().Detach();
    return zel::sOk;
  }
};

}  // namespace own_host
