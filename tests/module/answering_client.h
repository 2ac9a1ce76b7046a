// An HTTP client without a network: it answers each request by itself, at once, on a thread of its own, late
// or never, and counts the items of the bodies that it answered with 200.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "contract/http.h"
#include "host/base/host_object.h"

namespace veld_report::tests {

enum class Answer { onThread, refused, atOnce, failure, late };

// Threads: any.
class AnsweringClient final
    : public host::HostObject<network_services::IHttpClient, network_services::IHttpClientCertificates,
                              network_services::IHttpClientFactory> {
 public:
  // The answers to the first requests, in turn; all later ones are answered with 200 on a thread.
  explicit AnsweringClient(std::vector<Answer> answers = {}) : answers_(std::move(answers)) {}

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
  zel::ResultCode SetCertificates(const network_services::CertificateRange*) override { return zel::sOk; }
  zel::ResultCode CreateClient(network_services::IHttpClient** out) override;

  // Answers the late ones with 200, and waits for all threads. No request may be made any more.
  void Finish();
  std::uint64_t Requests() const { return requests_; }
  std::uint64_t DeliveredItems() const { return delivered_; }

 private:
  class Request;
  const std::vector<Answer> answers_;
  std::atomic<std::uint64_t> requests_ = 0, delivered_ = 0;
  std::mutex mutex_;
  std::vector<std::thread> threads_;
  std::vector<std::function<void()>> late_;
};

}  // namespace veld_report::tests
