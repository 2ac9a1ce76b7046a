// An HTTP client whose answers the test writes down in advance.
//
// It polices its caller (arguments of MakeRequestAsync, a body at position 0) and itself: each accepted
// request gets exactly one completion; what a test leaves open fails it in CheckAllCompleted.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
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

// One accepted request. The client reaches it through the ledger's memory, so the caller alone counts.
class FakeHttpRequest final : public FakeObject<network_services::IHttpRequestHandle> {
 public:
  FakeHttpRequest(FakeWorld& world, const HttpAnswer& answer, const zel::wstring& url, zel::IIO* body,
                  std::string bodyText, network_services::IAsyncHttpRequestCallback* callback)
      : FakeObject(world, "HttpRequest"),
        text(std::move(bodyText)),
        answer_(answer),
        url_(url),
        body_(body),
        callback_(callback) {}

  zel::ResultCode ReservedRequestOperation() override { return Reserved(); }

  zel::ResultCode Wait(std::uint32_t timeoutMs) override {
    Use();
    if (const auto code = world().Enter("Wait", std::to_string(timeoutMs))) return code;
    if (answer_.when == HttpAnswer::When::inWait) {
      std::thread([this] { Complete(answer_); }).join();
    } else if (answer_.when == HttpAnswer::When::onThread) {
      WaitFor(ended_);
    } else if (answer_.when == HttpAnswer::When::untilCancel) {
      WaitFor(cancelled_);
      std::thread([this] { Complete(HttpAnswer::Failure(zel::eOperationCancelled)); }).join();
    }
    return answer_.waitResult != zel::sOk ? answer_.waitResult : world().Done();
  }

  zel::ResultCode Cancel() override {
    Use();
    const auto code = world().Enter("Cancel");
    Raise(cancelled_);
    return code;
  }

  void Complete(const HttpAnswer& answer) {
    if (completed_.exchange(true)) return Fault("HttpClient: a second completion");
    zel::Ref<network_services::IAsyncHttpRequestCallback> callback = std::move(callback_);
    body_.Reset();
    delivered_ = !answer.failure && answer.status == 200;
    alignas(8) char response[96];
    std::memset(response, 0x7f, sizeof response);
    std::memcpy(response + network_services::responseStatusOffset, &answer.status, sizeof answer.status);
    try {
      const zel::ResultCode code = answer.failure ? callback->OnRequestFailed(url_, *answer.failure)
                                                  : callback->OnRequestCompleted(url_, response);
      if (code != zel::sOk) Fault("HttpClient: a callback didn't answer 0");
    } catch (...) {
      // What a callback throws is nobody's business.
    }
    callback.Reset();
    Raise(ended_);
  }

  // As the answer says that it was made with.
  void CompleteAsPlanned() {
    Complete(answer_.when == HttpAnswer::When::untilCancel ? HttpAnswer::Failure(zel::eOperationCancelled)
                                                           : answer_);
  }
  bool Completed() const { return completed_; }
  // Answered with status 200.
  bool Delivered() const { return delivered_; }
  std::u16string Url() const { return std::u16string(url_.View()); }

  const std::string text;

 private:
  void Raise(bool& flag) {
    std::lock_guard guard(lock_);
    flag = true;
    changed_.notify_all();
  }
  void WaitFor(const bool& flag) {
    std::unique_lock guard(lock_);
    if (!changed_.wait_for(guard, std::chrono::seconds(30), [&] { return flag; })) {
      Fault("HttpClient: a Wait that nothing ends");
    }
  }

