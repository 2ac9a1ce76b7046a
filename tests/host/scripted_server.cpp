#include "tests/host/scripted_server.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>

#include "tests/common/waiting.h"

namespace veld_report::tests {
namespace {

// Binds a socket to a free port.
int BindLoopback(std::uint16_t* port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const place = reinterpret_cast<sockaddr*>(&address);
  socklen_t length = sizeof(address);
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket < 0 || bind(socket, place, length) != 0 || getsockname(socket, place, &length) != 0) {
    throw std::runtime_error("no loopback address to bind to");
  }
  *port = ntohs(address.sin_port);
  return socket;
}

// Bytes of a connection, in the clear or through TLS.
class Stream {
 public:
  Stream(int socket, SSL_CTX* tls) : bytes_(BIO_new_socket(socket, BIO_NOCLOSE), &BIO_free_all) {
    if (tls) bytes_.reset(BIO_push(BIO_new_ssl(tls, 0), bytes_.release()));
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream() { ERR_clear_error(); }

  bool Write(const std::string& bytes) const {
    const int size = static_cast<int>(bytes.size());
    return size == 0 || BIO_write(bytes_.get(), bytes.data(), size) == size;
  }
  bool ReadRequest(ScriptedRequest* request) {
    std::size_t headEnd = 0;
    while ((headEnd = pending_.find("\r\n\r\n")) == std::string::npos) {
      if (!ReadMore()) return false;
    }
    request->head = pending_.substr(0, headEnd + 2);
    const std::size_t length = request->head.find("Content-Length: ");
    const std::size_t bodySize =
        length == std::string::npos ? 0 : std::stoul(request->head.substr(length + 16));
    pending_.erase(0, headEnd + 4);
    while (pending_.size() < bodySize) {
      if (!ReadMore()) return false;
    }
    request->body = pending_.substr(0, bodySize);
    pending_.erase(0, bodySize);
    return true;
  }
  bool ReadMore() {
    char buffer[16384];
    const int count = BIO_read(bytes_.get(), buffer, sizeof(buffer));
    if (count > 0) pending_.append(buffer, static_cast<std::size_t>(count));
    return count > 0;
  }

 private:
  std::unique_ptr<BIO, decltype(&BIO_free_all)> bytes_;
  std::string pending_;
};

// Returns whether the connection goes on.
bool Send(Stream& stream, const ScriptedReply& reply) {
  bool alive = stream.Write(reply.bytes);
  while (alive && reply.then == ScriptedReply::never) alive = stream.ReadMore();
  while (alive && reply.then == ScriptedReply::endless) {
    std::this_thread::sleep_for(reply.pause);
    alive = stream.Write("a");
  }
  return alive && reply.then == ScriptedReply::keepOpen;
}

}  // namespace

ScriptedReply ScriptedReply::Status(int status, const std::string& headers) {
  const std::string length = status == 204 ? "" : "Content-Length: 0\r\n";
  return {"HTTP/1.1 " + std::to_string(status) + " Scripted\r\n" + length + headers + "\r\n"};
}

ScriptedServer::ScriptedServer(Script script, SSL_CTX* tls)
    : script_(std::move(script)), tls_(tls), listener_(BindLoopback(&port_)) {
  listen(listener_, 64);
  acceptor_ = std::thread([this] { Accept(); });
}

ScriptedServer::~ScriptedServer() {
  shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  for (Connection& connection : open_) {
    shutdown(connection.socket, SHUT_RDWR);
    connection.thread.join();
    ::close(connection.socket);
  }
  ::close(listener_);
}

std::string ScriptedServer::Url(const std::string& path, const std::string& host) const {
  return (tls_ ? "https://" : "http://") + host + ":" + std::to_string(port_) + path;
}

std::vector<ScriptedRequest> ScriptedServer::Requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

bool ScriptedServer::WaitForRequests(std::size_t count) const {
  return Eventually([&] { return Requests().size() >= count; });
}

void ScriptedServer::Accept() {
  for (;;) {
    const int socket = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) return;
    ++connections_;
    open_.push_back({socket, std::thread([this, socket] { Serve(socket); })});
  }
}

void ScriptedServer::Serve(int socket) {
  // OpenSSL writes without MSG_NOSIGNAL.
  sigset_t brokenPipe;
  sigemptyset(&brokenPipe);
  sigaddset(&brokenPipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
  Stream stream(socket, tls_);
  ScriptedRequest request;
  bool goOn = true;
  while (goOn && stream.ReadRequest(&request)) {
    std::unique_lock lock(mutex_);
    const ScriptedReply reply = script_(request);
    requests_.push_back(request);
    lock.unlock();
    goOn = Send(stream, reply);
  }
  shutdown(socket, SHUT_RDWR);
}

std::uint16_t ClosedPort() {
  std::uint16_t port = 0;
  ::close(BindLoopback(&port));
  return port;
}

}  // namespace veld_report::tests
