#include "host/kit/no_http.h"

#include "host/base/host_object.h"

namespace veld_report::host {
namespace {

using network_services::IHttpClient;
using network_services::IHttpClientCertificates;
using network_services::IHttpClientFactory;

class NoClient final : public HostObject<IHttpClient, IHttpClientCertificates> {
 public:
  zel::ResultCode ReservedClientOperation0() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation1() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation2() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation3() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation4() override { return zel::eNotImplemented; }
  zel::ResultCode MakeRequestAsync(const zel::wstring&, const network_services::HttpRequestOptions&,
                                   const std::uint32_t*, zel::IIO*, void*,
                                   network_services::IAsyncHttpRequestCallback*,
                                   network_services::IHttpRequestHandle**) override {
    return zel::eNotSupported;
  }
  zel::ResultCode SetCertificates(const network_services::CertificateRange*) override { return zel::sOk; }
};

class NoHttp final : public HostObject<IHttpClientFactory> {
 public:
  zel::ResultCode CreateClient(IHttpClient** out) override {
    return Guarded([&] {
      *out = MakeObject<NoClient>().Detach();
      return zel::sOk;
    });
  }
};

}  // namespace

zel::Ref<IHttpClientFactory> CreateNoHttp() { return MakeObject<NoHttp>(); }

}  // namespace veld_report::host