  const HttpAnswer answer_;
  const zel::wstring url_;
  zel::Ref<zel::IIO> body_;
  zel::Ref<network_services::IAsyncHttpRequestCallback> callback_;
  std::atomic<bool> completed_ = false;
  std::atomic<bool> delivered_ = false;
  std::mutex lock_;
  std::condition_variable changed_;
  bool ended_ = false;  // both under the lock
  bool cancelled_ = false;
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
                                   network_services::IHttpRequestHandle** request) override {
    Use();
    std::string shown;
    for (const char16_t unit : url.View()) shown.push_back(unit < 0x80 ? static_cast<char>(unit) : '?');
    if (const auto code = world().Enter("MakeRequestAsync", shown)) return code;
    const zel::ResultCode done = world().Done();
    CheckOptions(options);
    if (!requestKind || *requestKind != 1) Fault("HttpClient: the kind of the request isn't 1");
    if (reserved) Fault("HttpClient: the reserved argument isn't null");
    if (!request || *request) Fault("HttpClient: the place for the request isn't empty");
    std::unique_lock guard(lock_);
    const std::string text = ReadAll(body);
    sent_.push_back({std::u16string(url.View()), text});
    const HttpAnswer answer = answers_.empty() ? usual : answers_.front();
    if (!answers_.empty()) answers_.pop_front();
    FakeHttpRequest* made = MakeFake<FakeHttpRequest>(world(), answer, url, body, text, callback).Detach();
    requests_.push_back(made);
    *request = made;
    if (answer.when == HttpAnswer::When::onThread) {
      threads_.emplace_back([made, answer] { made->Complete(answer); });
    }
    guard.unlock();
    if (answer.when == HttpAnswer::When::atOnce) made->Complete(answer);
    return done;
  }
  zel::ResultCode SetCertificates(const network_services::CertificateRange* table) override {
    Use();
    const auto code = world().Enter("SetCertificates", std::to_string(table->end - table->begin));
    if (code != zel::sOk) return code;
    std::lock_guard guard(lock_);
    certificates.clear();
    for (const auto* row = table->begin; row != table->end; ++row) {
      certificates.emplace_back(row->begin, row->end);
    }
    return world().Done();
  }

  // The answers of the coming requests, in order; when they run out, `usual` answers.
  void Answer(HttpAnswer answer) {
    std::lock_guard guard(lock_);
    answers_.push_back(answer);
  }
  HttpAnswer usual;

  std::vector<Sent> TakeSent() {
    std::lock_guard guard(lock_);
    return std::exchange(sent_, {});
  }
  // Completes the first request that is still open, on this thread.
  void Complete(std::uint16_t status) {
    std::unique_lock guard(lock_);
    const auto open = std::find_if(requests_.begin(), requests_.end(),
                                   [](FakeHttpRequest* request) { return !request->Completed(); });
    if (open == requests_.end()) return Fault("HttpClient: no request is open");
    FakeHttpRequest* request = *open;
    guard.unlock();
    request->Complete(HttpAnswer::Status(status));
  }
  // Completes each request that is still open, as planned, on this thread.
  void CompleteOpen() {
    JoinThreads();
    for (FakeHttpRequest* request : requests_) {
      if (!request->Completed()) request->CompleteAsPlanned();
    }
  }
  // What was answered with status 200.
  std::vector<Sent> Delivered() {
    std::lock_guard guard(lock_);
    std::vector<Sent> delivered;
    for (const FakeHttpRequest* request : requests_) {
      if (request->Delivered()) delivered.push_back({request->Url(), request->text});
    }
    return delivered;
  }
  // Forgets the answers that haven't been used yet.
  void ForgetAnswers() {
    std::lock_guard guard(lock_);
    answers_.clear();
  }
  void JoinThreads() {
    std::vector<std::thread> threads;
    {
      std::lock_guard guard(lock_);
      threads.swap(threads_);
    }
    for (std::thread& thread : threads) thread.join();
  }
  // To be called when the sender is gone.
  void CheckAllCompleted() {
    JoinThreads();
    for (FakeHttpRequest* request : requests_) {
      if (request->Completed()) continue;
      Fault("HttpClient: a request was left without its completion");
      // So that the callback goes while the services that it uses are still there.
      request->Complete(HttpAnswer::Failure(zel::eOperationCancelled));
    }
  }

  std::vector<Row> certificates;

 private:
  static std::string ReadAll(zel::IIO* body) {
    std::uint64_t position = 1;
    std::uint64_t size = 0;
    if (body->GetPosition(&position) != 0 || position != 0) Fault("HttpClient: the body isn't at position 0");
    if (body->GetSize(&size) != 0) Fault("HttpClient: the body has no size");
    std::string text;
    char piece[61];
    std::uint32_t count = 0;
    while (body->Read(piece, sizeof piece, &count) == 0 && count > 0) text.append(piece, count);
    if (text.size() != size) Fault("HttpClient: the body isn't as long as it says");
    return text;
  }
  static void CheckOptions(const network_services::HttpRequestOptions& options) {
    const bool header = options.headers.size() == 1 && options.headers[0].name.View() == "Content-Type" &&
                        options.headers[0].value.View() == "application/json";
    if (!header) Fault("HttpClient: not the one header \"Content-Type: application/json\"");
    if (options.shortParameter != 30 || options.wordParameter0 || options.wordParameter1 ||
        options.wordParameter2 || options.objectParameter || !options.wideParameter.empty()) {
      Fault("HttpClient: a parameter of the options isn't what it always is");
    }
  }

  std::mutex lock_;
  std::deque<HttpAnswer> answers_;
  std::vector<Sent> sent_;
  std::vector<FakeHttpRequest*> requests_;
  std::vector<std::thread> threads_;
};

class FakeHttpClientFactory final : public FakeObject<network_services::IHttpClientFactory> {
 public:
  FakeHttpClientFactory(FakeWorld& world, FakeHttpClient* client)
      : FakeObject(world, "HttpClientFactory"), client_(client) {}

  zel::ResultCode CreateClient(network_services::IHttpClient** out) override {
    Use();
    if (const auto code = world().Enter("CreateClient")) return code;
    client_->AddRef();
    *out = client_;
    return world().Done();
  }

 private:
  FakeHttpClient* const client_;
};

}  // namespace veld_report::fakes
