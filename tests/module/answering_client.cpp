#include "tests/module/answering_client.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <string>
#include <utility>

#include "gtest/gtest.h"
#include "server/base64.h"

namespace veld_report::tests {
namespace {

// The items of a body are objects without inner ones, in an array.
std::uint64_t CountItems(zel::IIO& body) {
  std::uint64_t size = 0;
  std::uint32_t count = 0;
  body.GetSize(&size);
  std::string text(size, '\0'), payload;
  EXPECT_EQ(body.Read(text.data(), static_cast<std::uint32_t>(size), &count), zel::sOk);
  const std::string before = "\"payload\":\"";
  const std::size_t begin = text.find(before) + before.size();
  EXPECT_EQ(
      server::DecodeBase64(std::string_view(text).substr(begin, text.find('"', begin) - begin), &payload),
      "");
  return static_cast<std::uint64_t>(std::ranges::count(payload, '{')) - 1;
}

}  // namespace

// Life: open -> reported. The callback hears of it once.
class AnsweringClient::Request final : public host::HostObject<network_services::IHttpRequestHandle> {
 public:
  Request(const zel::wstring& url, std::uint64_t items, network_services::IAsyncHttpRequestCallback* callback,
          bool late)
      : url_(url), items_(items), callback_(callback), late_(late) {}

  zel::ResultCode ReservedRequestOperation() override { return zel::eNotImplemented; }
  zel::ResultCode Wait(std::uint32_t timeoutMs) override {
    if (late_) return zel::eOperationTimeout;
    std::unique_lock lock(mutex_);
    const bool ended = ended_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return reported_; });
    return ended ? result_ : zel::eOperationTimeout;
  }
  zel::ResultCode Cancel() override { return zel::sOk; }  // each answer comes soon

  // Returns how many items were delivered. `failure`: in place of a status.
  std::uint64_t Report(std::uint16_t status, zel::ResultCode failure = 0) {
    alignas(8) char response[96] = {};
    std::memcpy(response + network_services::responseStatusOffset, &status, sizeof status);
    const auto callback = std::exchange(callback_, {});
    EXPECT_EQ(
        failure ? callback->OnRequestFailed(url_, failure) : callback->OnRequestCompleted(url_, response),
        zel::sOk);
    const std::lock_guard lock(mutex_);
    reported_ = true;
    result_ = failure;
    ended_.notify_all();
    return status == 200 ? items_ : 0;
  }

 private:
  const zel::wstring url_;
  const std::uint64_t items_;
  zel::Ref<network_services::IAsyncHttpRequestCallback> callback_;
  const bool late_;
  std::mutex mutex_;  // guards the members below
  std::condition_variable ended_;
  bool reported_ = false;
  zel::ResultCode result_ = 0;
};

zel::ResultCode AnsweringClient::MakeRequestAsync(const zel::wstring& url,
                                                  const network_services::HttpRequestOptions&,
                                                  const std::uint32_t*, zel::IIO* body, void*,
                                                  network_services::IAsyncHttpRequestCallback* callback,
                                                  network_services::IHttpRequestHandle** request) {
  const std::uint64_t number = requests_++;
  const Answer answer = number < answers_.size() ? answers_[number] : Answer::onThread;
  const auto made = host::MakeObject<Request>(url, CountItems(*body), callback, answer == Answer::late);
  *request = zel::Ref<network_services::IHttpRequestHandle>(made).Detach();
  if (answer == Answer::atOnce) {
    delivered_ += made->Report(200);
    return zel::sOk;
  }
  const std::lock_guard lock(mutex_);
  if (answer == Answer::late) {
    late_.push_back([this, made] { delivered_ += made->Report(200); });
    return zel::sOk;
  }
  threads_.emplace_back([this, made, answer] {
    delivered_ += answer == Answer::failure ? made->Report(0, zel::eOperationTimeout)
                                            : made->Report(answer == Answer::refused ? 500 : 200);
  });
  return zel::sOk;
}

zel::ResultCode AnsweringClient::CreateClient(network_services::IHttpClient** out) {
  AddRef();
  *out = this;
  return zel::sOk;
}

void AnsweringClient::Finish() {
  for (std::thread& thread : threads_) thread.join();
  for (const auto& answer : late_) answer();
  threads_.clear();
  late_.clear();
}

}  // namespace veld_report::tests
