// The simulated HTTP client: it checks each body against what the walk's reader has handed out, and answers
// as the script says, at its virtual time. Without an answer in the script it is status 200 after a
// millisecond.
#pragma once

#include <vector>

#include "contract/http.h"
#include "tests/world/host.h"

namespace veld_report::world {

class Request final : public Fake<network_services::IHttpRequestHandle> {
 public:
  using Fake::Fake;
  zel::ResultCode ReservedRequestOperation() override { return Reserved(); }
  zel::ResultCode Wait(std::uint32_t timeoutMs) override;
  zel::ResultCode Cancel() override;
  // Tells the callback, and gives up the client's references.
  void Report();

  std::uint32_t id = 0;
  int url = 0;
  const Reader* reader = nullptr;
  std::vector<std::uint64_t> tokens;
  std::uint16_t status = 0;
  zel::ResultCode failure = 0;  // where set, no answer comes
  std::uint64_t dueMs = 0;
  zel::ResultCode waitResult = 0;
  zel::Ref<zel::IIO> body;
  zel::Ref<network_services::IAsyncHttpRequestCallback> callback;

 private:
  bool cancelled_ = false;
};

class Client final : public Fake<network_services::IHttpClient, network_services::IHttpClientCertificates> {
 public:
  using Fake::Fake;
  zel::ResultCode QueryInterface(zel::InterfaceId interfaceId, void** out) override;
  zel::ResultCode ReservedClientOperation0() override { return Reserved(); }
  zel::ResultCode ReservedClientOperation1() override { return Reserved(); }
  zel::ResultCode ReservedClientOperation2() override { return Reserved(); }
  zel::ResultCode ReservedClientOperation3() override { return Reserved(); }
  zel::ResultCode ReservedClientOperation4() override { return Reserved(); }
  zel::ResultCode MakeRequestAsync(const zel::wstring& url,
                                   const network_services::HttpRequestOptions& options,
                                   const std::uint32_t* requestKind, zel::IIO* body, void* reserved,
                                   network_services::IAsyncHttpRequestCallback* callback,
                                   network_services::IHttpRequestHandle** request) override;
  zel::ResultCode SetCertificates(const network_services::CertificateRange* table) override;

 private:
  // Fills url, reader and tokens, or fails.
  void CheckRequest(const zel::wstring& url, zel::IIO& body, Request& request);
  void CheckBody(const Request& request, std::string_view body);
  std::string body_;
  std::string expected_;
};

class ClientFactory final : public Fake<network_services::IHttpClientFactory> {
 public:
  explicit ClientFactory(Host& owner) : Fake(owner), client(owner) {}
  zel::ResultCode CreateClient(network_services::IHttpClient** out) override;
  Client client;
};

// Row i of the certificates is (certificates + i, certificates + i + 1).
extern const char certificates[32];

}  // namespace veld_report::world
