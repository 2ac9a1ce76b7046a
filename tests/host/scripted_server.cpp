#include "tests/host/scripted_server.h"

#include <fcntl.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>

#include <stdexcept>

#include "tests/common/waiting.h"

namespace veld_report::tests {
namespace {

int Socket(BIO* bytes) { return static_cast<int>(BIO_get_fd(bytes, nullptr)); }
// Not for the programs that a test starts.
BIO* Own(BIO* bytes) {
  fcntl(Socket(bytes), F_SETFD, FD_CLOEXEC);
  return bytes;
}

// On a free port of loopback. `port` is that.
BIO* Listen(std::uint16_t* port) {
  BIO* const listener = BIO_new_accept("127.0.0.1:0");
  if (!listener || BIO_do_accept(listener) != 1) throw std::runtime_error("no loopback address to listen on");
  *port = static_cast<std::uint16_t>(std::stoi(BIO_get_accept_port(listener)));
  return Own(listener);
}

void ShutDown(BIO* bytes) { shutdown(Socket(bytes), SHUT_RDWR); }

bool Write(BIO* to, const std::string& bytes) {
  const int size = static_cast<int>(bytes.size());
  return size == 0 || BIO_write(to, bytes.data(), size) == size;
}

bool ReadMore(BIO* from, std::string* pending) {
  char buffer[16384];
  const int count = BIO_read(from, buffer, sizeof(buffer));
  if (count > 0) pending->append(buffer, static_cast<std::size_t>(count));
  return count > 0;
}

bool ReadRequest(BIO* from, std::string* pending, ScriptedRequest* request) {
  std::size_t headEnd = 0;
  while ((headEnd = pending->find("\r\n\r\n")) == std::string::npos) {
    if (!ReadMore(from, pending)) return false;
  }
  request->head = pending->substr(0, headEnd + 2);
  const std::size_t length = request->head.find("Content-Length: ");
  const std::size_t bodySize =
      length == std::string::npos ? 0 : std::stoul(request->head.substr(length + 16));
  pending->erase(0, headEnd + 4);
  while (pending->size() < bodySize) {
    if (!ReadMore(from, pending)) return false;
  }
  request->body = pending->substr(0, bodySize);
  pending->erase(0, bodySize);
  return true;
}

// Returns whether the connection goes on.
bool Send(BIO* to, const ScriptedReply& reply, std::string* pending) {
  bool alive = Write(to, reply.bytes);
  while (alive && reply.then == ScriptedReply::never) alive = ReadMore(to, pending);
  while (alive && reply.then == ScriptedReply::endless) {
    std::this_thread::sleep_for(reply.pause);
    alive = Write(to, "a");
  }
  return alive && reply.then == ScriptedReply::keepOpen;
}

}  // namespace

ScriptedReply ScriptedReply::Status(int status, const std::string& headers) {
  const std::string length = status == 204 ? "" : "Content-Length: 0\r\n";
  return {"HTTP/1.1 " + std::to_string(status) + " Scripted\r\n" + length + headers + "\r\n"};
}

ScriptedServer::ScriptedServer(Script script, SSL_CTX* tls)
    : script_(std::move(script)), tls_(tls), listener_(Listen(&port_)) {
  acceptor_ = std::thread([this] { Accept(); });
}

ScriptedServer::~ScriptedServer() {
  ShutDown(listener_);
  acceptor_.join();
  for (Connection& connection : open_) {
    ShutDown(connection.bytes);
    connection.thread.join();
    BIO_free_all(connection.bytes);
  }
  BIO_free(listener_);
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
  while (BIO_do_accept(listener_) == 1) {
    ++connections_;
    BIO* bytes = Own(BIO_pop(listener_));
    if (tls_) bytes = BIO_push(BIO_new_ssl(tls_, 0), bytes);
    open_.push_back({bytes, std::thread([this, bytes] { Serve(bytes); })});
  }
}

void ScriptedServer::Serve(BIO* bytes) {
  // OpenSSL writes without MSG_NOSIGNAL.
  sigset_t brokenPipe;
  sigemptyset(&brokenPipe);
  sigaddset(&brokenPipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
  std::string pending;
  ScriptedRequest request;
  bool goOn = true;
  while (goOn && ReadRequest(bytes, &pending, &request)) {
    std::unique_lock lock(mutex_);
    const ScriptedReply reply = script_(request);
    requests_.push_back(request);
    lock.unlock();
    goOn = Send(bytes, reply, &pending);
  }
  ShutDown(bytes);
}

std::uint16_t ClosedPort() {
  std::uint16_t port = 0;
  BIO_free(Listen(&port));
  return port;
}

}  // namespace veld_report::tests
