// What goes into an HTTP client in place of the module: a callback and a body that police the client.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "contract/http.h"
#include "host/base/host_object.h"
#include "host/base/text.h"
#include "host/http/http_client.h"

namespace veld_report::tests {

// How many references there are besides the caller's.
inline std::uint32_t OtherReferences(zel::IObject* object) {
  object->AddRef();
  return object->Release() - 1;
}

// Fails the test on a second completion.
class RecordingCallback final : public host::HostObject<network_services::IAsyncHttpRequestCallback> {
 public:
  // `body` runs inside the completion.
  explicit RecordingCallback(std::function<void()> body) : body_(std::move(body)) {}

  zel::ResultCode OnRequestCompleted(const zel::wstring& requestUrl, const void* response) override {
    status = network_services::ResponseStatus(response);
    return End(requestUrl, zel::sOk);
  }
  zel::ResultCode OnRequestFailed(const zel::wstring& requestUrl, zel::ResultCode failure) override {
    EXPECT_LT(failure, 0) << "a failure without a failing code";
    return End(requestUrl, failure);
  }

  std::atomic<int> ends = 0;
  // Of the completion, to be read after it.
  std::string url;
  zel::ResultCode code = zel::eNotInitialized;
  std::uint16_t status = 0;

 private:
  zel::ResultCode End(const zel::wstring& itsUrl, zel::ResultCode itsCode) {
    url = host::ToUtf8(itsUrl.View());
    code = itsCode;
    EXPECT_EQ(++ends, 1) << "a second completion of one request";
    if (body_) body_();
    return zel::sOk;
  }

  const std::function<void()> body_;
};

// A stream that can be read, and in no other way touched.
class TextBody final : public host::HostObject<zel::IIO> {
 public:
  explicit TextBody(std::string text) : text_(std::move(text)) {}

  zel::ResultCode Read(void* buffer, std::uint32_t count, std::uint32_t* bytesRead) override {
    *bytesRead = static_cast<std::uint32_t>(std::min<std::size_t>(count, text_.size() - position_));
    std::memcpy(buffer, text_.data() + position_, *bytesRead);
    position_ += *bytesRead;
    return readCode;
  }
  zel::ResultCode Seek(std::uint32_t origin, std::int64_t offset, std::uint64_t* newPosition) override {
    EXPECT_EQ(origin, 0u);
    *newPosition = position_ = static_cast<std::uint64_t>(offset);
    return zel::sOk;
  }
  zel::ResultCode GetSize(std::uint64_t* out) override {
    *out = text_.size() + sizeBeyondText;
    return zel::sOk;
  }
  zel::ResultCode GetPosition(std::uint64_t*) override { return Unwanted(); }
  zel::ResultCode Write(const void*, std::uint32_t, std::uint32_t*) override { return Unwanted(); }
  zel::ResultCode SetSize(std::uint64_t) override { return Unwanted(); }
  zel::ResultCode Flush() override { return Unwanted(); }

  zel::ResultCode readCode = zel::sOk;
  std::uint64_t sizeBeyondText = 0;  // a stream that claims more than it gives

 private:
  static zel::ResultCode Unwanted() {
    ADD_FAILURE() << "the client does more than read the body";
    return zel::eNotSupported;
  }
  const std::string text_;
  std::uint64_t position_ = 0;
};

// A client, and requests to it as the module makes them.
struct ClientUnderTest {
  zel::Ref<network_services::IHttpClient> client;
  std::string contentType = "application/json";
  std::uint32_t kind = 1;

  // With `made` for its client if there is one.
  explicit ClientUnderTest(network_services::IHttpClientFactory* factory,
                           zel::Ref<network_services::IHttpClient> made = {})
      : client(std::move(made)) {
    if (client) return;
    EXPECT_EQ(factory->CreateClient(client.Out()), zel::sOk);
  }

  struct Call {
    zel::Ref<RecordingCallback> callback;
    zel::Ref<TextBody> body;
    zel::Ref<network_services::IHttpRequestHandle> handle;
    zel::ResultCode accepted = zel::eNotInitialized;

    zel::ResultCode Wait() const { return handle ? handle->Wait(100000) : accepted; }
    void ExpectNoReferencesLeft() const {
      EXPECT_EQ(OtherReferences(callback.Get()), 0u) << callback->url;
      EXPECT_EQ(OtherReferences(body.Get()), 0u) << callback->url;
    }
  };
  Call Start(const std::string& url, std::function<void()> inCompletion = {},
             const std::string& text = "{}") const {
    return Start(url, host::MakeObject<TextBody>(text), std::move(inCompletion));
  }
  Call Start(const std::string& url, zel::Ref<TextBody> body, std::function<void()> inCompletion = {}) const {
    network_services::HttpRequestOptions options;
    options.headers.push_back({zel::string("Content-Type"), host::ToNarrow(contentType)});
    Call call{host::MakeObject<RecordingCallback>(std::move(inCompletion)), std::move(body), {}};
    call.accepted = client->MakeRequestAsync(host::ToWide(url), options, &kind, call.body.Get(), nullptr,
                                             call.callback.Get(), call.handle.Out());
    return call;
  }
  // Returns when the request has ended, as every request has to, with the record of it.
  zel::Ref<RecordingCallback> Send(const std::string& url) const {
    const Call call = Start(url);
    EXPECT_EQ(call.Wait(), call.callback->code) << url;
    EXPECT_EQ(call.callback->ends, 1) << url;
    EXPECT_EQ(call.callback->url, url);
    call.ExpectNoReferencesLeft();
    return call.callback;
  }
  zel::ResultCode SetCertificates(const std::vector<std::vector<std::string>>& rows) const {
    std::vector<std::vector<zel::string>> elements(rows.size());
    std::vector<network_services::CertificateRow> table;
    for (std::size_t i = 0; i < rows.size(); ++i) {
      for (const std::string& element : rows[i]) elements[i].push_back(host::ToNarrow(element));
      table.push_back({elements[i].data(), elements[i].data() + elements[i].size()});
    }
    const network_services::CertificateRange range{table.data(), table.data() + table.size()};
    zel::Ref<network_services::IHttpClientCertificates> certificates;
    const auto iid = network_services::IHttpClientCertificates::iid;
    EXPECT_EQ(client->QueryInterface(iid, certificates.OutVoid()), zel::sOk);
    return certificates->SetCertificates(&range);
  }
};

// What the machine says of proxies is no business of most tests, nor how long it takes for a handshake.
inline host::HttpClientOptions Direct() {
  host::HttpClientOptions options;
  options.proxy = "";
  options.connectTimeoutMs = 60'000;
  return options;
}

struct HttpKit {
  explicit HttpKit(const host::HttpClientOptions& options = Direct())
      : factory(CreateHttpClientFactory(options)), client(factory.Get()) {}
  zel::Ref<host::HttpClientFactory> factory;
  ClientUnderTest client;
};

}  // namespace veld_report::tests
