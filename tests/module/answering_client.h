// An HTTP client without a network: it answers each request by itself, at once, on a thread of its own, late
// or never, and counts the items of the bodies that it answered with 200.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "contract/http.h"
#include "host/base/host_object.h"
#include "server/message_check.h"

namespace veld_report::tests {

enum class Answer { refused, atOnce, failure, late, onThread };

// Threads: any.
class AnsweringClient final
    : public host::HostObject<network_services::IHttpClient, network_services::IHttpClientCertificates,
                              network_services::IHttpClientFactory> {
 public:
  zel::ResultCode ReservedClientOperation0() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation1() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation2() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation3() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation4() override { return zel::eNotImplemented; }
  // The first 20 requests get each kind of answer in turn; all later ones are answered with 200 on a thread.
  zel::ResultCode MakeRequestAsync(const zel::wstring& url, const network_services::HttpRequestOptions&,
                                   const std::uint32_t*, zel::IIO* body, void*,
                                   network_services::IAsyncHttpRequestCallback* callback,
                                   network_services::IHttpRequestHandle** request) override {
    const std::uint64_t number = requests++;
    const Answer answer = number < 20 ? static_cast<Answer>(number % 4) : Answer::onThread;
    const auto made = host::MakeObject<Request>(url, callback, answer == Answer::late);
    *request = zel::Ref<network_services::IHttpRequestHandle>(made).Detach();
    const auto report = [this, made, answer, items = CountItems(*body)] {
      made->Report(answer == Answer::refused ? 500 : 200,
                   answer == Answer::failure ? zel::eOperationTimeout : zel::sOk);
      if (answer != Answer::refused && answer != Answer::failure) deliveredItems += items;
    };
    if (answer == Answer::atOnce) {
      report();
      return zel::sOk;
    }
    const std::lock_guard lock(mutex_);
    if (answer == Answer::late) {
      late_.push_back(report);
    } else {
      threads_.emplace_back(report);
    }
    return zel::sOk;
  }
  zel::ResultCode SetCertificates(const network_services::CertificateRange*) override { return zel::sOk; }
  zel::ResultCode CreateClient(network_services::IHttpClient** out) override {
    AddRef();
    *out = this;
    return zel::sOk;
  }

  // Answers the late ones, and waits for all threads. No request may be made any more.
  void Finish() {
    for (std::thread& thread : threads_) thread.join();
    for (const auto& answer : late_) answer();
    threads_.clear();
    late_.clear();
  }

  std::atomic<std::uint64_t> requests = 0, deliveredItems = 0;

 private:
  class Request final : public host::HostObject<network_services::IHttpRequestHandle> {
   public:
    Request(const zel::wstring& url, network_services::IAsyncHttpRequestCallback* callback, bool late)
        : url_(url), callback_(callback), late_(late) {}

    zel::ResultCode ReservedRequestOperation() override { return zel::eNotImplemented; }
    zel::ResultCode Wait(std::uint32_t timeoutMs) override {
      const auto limit = std::chrono::milliseconds(late_ ? 0 : timeoutMs);
      return ended_.wait_for(limit) == std::future_status::ready ? ended_.get() : zel::eOperationTimeout;
    }
    zel::ResultCode Cancel() override { return zel::sOk; }  // each answer comes soon

    // Once. `failure`: in place of a status.
    void Report(std::uint16_t status, zel::ResultCode failure) {
      alignas(8) char response[96] = {};
      std::memcpy(response + network_services::responseStatusOffset, &status, sizeof status);
      const auto callback = std::exchange(callback_, {});
      EXPECT_EQ(
          failure ? callback->OnRequestFailed(url_, failure) : callback->OnRequestCompleted(url_, response),
          zel::sOk);
      result_.set_value(failure);
    }

   private:
    const zel::wstring url_;
    zel::Ref<network_services::IAsyncHttpRequestCallback> callback_;
    const bool late_;
    std::promise<zel::ResultCode> result_;
    const std::shared_future<zel::ResultCode> ended_ = result_.get_future().share();
  };

  static std::uint64_t CountItems(zel::IIO& body) {
    std::uint64_t size = 0;
    std::uint32_t count = 0;
    body.GetSize(&size);
    std::string text(size, '\0');
    EXPECT_EQ(body.Read(text.data(), static_cast<std::uint32_t>(size), &count), zel::sOk);
    const server::MessageContent content = server::CheckMessage(text, {});
    EXPECT_EQ(content.problem, "");
    return content.itemCount;
  }

  std::mutex mutex_;  // guards the members below
  std::vector<std::thread> threads_;
  std::vector<std::function<void()>> late_;
};

}  // namespace veld_report::tests
