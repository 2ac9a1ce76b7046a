// The HTTP client: one thread that makes one request after the other, over plain sockets. Enough to show what
// the module expects; a client for use takes a library, with TLS, time limits for each phase and proxies.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "contract/http.h"
#include "counted.h"

namespace own_host {

class Request;

class HttpClient final
    : public Counted<network_services::IHttpClient, network_services::IHttpClientCertificates> {
 public:
  HttpClient();
  // Ends what is still to do with "Operation cancelled". Not on the client's own thread.
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

  // This client knows no certificates, but without the operation no settings are accepted.
  zel::ResultCode SetCertificates(const network_services::CertificateRange*) override { return zel::sOk; }

 private:
  void Loop();

  std::mutex lock_;  // guards all below; not held across a request
  std::condition_variable changed_;
  std::deque<zel::Ref<Request>> waiting_;
  bool stop_ = false;
  std::thread thread_;  // last: it uses all the others
};

// Hands out one client. The host keeps the client, so that its thread ends when the host says so.
class HttpClientFactory final : public Counted<network_services::IHttpClientFactory> {
 public:
  explicit HttpClientFactory(zel::Ref<HttpClient> client) : client_(std::move(client)) {}
  zel::ResultCode CreateClient(network_services::IHttpClient** out) override {
    *out = zel::Ref<HttpClient>(client_).Detach();
    return zel::sOk;
  }

 private:
  zel::Ref<HttpClient> client_;
};

}  // namespace own_host
