// An HTTP client whose answers the test writes down in advance.
//
// It polices its caller (arguments of MakeRequestAsync, a body at position 0) and itself: each accepted
// request gets exactly one completion; what a test leaves open fails it in CheckAllCompleted.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "contract/http.h"
#include "tests/fakes/fake_object.h"

namespace veld_report::fakes {

// One answer: what comes, when, and what Wait says.
struct HttpAnswer {
  enum class When {
    inWait,       // on another thread, while Wait waits for it
    atOnce,       // inside MakeRequestAsync, on the same thread
    onThread,     // on another thread that starts in MakeRequestAsync
    late,         // Wait gives up at once; the test calls Complete
    untilCancel,  // Wait blocks until Cancel, which ends the request with 0x80000051
  };
  std::uint16_t status = 200;  // not looked at where `failure` is set
  std::optional<zel::ResultCode> failure;
  When when = When::inWait;
  zel::ResultCode waitResult = zel::sOk;

  static HttpAnswer Status(std::uint16_t status, When when = When::inWait) { return {status, {}, when, 0}; }
  static HttpAnswer Failure(zel::ResultCode code, zel::ResultCode waitResult = zel::sOk) {
    return {0, code, When::inWait, waitResult};
  }
  static HttpAnswer Late(zel::ResultCode waitResult) { return {200, {}, When::late, waitResult}; }
  static HttpAnswer Never() { return {200, {}, When::untilCancel, zel::eOperationCancelled}; }
};

class FakeHttpClient final
    : public FakeObject<network_services::IHttpClient, network_services::IHttpClientCertificates> {
 public:
  using Row = std::pair<const void*, const void*>;
  struct Sent {
    std::u16string url;
    std::string body;
  };

  explicit FakeHttpClient(FakeWorld& world) : FakeObject(world, "HttpClient") {}

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

  // The answers of the coming requests, in order; when they run out, `usual` answers.
  void Answer(HttpAnswer answer);
  HttpAnswer usual;

  std::vector<Sent> TakeSent();
  // Completes the first request that is still open, on this thread.
  void Complete(std::uint16_t status);
  void JoinThreads();
  // To be called when the sender is gone.
  void CheckAllCompleted();

  std::vector<Row> certificates;

 private:
  class Request;

  std::mutex lock_;
  std::condition_variable changed_;
  std::deque<HttpAnswer> answers_;
  std::vector<Sent> sent_;
  std::vector<Request*> requests_;
  std::vector<std::thread> threads_;
};

class FakeHttpClientFactory final : public FakeObject<network_services::IHttpClientFactory> {
 public:
  FakeHttpClientFactory(FakeWorld& world, FakeHttpClient* client)
      : FakeObject(world, "HttpClientFactory"), client_(client) {}

  zel::ResultCode CreateClient(network_services::IHttpClient** out) override;

 private:
  FakeHttpClient* const client_;
};

}  // namespace veld_report::fakes
