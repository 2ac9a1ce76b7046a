#include "tests/host/scripted_server.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace veld_report::tests {
namespace {

struct Address {
  sockaddr_storage bytes = {};
  socklen_t length = 0;
  sockaddr* Get() { return reinterpret_cast<sockaddr*>(&bytes); }
};

Address LoopbackAddress(bool ipv6) {
  Address address;
  if (ipv6) {
    auto& place = reinterpret_cast<sockaddr_in6&>(address.bytes);
    place.sin6_family = AF_INET6;
    place.sin6_addr = in6addr_loopback;
    address.length = sizeof(sockaddr_in6);
  } else {
    auto& place = reinterpret_cast<sockaddr_in&>(address.bytes);
    place.sin_family = AF_INET;
    place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.length = sizeof(sockaddr_in);
  }
  return address;
}

// Binds a socket to a free port, which it returns.
int BindLoopback(bool ipv6, std::uint16_t* port) {
  Address address = LoopbackAddress(ipv6);
  const int socket = ::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket < 0 || bind(socket, address.Get(), address.length) != 0 ||
      getsockname(socket, address.Get(), &address.length) != 0) {
    if (socket >= 0) ::close(socket);
    throw std::runtime_error("no loopback address to bind to");
  }
  // The port lies at the same place in both forms.
  *port = ntohs(reinterpret_cast<sockaddr_in&>(address.bytes).sin_port);
  return socket;
}

std::size_t ContentLength(const std::string& head) {
  const std::size_t place = head.find("Content-Length: ");
  return place == std::string::npos ? 0 : std::stoul(head.substr(place + 16));
}

}  // namespace

// Bytes of a connection, in the clear or through TLS.
class ScriptedServer::Stream {
 public:
  Stream(int socket, SSL_CTX* tls) : socket_(socket), ssl_(tls ? SSL_new(tls) : nullptr) {
    if (ssl_) SSL_set_fd(ssl_, socket_);
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream() {
    if (ssl_) SSL_free(ssl_);
    ERR_clear_error();
  }
  bool Open() { return !ssl_ || SSL_accept(ssl_) == 1; }
  int Read(char* buffer, int count) {
    if (ssl_) return SSL_read(ssl_, buffer, count);
    return static_cast<int>(recv(socket_, buffer, static_cast<std::size_t>(count), 0));
  }
  bool Write(const std::string& bytes) {
    if (bytes.empty()) return true;
    if (ssl_) return SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size())) > 0;
    return send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  bool ReadRequest(ScriptedRequest* request) {
    std::size_t headEnd = 0;
    while ((headEnd = pending_.find("\r\n\r\n")) == std::string::npos) {
      if (!ReadMore()) return false;
    }
    request->head = pending_.substr(0, headEnd + 2);
    const std::size_t size = headEnd + 4 + ContentLength(request->head);
    while (pending_.size() < size) {
      if (!ReadMore()) return false;
    }
    request->body = pending_.substr(headEnd + 4, size - headEnd - 4);
    pending_.erase(0, size);
    return true;
  }

 private:
  bool ReadMore() {
    char buffer[16384];
    const int count = Read(buffer, sizeof(buffer));
    if (count > 0) pending_.append(buffer, static_cast<std::size_t>(count));
    return count > 0;
  }

  const int socket_;
  SSL* const ssl_;
  std::string pending_;
};

ScriptedReply ScriptedReply::Status(int status, const std::string& headers) {
  const std::string length = status == 204 ? "" : "Content-Length: 0\r\n";
  return {"HTTP/1.1 " + std::to_string(status) + " Scripted\r\n" + length + headers + "\r\n"};
}

ScriptedServer::ScriptedServer(Script script, Options options)
    : script_(std::move(script)), options_(options) {
  listener_ = BindLoopback(options_.ipv6, &port_);
  listen(listener_, 64);
  acceptor_ = std::thread([this] { Accept(); });
}

ScriptedServer::~ScriptedServer() {
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    changed_.notify_all();
    for (const Connection& connection : open_) shutdown(connection.socket, SHUT_RDWR);
  }
  shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  for (Connection& connection : open_) {
    connection.thread.join();
    ::close(connection.socket);
  }
  ::close(listener_);
}

std::string ScriptedServer::Url(const std::string& path) const {
  return std::string(options_.tls ? "https" : "http") + "://" + (options_.ipv6 ? "[::1]" : "127.0.0.1") +
         ":" + std::to_string(port_) + path;
}

std::vector<ScriptedRequest> ScriptedServer::Requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

bool ScriptedServer::WaitForRequests(std::size_t count) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return requests_.size() >= count; });
}

void ScriptedServer::Accept() {
  for (;;) {
    const int socket = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) return;
    const std::lock_guard lock(mutex_);
    Connection& connection = open_.emplace_back(Connection{socket, ++connections_, {}});
    if (stopped_) shutdown(socket, SHUT_RDWR);
    connection.thread = std::thread([this, &connection] { Serve(connection); });
  }
}

void ScriptedServer::Serve(const Connection& connection) {
  // OpenSSL writes without MSG_NOSIGNAL.
  sigset_t brokenPipe;
  sigemptyset(&brokenPipe);
  sigaddset(&brokenPipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
  Stream stream(connection.socket, options_.tls);
  bool goOn = stream.Open();
  while (goOn) {
    ScriptedRequest request;
    request.connection = connection.number;
    if (!stream.ReadRequest(&request)) break;
    ScriptedReply reply;
    {
      const std::lock_guard lock(mutex_);
      reply = script_(request);
      requests_.push_back(std::move(request));
      changed_.notify_all();
    }
    goOn = Reply(stream, reply);
  }
  shutdown(connection.socket, SHUT_RDWR);
}

bool ScriptedServer::Reply(Stream& stream, const ScriptedReply& reply) {
  if (reply.then == ScriptedReply::never) {
    char byte = 0;
    while (stream.Read(&byte, 1) > 0) {
    }
    return false;
  }
  bool written = stream.Write(reply.bytes);
  while (written && reply.then == ScriptedReply::endless) {
    std::unique_lock lock(mutex_);
    if (changed_.wait_for(lock, reply.pause, [this] { return stopped_; })) return false;
    lock.unlock();
    written = stream.Write("a");
  }
  return written && reply.then == ScriptedReply::keepOpen;
}

std::uint16_t ClosedPort() {
  std::uint16_t port = 0;
  ::close(BindLoopback(false, &port));
  return port;
}

}  // namespace veld_report::tests
