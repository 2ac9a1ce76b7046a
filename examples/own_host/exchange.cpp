#include "exchange.h"

#include <netdb.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace own_host {
namespace {

struct Address {
  std::string host;
  std::string port = "80";
  std::string path = "/";
};

// False for anything but http://HOST[:PORT][/PATH].
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
  // For a number out of range the resolver would use what is left of it.
  return !address->host.empty() && std::atol(address->port.c_str()) <= 65535;
}

int Connect(const Address& address, InterruptibleSocket* socket) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  // The only wait that can't be interrupted. A production client resolves on a thread that it can abandon.
  if (::getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &found) != 0) return -1;
  int result = -1;
  for (const addrinfo* entry = found; entry && result < 0; entry = entry->ai_next) {
    const int opened = socket->Open(entry->ai_family, entry->ai_protocol);
    if (opened < 0) continue;
    const timeval limit{10, 0};
    ::setsockopt(opened, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    ::setsockopt(opened, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    if (::connect(opened, entry->ai_addr, entry->ai_addrlen) == 0) {
      result = opened;
    } else {
      socket->Close();
    }
  }
  ::freeaddrinfo(found);
  return result;
}

bool ReadBody(zel::IIO& stream, std::string* bytes) {
  char buffer[4096];
  std::uint32_t count = 0;
  do {
    if (stream.Read(buffer, sizeof(buffer), &count) != zel::sOk) return false;
    bytes->append(buffer, count);
  } while (count != 0);
  return true;
}

bool SendAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

class AnswerReader {
 public:
  explicit AnswerReader(int socket) : socket_(socket) {}

  // Reads to the end of the answer. Returns its status, 0 if it isn't complete.
  int Read() {
    int status = 0;
    do {
      std::string line;
      if (!ReadLine(&line) || !line.starts_with("HTTP/1.")) return 0;
      status = std::atoi(line.c_str() + std::min(line.find(' '), line.size()));
      if (!ReadHeaders()) return 0;
    } while (status / 100 == 1);  // the final answer follows
    if (status == 204) return status;
    while (pending_.size() < contentLength_) {
      if (!ReadMore()) return closed_ && !hasLength_ ? status : 0;
    }
    return status;
  }

 private:
  bool ReadHeaders() {
    constexpr std::string_view name = "Content-Length:";
    for (std::string line; ReadLine(&line);) {
      if (line.empty()) return true;
      if (::strncasecmp(line.c_str(), name.data(), name.size()) != 0) continue;
      hasLength_ = true;
      contentLength_ = std::strtoul(line.c_str() + name.size(), nullptr, 10);
    }
    return false;
  }
  bool ReadLine(std::string* line) {
    std::size_t end = 0;
    while ((end = pending_.find('\n')) == std::string::npos) {
      if (!ReadMore()) return false;
    }
    *line = pending_.substr(0, end);
    if (line->ends_with('\r')) line->pop_back();
    pending_.erase(0, end + 1);
    return true;
  }
  bool ReadMore() {
    char buffer[4096];
    if (pending_.size() > maxPendingBytes) return false;
    const ssize_t received = ::recv(socket_, buffer, sizeof(buffer), 0);
    closed_ = received == 0;
    if (received > 0) pending_.append(buffer, static_cast<std::size_t>(received));
    return received > 0;
  }

  static constexpr std::size_t maxPendingBytes = 65536;
  const int socket_;
  std::string pending_;
  bool closed_ = false;
  bool hasLength_ = false;
  // Without a length the content ends with the connection, which the request asks the server to close.
  std::size_t contentLength_ = SIZE_MAX;
};

}  // namespace

int InterruptibleSocket::Open(int family, int protocol) {
  const std::scoped_lock lock(mutex_);
  if (!interrupted_) socket_ = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, protocol);
  return socket_;
}

void InterruptibleSocket::Close() {
  const std::scoped_lock lock(mutex_);
  if (socket_ >= 0) ::close(socket_);
  socket_ = -1;
}

void InterruptibleSocket::Interrupt() {
  const std::scoped_lock lock(mutex_);
  interrupted_ = true;
  if (socket_ >= 0) ::shutdown(socket_, SHUT_RDWR);
}

bool InterruptibleSocket::IsInterrupted() const {
  const std::scoped_lock lock(mutex_);
  return interrupted_;
}

int Exchange(const std::string& url, const std::string& headers, zel::IIO& body,
             InterruptibleSocket* socket) {
  Address address;
  std::string content;
  if (!ParseUrl(url, &address) || !ReadBody(body, &content)) return 0;
  const std::string head =
      "POST " + address.path + " HTTP/1.1\r\nHost: " + address.host + ":" + address.port + "\r\n" + headers +
      "Content-Length: " + std::to_string(content.size()) + "\r\nConnection: close\r\n\r\n";
  const int connected = Connect(address, socket);
  const bool sent = connected >= 0 && SendAll(connected, head) && SendAll(connected, content);
  const int status = sent ? AnswerReader(connected).Read() : 0;
  socket->Close();
  return status;
}

}  // namespace own_host
