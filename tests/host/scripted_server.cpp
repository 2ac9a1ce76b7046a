#include "tests/host/scripted_server.h"

#ifdef _WIN32
#include <winsock2.h>
// Needs the names of winsock2.h.
#include <openssl/bio.h>
#else
#include <fcntl.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#endif

#include <stdexcept>

#include "tests/common/waiting.h"

namespace veld_report::tests {
namespace {

int Socket(BIO* bytes) { return static_cast<int>(BIO_get_fd(bytes, nullptr)); }

#ifdef _WIN32
BIO* Own(BIO* bytes) {
  const auto handle = static_cast<SOCKET>(Socket(bytes));
  SetHandleInformation(reinterpret_cast<HANDLE>(handle), HANDLE_FLAG_INHERIT, 0);
  return bytes;
}
// Who waits for bytes isn't woken by ShutDown, but finds it out when he tries again.
void BeginConnection(BIO* bytes) {
  const DWORD limitMs = 50;
  setsockopt(static_cast<SOCKET>(Socket(bytes)), SOL_SOCKET, SO_RCVTIMEO,
             reinterpret_cast<const char*>(&limitMs), sizeof limitMs);
}
bool TimedOut() { return WSAGetLastError() == WSAETIMEDOUT; }
void ShutDown(BIO* bytes) { shutdown(static_cast<SOCKET>(Socket(bytes)), SD_BOTH); }
BIO* Encrypted(BIO* bytes, SSL_CTX*) { return bytes; }
#else
// Not for the programs that a test starts.
BIO* Own(BIO* bytes) {
  fcntl(Socket(bytes), F_SETFD, FD_CLOEXEC);
  return bytes;
}
bool TimedOut() { return false; }
void ShutDown(BIO* bytes) { shutdown(Socket(bytes), SHUT_RDWR); }
BIO* Encrypted(BIO* bytes, SSL_CTX* tls) { return tls ? BIO_push(BIO_new_ssl(tls, 0), bytes) : bytes; }
// OpenSSL writes without MSG_NOSIGNAL.
void BeginConnection(BIO*) {
  sigset_t brokenPipe;
  sigemptyset(&brokenPipe);
  sigaddset(&brokenPipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
}
#endif

// On loopback. `port`: if it is 0, it becomes a free one.
BIO* Listen(std::uint16_t* port) {
  BIO* const listener = BIO_new_accept(("127.0.0.1:" + std::to_string(*port)).c_str());
  if (!listener || BIO_do_accept(listener) != 1) throw std::runtime_error("no loopback address to listen on");
  *port = static_cast<std::uint16_t>(std::stoi(BIO_get_accept_port(listener)));
  return Own(listener);
}

bool Write(BIO* to, const std::string& bytes) {
  const int size = static_cast<int>(bytes.size());
  return size == 0 || BIO_write(to, bytes.data(), size) == size;
}

bool ReadMore(BIO* from, std::string* pending) {
  char buffer[16384];
  int count = 0;
  do count = BIO_read(from, buffer, sizeof(buffer));
  while (count < 0 && TimedOut());
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

ScriptedServer::ScriptedServer(Script script, SSL_CTX* tls, std::uint16_t port)
    : script_(std::move(script)), tls_(tls), port_(port), listener_(Listen(&port_)) {
  acceptor_ = std::thread([this] { Accept(); });
}

ScriptedServer::~ScriptedServer() {
  // The end of the listening socket wouldn't wake who waits for it everywhere.
  ending_ = true;
  BIO* const last = BIO_new_connect(("127.0.0.1:" + std::to_string(port_)).c_str());
  BIO_do_connect(last);
  acceptor_.join();
  BIO_free_all(last);
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
    BIO* bytes = Own(BIO_pop(listener_));
    if (ending_) {
      BIO_free_all(bytes);
      return;
    }
    ++connections_;
    bytes = Encrypted(bytes, tls_);
    open_.push_back({bytes, std::thread([this, bytes] { Serve(bytes); })});
  }
}

void ScriptedServer::Serve(BIO* bytes) {
  BeginConnection(bytes);
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
