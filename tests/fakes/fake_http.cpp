#include "tests/fakes/fake_http.h"

#include <chrono>
#include <cstring>

namespace veld_report::fakes {

using network_services::IAsyncHttpRequestCallback;

// One accepted request. The client reaches it through the ledger's memory, so the caller alone counts.
class FakeHttpRequest final : public FakeObject<network_services::IHttpRequestHandle> {
 public:
  FakeHttpRequest(FakeWorld& world, FakeHttpClient& client, const HttpAnswer& answer, const zel::wstring& url,
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
      std::unique_lock guard(client_.lock_);
      client_.changed_.wait(guard, [this] { return ended_; });
    } else if (answer_.when == HttpAnswer::When::untilCancel) {
      WaitForCancel();
    }
    return answer_.waitResult;
  }

  zel::ResultCode Cancel() override {
    Use();
    const auto code = world().Enter("Cancel");
    std::lock_guard guard(client_.lock_);
    cancelled_ = true;
    client_.changed_.notify_all();
    return code;
  }

  void Complete(const HttpAnswer& answer) {
    {
      std::lock_guard guard(client_.lock_);
      if (completed_) return Fault("HttpClient: a second completion");
      completed_ = true;
    }
    zel::Ref<IAsyncHttpRequestCallback> callback = std::move(callback_);
    body_.Reset();
    try {
      if (answer.failure) {
        CheckZero(callback->OnRequestFailed(url_, *answer.failure));
      } else {
        alignas(8) char response[96];
        std::memset(response, 0x7f, sizeof response);
        std::memcpy(response + network_services::responseStatusOffset, &answer.status, sizeof answer.status);
        CheckZero(callback->OnRequestCompleted(url_, response));
      }
    } catch (...) {
      world().log.Add("completion threw");
    }
    callback.Reset();
    std::lock_guard guard(client_.lock_);
    ended_ = true;
    client_.changed_.notify_all();
  }

  bool Completed() const {
    std::lock_guard guard(client_.lock_);
    return completed_;
  }

 private:
  static void CheckZero(zel::ResultCode code) {
    if (code != zel::sOk) Fault("HttpClient: a callback didn't answer 0");
  }
  void WaitForCancel() {
    {
      std::unique_lock guard(client_.lock_);
      ++client_.blocked_;
      client_.changed_.notify_all();
      if (!client_.changed_.wait_for(guard, std::chrono::seconds(30), [this] { return cancelled_; })) {
        Fault("HttpClient: nobody cancelled the request");
      }
      --client_.blocked_;
    }
    std::thread([this] { Complete(HttpAnswer::Failure(zel::eOperationCancelled)); }).join();
  }

  FakeHttpClient& client_;
  const HttpAnswer answer_;
  const zel::wstring url_;
  zel::Ref<zel::IIO> body_;
  zel::Ref<IAsyncHttpRequestCallback> callback_;
  bool completed_ = false;  // all three under the client's lock
  bool ended_ = false;
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

void CheckCallback(IAsyncHttpRequestCallback* callback) {
  for (const zel::InterfaceId id : {0u, IAsyncHttpRequestCallback::iid}) {
    zel::Ref<IAsyncHttpRequestCallback> same;
    const zel::ResultCode code = callback->QueryInterface(id, same.OutVoid());
    if (code != zel::sOk || same.Get() != callback) Fault("HttpClient: the callback isn't what it says");
  }
  void* other = callback;
  if (callback->QueryInterface(zel::IIO::iid, &other) != zel::eInterfaceNotSupported || other) {
    Fault("HttpClient: the callback offers an interface that it can't have");
  }
}

std::string ToText(const zel::wstring& url) {
  std::string text;
  for (const char16_t unit : url.View()) text.push_back(unit < 0x80 ? static_cast<char>(unit) : '?');
  return text;
}

}  // namespace

zel::ResultCode FakeHttpClient::MakeRequestAsync(const zel::wstring& url,
                                                 const network_services::HttpRequestOptions& options,
                                                 const std::uint32_t* requestKind, zel::IIO* body,
                                                 void* reserved, IAsyncHttpRequestCallback* callback,
                                                 network_services::IHttpRequestHandle** request) {
  Use();
  if (const auto code = world().Enter("MakeRequestAsync", ToText(url))) return code;
  CheckOptions(options);
  CheckCallback(callback);
  if (!requestKind || *requestKind != 1) Fault("HttpClient: the kind of the request isn't 1");
  if (reserved) Fault("HttpClient: the reserved argument isn't null");
  if (!request || *request) Fault("HttpClient: the place for the request isn't empty");
  Sent sent{std::u16string(url.View()), ReadAll(body)};
  HttpAnswer answer;
  FakeHttpRequest* made;
  {
    std::lock_guard guard(lock_);
    sent_.push_back(std::move(sent));
    answer = answers_.empty() ? usual : answers_.front();
    if (!answers_.empty()) answers_.pop_front();
    made = MakeFake<FakeHttpRequest>(world(), *this, answer, url, body, callback).Detach();
    requests_.push_back(made);
    *request = made;
    if (answer.when == HttpAnswer::When::onThread) {
      threads_.emplace_back([made, answer] { made->Complete(answer); });
    }
  }
  if (answer.when == HttpAnswer::When::atOnce) made->Complete(answer);
  return zel::sOk;
}

zel::ResultCode FakeHttpClient::SetCertificates(const network_services::CertificateRange* table) {
  Use();
  const auto code = world().Enter("SetCertificates", std::to_string(table->end - table->begin));
  if (code != zel::sOk) return code;
  std::lock_guard guard(lock_);
  certificates_.clear();
  for (const auto* row = table->begin; row != table->end; ++row) {
    certificates_.emplace_back(row->begin, row->end);
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

std::vector<FakeHttpClient::Row> FakeHttpClient::Certificates() const {
  std::lock_guard guard(lock_);
  return certificates_;
}

void FakeHttpClient::Complete(std::size_t nth, std::uint16_t status) {
  std::vector<FakeHttpRequest*> all;
  {
    std::lock_guard guard(lock_);
    all = requests_;
  }
  std::erase_if(all, [](const FakeHttpRequest* request) { return request->Completed(); });
  if (nth >= all.size()) return Fault("HttpClient: no open request with that number");
  all[nth]->Complete(HttpAnswer::Status(status));
}

bool FakeHttpClient::WaitUntilBlocked() {
  std::unique_lock guard(lock_);
  return changed_.wait_for(guard, std::chrono::seconds(30), [this] { return blocked_ > 0; });
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
  std::vector<FakeHttpRequest*> all;
  {
    std::lock_guard guard(lock_);
    all = requests_;
  }
  for (FakeHttpRequest* request : all) {
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
