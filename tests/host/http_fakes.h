// What goes into an HTTP client in place of the module: a callback and a body that police the client.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "contract/http.h"
#include "host/base/host_object.h"
#include "host/base/text.h"

namespace veld_report::tests {

// Fails the test on a second completion.
class RecordingCallback final : public host::HostObject<network_services::IAsyncHttpRequestCallback> {
 public:
  // `body` runs inside the completion.
  explicit RecordingCallback(std::function<void()> body = {}) : body_(std::move(body)) {}

  zel::ResultCode OnRequestCompleted(const zel::wstring& url, const void* response) override {
    return Complete(url, zel::sOk, network_services::ResponseStatus(response));
  }
  zel::ResultCode OnRequestFailed(const zel::wstring& url, zel::ResultCode code) override {
    EXPECT_LT(code, 0) << "a failure without a failing code";
    return Complete(url, code, 0);
  }

  bool WaitForEnd() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return ends_ > 0; });
  }
  int Ends() const {
    const std::lock_guard lock(mutex_);
    return ends_;
  }
  // Of the completion, once there was one.
  zel::ResultCode Code() const { return code_; }
  std::uint16_t Status() const { return status_; }
  std::string Url() const { return url_; }

  // How many references there are besides the caller's.
  std::uint32_t OtherReferences() {
    AddRef();
    return Release() - 1;
  }

 private:
  zel::ResultCode Complete(const zel::wstring& url, zel::ResultCode code, std::uint16_t status) {
    const struct Leaving {
      RecordingCallback& callback;
      ~Leaving() {
        const std::lock_guard lock(callback.mutex_);
        EXPECT_EQ(++callback.ends_, 1) << "a second completion of one request";
        callback.changed_.notify_all();
      }
    } leaving{*this};
    url_ = host::ToUtf8(url.View());
    code_ = code;
    status_ = status;
    if (body_) body_();
    return zel::sOk;
  }

  const std::function<void()> body_;
  std::string url_;
  zel::ResultCode code_ = zel::eNotInitialized;
  std::uint16_t status_ = 0;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  int ends_ = 0;
};

// A stream that can be read, and in no other way touched.
class TextBody final : public host::HostObject<zel::IIO> {
 public:
  explicit TextBody(std::string text) : text_(std::move(text)) {}

  zel::ResultCode Read(void* buffer, std::uint32_t count, std::uint32_t* bytesRead) override {
    *bytesRead = 0;
    if (failsWith != zel::sOk) return failsWith;
    if (position_ >= text_.size()) return zel::sOk;
    const std::size_t taken = std::min<std::size_t>(count, text_.size() - position_);
    std::memcpy(buffer, text_.data() + position_, taken);
    position_ += taken;
    *bytesRead = static_cast<std::uint32_t>(taken);
    return zel::sOk;
  }
  zel::ResultCode Seek(std::uint32_t origin, std::int64_t offset, std::uint64_t* newPosition) override {
    const std::uint64_t base = origin == 1 ? position_ : origin == 2 ? text_.size() : 0;
    position_ = base + static_cast<std::uint64_t>(offset);
    if (newPosition) *newPosition = position_;
    return zel::sOk;
  }
  zel::ResultCode GetPosition(std::uint64_t* out) override {
    *out = position_;
    return zel::sOk;
  }
  zel::ResultCode GetSize(std::uint64_t* out) override {
    *out = text_.size() + sizeBeyondText;
    return zel::sOk;
  }
  zel::ResultCode Write(const void*, std::uint32_t, std::uint32_t*) override { return Unwanted(); }
  zel::ResultCode SetSize(std::uint64_t) override { return Unwanted(); }
  zel::ResultCode Flush() override { return Unwanted(); }

  std::uint32_t OtherReferences() {
    AddRef();
    return Release() - 1;
  }

  zel::ResultCode failsWith = zel::sOk;
  std::uint64_t sizeBeyondText = 0;  // a stream that claims more than it gives

 private:
  static zel::ResultCode Unwanted() {
    ADD_FAILURE() << "the client changes the body";
    return zel::eNotSupported;
  }
  const std::string text_;
  std::uint64_t position_ = 0;
};

// A client, and requests to it as the module makes them.
struct ClientUnderTest {
  zel::Ref<network_services::IHttpClient> client;

  explicit ClientUnderTest(network_services::IHttpClientFactory* factory) {
    EXPECT_EQ(factory->CreateClient(client.Out()), zel::sOk);
  }

  struct Call {
    zel::Ref<RecordingCallback> callback;
    zel::Ref<TextBody> body;
    zel::Ref<network_services::IHttpRequestHandle> handle;
    zel::ResultCode accepted = zel::eNotInitialized;
  };
  Call Start(const std::string& url, std::function<void()> inCompletion = {},
             const std::string& text = "{}") const {
    return Start(url, host::MakeObject<TextBody>(text), std::move(inCompletion));
  }
  Call Start(const std::string& url, zel::Ref<TextBody> body, std::function<void()> inCompletion = {}) const {
    network_services::HttpRequestOptions options;
    options.headers.push_back({zel::string("Content-Type"), zel::string("application/json")});
    Call call{host::MakeObject<RecordingCallback>(std::move(inCompletion)), std::move(body), {}};
    const std::uint32_t kind = 1;
    call.accepted = client->MakeRequestAsync(host::ToWide(url), options, &kind, call.body.Get(), nullptr,
                                             call.callback.Get(), call.handle.Out());
    return call;
  }
  // Returns when the request has ended.
  Call Send(const std::string& url) const {
    Call call = Start(url);
    EXPECT_EQ(call.accepted, zel::sOk);
    if (call.handle) call.handle->Wait(20000);
    EXPECT_EQ(call.callback->Ends(), 1) << url;
    return call;
  }
  zel::ResultCode SetCertificates(const std::vector<std::vector<zel::string>>& rows) const {
    zel::Ref<network_services::IHttpClientCertificates> certificates;
    const zel::ResultCode found =
        client->QueryInterface(network_services::IHttpClientCertificates::iid, certificates.OutVoid());
    if (zel::Failed(found)) return found;
    std::vector<network_services::CertificateRow> table;
    table.reserve(rows.size());
    for (const auto& row : rows) table.push_back({row.data(), row.data() + row.size()});
    const network_services::CertificateRange range{table.data(), table.data() + table.size()};
    return certificates->SetCertificates(&range);
  }
};

}  // namespace veld_report::tests
