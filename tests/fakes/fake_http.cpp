#include "tests/fakes/fake_http.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace veld_report::fakes {

using network_services::IAsyncHttpRequestCallback;

// One accepted request. The client reaches it through the ledger's memory, so the caller alone counts.
class FakeHttpClient::Request final : public FakeObject<network_services::IHttpRequestHandle> {
 public:
  Request(FakeWorld& world, FakeHttpClient& client, const HttpAnswer& answer, const zel::wstring& url,
          zel::IIO* body, IAsyncHttpRequestCallback* callback)
      : FakeObject(world, "HttpRequest"),
        client_(client),
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
    return answer_.waitResult;
  }

  zel::ResultCode Cancel() override {
    Use();
    const auto code = world().Enter("Cancel");
    Raise(cancelled_);
    return code;
  }

  void Complete(const HttpAnswer& answer) {
    if (completed_.exchange(true)) return Fault("HttpClient: a second completion");
    zel::Ref<IAsyncHttpRequestCallback> callback = std::move(callback_);
    body_.Reset();
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

  bool Completed() const { return completed_; }

 private:
  void Raise(bool& flag) {
    std::lock_guard guard(client_.lock_);
    flag = true;
    client_.changed_.notify_all();
  }
  void WaitFor(const bool& flag) {
    std::unique_lock guard(client_.lock_);
    if (!client_.changed_.wait_for(guard, std::chrono::seconds(30), [&] { return flag; })) {
      Fault("HttpClient: a Wait that nothing ends");
    }
  }

  FakeHttpClient& client_;
  const HttpAnswer answer_;
  const zel::wstring url_;
  zel::Ref<zel::IIO> body_;
  zel::Ref<IAsyncHttpRequestCallback> callback_;
  std::atomic<bool> completed_ = false;
  bool ended_ = false;  // both under the client's lock
  bool cancelled_ = false;
};

namespace {

std::string ReadAll(zel::IIO* body) {
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

void CheckOptions(const network_services::HttpRequestOptions& options) {
  const bool header = options.headers.size() == 1 && options.headers[0].name.View() == "Content-Type" &&
                      options.headers[0].value.View() == "application/json";
  if (!header) Fault("HttpClient: not the one header \"Content-Type: application/json\"");
  if (options.shortParameter != 30 || options.wordParameter0 || options.wordParameter1 ||
      options.wordParameter2 || options.objectParameter || !options.wideParameter.empty()) {
    Fault("HttpClient: a parameter of the options isn't what it always is");
  }
}

}  // namespace

zel::ResultCode FakeHttpClient::MakeRequestAsync(const zel::wstring& url,
                                                 const network_services::HttpRequestOptions& options,
                                                 const std::uint32_t* requestKind, zel::IIO* body,
                                                 void* reserved, IAsyncHttpRequestCallback* callback,
                                                 network_services::IHttpRequestHandle** request) {
  Use();
  std::string shown;
  for (const char16_t unit : url.View()) shown.push_back(unit < 0x80 ? static_cast<char>(unit) : '?');
  if (const auto code = world().Enter("MakeRequestAsync", shown)) return code;
  CheckOptions(options);
  if (!requestKind || *requestKind != 1) Fault("HttpClient: the kind of the request isn't 1");
  if (reserved) Fault("HttpClient: the reserved argument isn't null");
  if (!request || *request) Fault("HttpClient: the place for the request isn't empty");
  std::unique_lock guard(lock_);
  sent_.push_back({std::u16string(url.View()), ReadAll(body)});
  const HttpAnswer answer = answers_.empty() ? usual : answers_.front();
  if (!answers_.empty()) answers_.pop_front();
  Request* made = MakeFake<Request>(world(), *this, answer, url, body, callback).Detach();
  requests_.push_back(made);
  *request = made;
  if (answer.when == HttpAnswer::When::onThread) {
    threads_.emplace_back([made, answer] { made->Complete(answer); });
  }
  guard.unlock();
  if (answer.when == HttpAnswer::When::atOnce) made->Complete(answer);
  return zel::sOk;
}

zel::ResultCode FakeHttpClient::SetCertificates(const network_services::CertificateRange* table) {
  Use();
  const auto code = world().Enter("SetCertificates", std::to_string(table->end - table->begin));
  if (code != zel::sOk) return code;
  std::lock_guard guard(lock_);
  certificates.clear();
  for (const auto* row = table->begin; row != table->end; ++row) {
    certificates.emplace_back(row->begin, row->end);
  }
  return zel::sOk;
}

void FakeHttpClient::Answer(HttpAnswer answer) {
  std::lock_guard guard(lock_);
  answers_.push_back(answer);
}

std::vector<FakeHttpClient::Sent> FakeHttpClient::TakeSent() {
  std::lock_guard guard(lock_);
  return std::exchange(sent_, {});
}

void FakeHttpClient::Complete(std::uint16_t status) {
  std::unique_lock guard(lock_);
  const auto open = std::find_if(requests_.begin(), requests_.end(),
                                 [](Request* request) { return !request->Completed(); });
  if (open == requests_.end()) return Fault("HttpClient: no request is open");
  Request* request = *open;
  guard.unlock();
  request->Complete(HttpAnswer::Status(status));
}

void FakeHttpClient::JoinThreads() {
  std::vector<std::thread> threads;
  {
    std::lock_guard guard(lock_);
    threads.swap(threads_);
  }
  for (std::thread& thread : threads) thread.join();
}

void FakeHttpClient::CheckAllCompleted() {
  JoinThreads();
  for (Request* request : requests_) {
    if (request->Completed()) continue;
    Fault("HttpClient: a request was left without its completion");
    // So that the callback goes while the services that it uses are still there.
    request->Complete(HttpAnswer::Failure(zel::eOperationCancelled));
  }
}

zel::ResultCode FakeHttpClientFactory::CreateClient(network_services::IHttpClient** out) {
  Use();
  if (const auto code = world().Enter("CreateClient")) return code;
  client_->AddRef();
  *out = client_;
  return zel::sOk;
}

}  // namespace veld_report::fakes
