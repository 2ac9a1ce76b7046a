#include "http_client.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <list>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

#include "exchange.h"

namespace own_host {
namespace {

constexpr std::uint32_t kindWithBody = 1;

// A request in progress or done. The sender holds it as a handle; a thread of its own runs it.
class Request final : public Counted<network_services::IHttpRequestHandle> {
 public:
  Request(const zel::wstring& url, const network_services::HttpRequestOptions& options, zel::IIO* body,
          network_services::IAsyncHttpRequestCallback* callback)
      : url_(url), body_(body), callback_(callback) {
    for (const network_services::HttpHeader& header : options.headers) {
      headers_ += std::string(header.name.View()) + ": " + std::string(header.value.View()) + "\r\n";
    }
  }

  zel::ResultCode ReservedRequestOperation() override { return zel::eNotImplemented; }
  zel::ResultCode Wait(std::uint32_t timeoutMs) override {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return done_; })) {
      return zel::eOperationTimeout;
    }
    return outcome_;
  }
  zel::ResultCode Cancel() override {
    socket_.Interrupt();
    return zel::sOk;
  }

  // Called once: makes the request and completes it.
  void Run() {
    // The addresses here are plain ASCII; a production host converts.
    std::string url;
    for (const char16_t unit : url_.View()) url += static_cast<char>(unit);
    const int status = Exchange(url, headers_, *body_, &socket_);
    zel::ResultCode outcome = zel::sOk;
    if (status <= 0) outcome = socket_.IsInterrupted() ? zel::eOperationCancelled : zel::eUnspecifiedError;
    Complete(outcome, status);
    callback_.Reset();
    body_.Reset();
    // Only after the callback: the sender reads the totals as soon as its wait is over.
    {
      const std::scoped_lock lock(mutex_);
      outcome_ = outcome;
      done_ = true;
    }
    changed_.notify_all();
  }

 private:
  void Complete(zel::ResultCode outcome, int status) {
    // The sender only reads the status of this record, at byte 80.
    struct Response {
      char own[network_services::responseStatusOffset];
      std::uint16_t status;
    } response{{}, static_cast<std::uint16_t>(status)};
    try {
      if (zel::Failed(outcome)) {
        callback_->OnRequestFailed(url_, outcome);
      } else {
        callback_->OnRequestCompleted(url_, &response);
      }
    } catch (...) {
      // The sender's own problem. The request is complete, and whoever waits for it must be notified.
    }
  }

  const zel::wstring url_;
  std::string headers_;
  zel::Ref<zel::IIO> body_;
  zel::Ref<network_services::IAsyncHttpRequestCallback> callback_;
  InterruptibleSocket socket_;

  std::mutex mutex_;  // guards the members below
  std::condition_variable changed_;
  bool done_ = false;
  zel::ResultCode outcome_ = zel::sOk;
};

}  // namespace

struct HttpClient::InFlight {
  // Runs on the request's own thread.
  void Run(std::list<zel::Ref<Request>>::iterator place) {
    current = this;
    (*place)->Run();
    current = nullptr;
    const std::scoped_lock lock(mutex);
    requests.erase(place);
    changed.notify_all();
  }

  // In a request's thread: the owner of that request.
  static thread_local const InFlight* current;

  std::mutex mutex;  // guards the members below; not held across a request
  std::condition_variable changed;
  std::list<zel::Ref<Request>> requests;
};
thread_local const HttpClient::InFlight* HttpClient::InFlight::current = nullptr;

HttpClient::HttpClient() : inFlight_(std::make_shared<InFlight>()) {}

HttpClient::~HttpClient() {
  std::unique_lock lock(inFlight_->mutex);
  for (const zel::Ref<Request>& request : inFlight_->requests) request->Cancel();
  // A completion that drops the last reference can't wait for its own end.
  const std::size_t own = InFlight::current == inFlight_.get() ? 1 : 0;
  inFlight_->changed.wait(lock, [&] { return inFlight_->requests.size() == own; });
}

zel::ResultCode HttpClient::MakeRequestAsync(const zel::wstring& url,
                                             const network_services::HttpRequestOptions& options,
                                             const std::uint32_t* requestKind, zel::IIO* body, void*,
                                             network_services::IAsyncHttpRequestCallback* callback,
                                             network_services::IHttpRequestHandle** request) {
  if (*requestKind != kindWithBody) return zel::eNotSupported;
  auto made = Make<Request>(url, options, body, callback);
  const std::scoped_lock lock(inFlight_->mutex);
  inFlight_->requests.push_front(made);
  try {
    std::thread([inFlight = inFlight_, place = inFlight_->requests.begin()] {
      inFlight->Run(place);
    }).detach();
  } catch (const std::system_error&) {
    inFlight_->requests.pop_front();
    return zel::eOutOfMemory;
  }
  *request = made.Detach();
  return zel::sOk;
}

}  // namespace own_host
