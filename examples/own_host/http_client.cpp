#include "http_client.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <string_view>

namespace own_host {

// A request that is waiting, running or done. The sender has it as a handle, the client's thread runs it.
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
    std::unique_lock hold(lock_);
    if (!changed_.wait_for(hold, std::chrono::milliseconds(timeoutMs), [&] { return done_; })) {
      return zel::eOperationTimeout;
    }
    return outcome_;
  }
  zel::ResultCode Cancel() override {
    const std::scoped_lock hold(lock_);
    cancelled_ = true;
    // Wakes the thread up from a send or receive, at once and without blocking.
    if (socket_ >= 0) ::shutdown(socket_, SHUT_RDWR);
    return zel::sOk;
  }

  // On the client's thread, once: makes the request and completes it.
  void Run() {
    const int status = Exchange();
    zel::ResultCode outcome = zel::sOk;
    if (status > 0) {
      // All that the sender reads of this record is the status at byte 80.
      struct Response {
        char own[network_services::responseStatusOffset];
        std::uint16_t status;
      } response{};
      response.status = static_cast<std::uint16_t>(status);
      callback_->OnRequestCompleted(url_, &response);
    } else {
      const std::scoped_lock hold(lock_);
      outcome = cancelled_ ? zel::eOperationCancelled : zel::eUnspecifiedError;
    }
    if (zel::Failed(outcome)) callback_->OnRequestFailed(url_, outcome);
    callback_.Reset();
    body_.Reset();
    // Only behind the callback: the sender reads the totals as soon as its wait is over.
    {
      const std::scoped_lock hold(lock_);
      outcome_ = outcome;
      done_ = true;
    }
    changed_.notify_all();
  }

 private:
  // Returns the status of the answer, 0 for none.
  int Exchange();
  // Registers the socket for Cancel; false if the request is cancelled already.
  bool SetSocket(int socket) {
    const std::scoped_lock hold(lock_);
    socket_ = socket;
    return !cancelled_;
  }

  const zel::wstring url_;
  std::string headers_;
  zel::Ref<zel::IIO> body_;
  zel::Ref<network_services::IAsyncHttpRequestCallback> callback_;

  std::mutex lock_;  // guards all below
  std::condition_variable changed_;
  int socket_ = -1;
  bool cancelled_ = false;
  bool done_ = false;
  zel::ResultCode outcome_ = zel::sOk;
};

namespace {

struct Address {
  std::string host;
  std::string port = "80";
  std::string path = "/";
};

// Takes http://HOST[:PORT][/PATH] apart; false for anything else.
bool ParseUrl(const std::string& url, Address* address) {
  constexpr std::string_view scheme = "http://";
  if (!url.starts_with(scheme)) return false;
  const std::size_t pathStart = std::min(url.find('/', scheme.size()), url.size());
  if (pathStart < url.size()) address->path = url.substr(pathStart);
  address->host = url.substr(scheme.size(), pathStart - scheme.size());
  if (const std::size_t colon = address->host.rfind(':'); colon != std::string::npos) {
    address->port = address->host.substr(colon + 1);
    address->host.resize(colon);
  }
  return !address->host.empty();
}

int Connect(const Address& address) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &found) != 0) return -1;
  int result = -1;
  for (const addrinfo* entry = found; entry && result < 0; entry = entry->ai_next) {
    const int socket = ::socket(entry->ai_family, entry->ai_socktype | SOCK_CLOEXEC, entry->ai_protocol);
    if (socket < 0) continue;
    const timeval limit{10, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    if (::connect(socket, entry->ai_addr, entry->ai_addrlen) == 0) {
      result = socket;
    } else {
      ::close(socket);
    }
  }
  ::freeaddrinfo(found);
  return result;
}

bool SendAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

// The number behind "HTTP/1.1 ", or 0.
int ReceiveStatus(int socket) {
  std::string answer;
  char buffer[1024];
  while (answer.find("\r\n") == std::string::npos && answer.size() < 8192) {
    const ssize_t received = ::recv(socket, buffer, sizeof(buffer), 0);
    if (received <= 0) return 0;
    answer.append(buffer, static_cast<std::size_t>(received));
  }
  const std::size_t blank = answer.find(' ');
  if (!answer.starts_with("HTTP/1.") || blank == std::string::npos) return 0;
  return std::atoi(answer.c_str() + blank + 1);
}

std::string ReadAll(zel::IIO& stream) {
  std::string bytes;
  char buffer[4096];
  std::uint32_t count = 0;
  while (stream.Read(buffer, sizeof(buffer), &count) == zel::sOk && count != 0) bytes.append(buffer, count);
  return bytes;
}

}  // namespace

int Request::Exchange() {
  Address address;
  // The addresses here are plain ASCII; a host in earnest converts.
  std::string url;
  for (const char16_t unit : url_.View()) url += static_cast<char>(unit);
  if (!ParseUrl(url, &address)) return 0;

  const int socket = Connect(address);
  if (socket < 0) return 0;
  int status = 0;
  if (SetSocket(socket)) {
    const std::string body = ReadAll(*body_);
    const std::string head =
        "POST " + address.path + " HTTP/1.1\r\nHost: " + address.host + ":" + address.port + "\r\n" +
        headers_ + "Content-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n";
    if (SendAll(socket, head) && SendAll(socket, body)) status = ReceiveStatus(socket);
  }
  SetSocket(-1);
  ::close(socket);
  return status;
}

HttpClient::HttpClient() : thread_([this] { Loop(); }) {}

HttpClient::~HttpClient() {
  {
    const std::scoped_lock hold(lock_);
    stop_ = true;
    for (const zel::Ref<Request>& request : waiting_) request->Cancel();
  }
  changed_.notify_all();
  thread_.join();
}

zel::ResultCode HttpClient::MakeRequestAsync(const zel::wstring& url,
                                             const network_services::HttpRequestOptions& options,
                                             const std::uint32_t*, zel::IIO* body, void*,
                                             network_services::IAsyncHttpRequestCallback* callback,
                                             network_services::IHttpRequestHandle** request) {
  auto made = Make<Request>(url, options, body, callback);
  {
    const std::scoped_lock hold(lock_);
    waiting_.push_back(made);
  }
  changed_.notify_all();
  *request = made.Detach();
  return zel::sOk;
}

void HttpClient::Loop() {
  std::unique_lock hold(lock_);
  while (true) {
    changed_.wait(hold, [&] { return stop_ || !waiting_.empty(); });
    if (waiting_.empty()) return;
    // It stays in the list while it runs, so that the end of the client finds it there to cancel.
    const zel::Ref<Request> request = waiting_.front();
    hold.unlock();
    request->Run();
    hold.lock();
    waiting_.pop_front();
  }
}

}  // namespace own_host
