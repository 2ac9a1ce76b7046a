#include "host/http/http_client.h"

#include <curl/curl.h>
#include <openssl/crypto.h>

#include <cstdlib>
#include <random>
#include <stdexcept>
#include <thread>
#include <utility>

#include "host/base/host_object.h"
#include "host/base/text.h"
#include "host/base/write_trace.h"
#include "host/http/certificates.h"
#include "host/http/http_engine.h"
#include "host/http/http_request.h"
#include "host/http/http_shared.h"
#include "host/http/own_headers.h"
#include "host/platform/file.h"
#include "host/platform/service_thread.h"

namespace veld_report::host {
namespace {

using network_services::IHttpClient;
using network_services::IHttpClientCertificates;

constexpr std::uint32_t requestWithBody = 1;

class HttpClient final : public HostObject<IHttpClient, IHttpClientCertificates> {
 public:
  explicit HttpClient(std::shared_ptr<HttpShared> shared)
      : shared_(std::move(shared)),
        engine_(std::make_shared<HttpEngine>(shared_)),
        thread_(StartServiceThread("veld-http", [engine = engine_] { engine->Loop(); })) {}

  zel::ResultCode ReservedClientOperation0() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation1() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation2() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation3() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation4() override { return zel::eNotImplemented; }

  zel::ResultCode MakeRequestAsync(const zel::wstring& url,
                                   const network_services::HttpRequestOptions& options,
                                   const std::uint32_t* requestKind, zel::IIO* body, void*,
                                   network_services::IAsyncHttpRequestCallback* callback,
                                   network_services::IHttpRequestHandle** request) override {
    return Guarded([&] {
      if (!requestKind || *requestKind != requestWithBody || !body || !callback || !request) {
        return zel::eInvalidArgument;
      }
      HttpRequest::Content content{url, ToUtf8(url.View()), {}, zel::Ref<zel::IIO>(body), {}};
      if (shared_->options.takeRecords) content.records = shared_->options.takeRecords();
      content.callback = zel::Ref<network_services::IAsyncHttpRequestCallback>(callback);
      for (const network_services::HttpHeader& header : options.headers) {
        // For libcurl "Name:" omits a header, and "Name;" is an empty one.
        content.headers.push_back(header.value.empty() ? ToStd(header.name) + ";"
                                                       : ToStd(header.name) + ": " + ToStd(header.value));
      }
      const zel::Ref<HttpRequest> made = MakeObject<HttpRequest>(std::move(content), engine_);
      const zel::ResultCode code = engine_->Submit(made);
      if (!zel::Failed(code)) *request = zel::Ref<HttpRequest>(made).Detach();
      return code;
    });
  }

  zel::ResultCode SetCertificates(const network_services::CertificateRange* table) override {
    return Guarded([&] {
      const std::optional<std::vector<std::string>> urls = shared_->TakeAnnounced();
      try {
        engine_->SetCertificates(ReadCertificateTable(*table, urls.value_or(std::vector<std::string>())));
      } catch (const std::invalid_argument& error) {
        WriteTrace(shared_->options.tracer.Get(), failureLevel,
                   std::string("veld_host\tHttp: certificates refused: ") + error.what());
        return zel::eInvalidArgument;
      }
      if (urls) shared_->backoff.KeepOnly(*urls);
      return zel::sOk;
    });
  }

 protected:
  ~HttpClient() override {
    engine_->Stop();
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();
    } else {
      thread_.join();
    }
  }

 private:
  const std::shared_ptr<HttpShared> shared_;
  const std::shared_ptr<HttpEngine> engine_;
  std::thread thread_;
};

class Factory final : public HostObject<HttpClientFactory> {
 public:
  explicit Factory(std::shared_ptr<HttpShared> shared) : shared_(std::move(shared)) {}

  zel::ResultCode CreateClient(IHttpClient** out) override {
    return Guarded([&] {
      *out = nullptr;
      *out = MakeObject<HttpClient>(shared_).Detach();
      return zel::sOk;
    });
  }
  void AnnounceUrls(std::vector<std::string> urls) override { shared_->Announce(std::move(urls)); }
  void AllowRequests(bool allowed) override { shared_->gate.Allow(allowed); }
  void SetCodings(CodingTable codings) override { shared_->codings.Set(std::move(codings)); }
  std::vector<HttpClientState> States() const override { return shared_->backoff.States(); }
  std::optional<HttpClientState> StateOf(const std::string& url) const override {
    return shared_->backoff.StateOf(url);
  }
  std::chrono::milliseconds HeldBackFor(const std::string& url) const override {
    return shared_->backoff.HeldBackFor(url);
  }
  std::uint16_t TakeRefusal(const std::string& url) override { return shared_->backoff.TakeRefusal(url); }
  void ExpectRefusal(const std::string& url) override { shared_->backoff.ExpectRefusal(url); }
  void NoteStandingBack(const std::string& url, std::uint16_t status) override {
    shared_->backoff.NoteStandingBack(url, status);
  }

 private:
  const std::shared_ptr<HttpShared> shared_;
};

void InitializeLibraries() {
  static const bool initialized = [] {
    // A client's thread may be busy when the process exits; OpenSSL's own clean-up at exit would free what it
    // is using.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    return curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  }();
  if (!initialized) throw std::runtime_error("libcurl can't be initialised; is there memory left?");
}

// Without it every request over TLS would fail, and the records would only wait.
void CheckCaFile(const std::string& file) {
  if (file.empty()) return;
  const std::error_code error = ReadProblem(file);
  if (!error) return;
  throw std::invalid_argument("caFile " + file + ": " + error.message() +
                              "; name a file of certificates in PEM form that this user can read");
}

std::function<double()> MachineRandom() {
  const auto generator = std::make_shared<std::mt19937_64>(std::random_device()());
  return [generator] { return std::uniform_real_distribution<double>(0, 1)(*generator); };
}

}  // namespace

zel::Ref<HttpClientFactory> CreateHttpClientFactory(const HttpClientOptions& options) {
  if (options.totalTimeoutMs == 0 || options.connectTimeoutMs == 0 || options.stallTimeoutMs == 0) {
    throw std::invalid_argument("HttpClientOptions: a time limit of 0 would mean none; give one above 0");
  }
  CheckOwnHeaders(options);
  CheckCaFile(options.caFile);
  InitializeLibraries();
  return MakeObject<Factory>(std::make_shared<HttpShared>(
      options, ReadProxySettings(options, [](const char* name) { return std::getenv(name); }),
      options.clock ? options.clock : std::make_shared<SystemClock>(),
      options.random ? options.random : MachineRandom()));
}

}  // namespace veld_report::host
