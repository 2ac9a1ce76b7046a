#include "bench/end_to_end/sink.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <new>
#include <string_view>
#include <system_error>
#include <vector>

namespace veld_report::bench {
namespace {

int Checked(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

// One connection: requests with a Content-Length, one after another.
class Connection {
 public:
  explicit Connection(int socket) : socket_(socket) {}
  int Socket() const { return socket_; }

  // Processes what has arrived. False once the connection has ended.
  bool Serve(std::atomic<std::uint64_t>& receivedBytes) {
    if (used_ + chunk > buffer_.size()) buffer_.resize(used_ + chunk);
    const ssize_t got = ::recv(socket_, buffer_.data() + used_, chunk, 0);
    if (got <= 0) return false;
    used_ += static_cast<std::size_t>(got);
    receivedBytes += static_cast<std::size_t>(got);
    for (;;) {
      if (bodyBegin_ == 0 && !FindBody()) return true;
      if (used_ < bodyBegin_ + bodySize_) return true;
      const std::size_t end = bodyBegin_ + bodySize_;
      std::memmove(buffer_.data(), buffer_.data() + end, used_ - end);
      used_ -= end;
      bodyBegin_ = 0;
      if (!Answer("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")) return false;
    }
  }

 private:
  static constexpr std::size_t chunk = 1 << 18;

  bool FindBody() {
    const std::string_view text(buffer_.data(), used_);
    const std::size_t end = text.find("\r\n\r\n");
    if (end == std::string_view::npos) return false;
    const std::string_view head = text.substr(0, end);
    bodyBegin_ = end + 4;
    bodySize_ = 0;
    constexpr std::string_view length = "\r\nContent-Length: ";
    if (const std::size_t place = head.find(length); place != std::string_view::npos) {
      std::from_chars(head.data() + place + length.size(), head.data() + head.size(), bodySize_);
    }
    if (head.find("\r\nExpect: 100-continue") != std::string_view::npos)
      Answer("HTTP/1.1 100 Continue\r\n\r\n");
    return true;
  }
  bool Answer(std::string_view text) {
    return ::send(socket_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
  }

  int socket_;
  std::vector<char> buffer_;
  std::size_t used_ = 0;
  std::size_t bodyBegin_ = 0;  // 0: the request's headers aren't complete
  std::size_t bodySize_ = 0;
};

[[noreturn]] void ServeForEver(int listener, std::atomic<std::uint64_t>& receivedBytes) {
  std::vector<Connection> connections;
  for (;;) {
    std::vector<pollfd> sockets{{listener, POLLIN, 0}};
    for (const Connection& connection : connections) sockets.push_back({connection.Socket(), POLLIN, 0});
    if (::poll(sockets.data(), sockets.size(), -1) < 0) continue;
    for (std::size_t i = sockets.size() - 1; i > 0; --i) {
      if (sockets[i].revents == 0 || connections[i - 1].Serve(receivedBytes)) continue;
      ::close(sockets[i].fd);
      std::swap(connections[i - 1], connections.back());
      connections.pop_back();
    }
    if (sockets[0].revents == 0) continue;
    const int accepted = ::accept(listener, nullptr, nullptr);
    if (accepted < 0) continue;
    const int on = 1;
    ::setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    connections.emplace_back(accepted);
  }
}

}  // namespace

Sink::Sink(std::uint16_t port) {
  const int listener = Checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "sink: socket");
  const int on = 1;
  ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  Checked(::bind(listener, generic, size), "sink: bind");
  Checked(::listen(listener, 64), "sink: listen");
  Checked(::getsockname(listener, generic, &size), "sink: getsockname");
  port_ = ntohs(address.sin_port);

  void* const shared =
      ::mmap(nullptr, sizeof(*receivedBytes_), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "sink: mmap");
  receivedBytes_ = new (shared) std::atomic<std::uint64_t>(0);

  process_ = Checked(::fork(), "sink: fork");
  if (process_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ServeForEver(listener, *receivedBytes_);
  }
  ::close(listener);
}

Sink::~Sink() {
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
  ::munmap(receivedBytes_, sizeof(*receivedBytes_));
}

}  // namespace veld_report::bench
