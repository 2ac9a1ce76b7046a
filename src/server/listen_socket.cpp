#include "server/listen_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace veld_report::server {
namespace {

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

AddressList LookUp(const std::string& address, std::uint16_t port) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* list = nullptr;
  const int code = getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &list);
  if (code != 0) throw std::runtime_error(address + ": not an address to listen on: " + gai_strerror(code));
  return AddressList(list, &freeaddrinfo);
}

BoundAddress Describe(const sockaddr* address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (address->sa_family == AF_INET6) {
    const auto* const full = reinterpret_cast<const sockaddr_in6*>(address);
    inet_ntop(AF_INET6, &full->sin6_addr, text.data(), text.size());
    return {IN6_IS_ADDR_LOOPBACK(&full->sin6_addr) != 0, IN6_IS_ADDR_UNSPECIFIED(&full->sin6_addr) != 0,
            "[" + std::string(text.data()) + "]", ntohs(full->sin6_port)};
  }
  const auto* const full = reinterpret_cast<const sockaddr_in*>(address);
  inet_ntop(AF_INET, &full->sin_addr, text.data(), text.size());
  constexpr unsigned loopbackNet = 127;
  return {ntohl(full->sin_addr.s_addr) >> 24 == loopbackNet, full->sin_addr.s_addr == INADDR_ANY, text.data(),
          ntohs(full->sin_port)};
}

BoundAddress AddressOf(int handle) {
  sockaddr_storage storage{};
  socklen_t length = sizeof(storage);
  getsockname(handle, reinterpret_cast<sockaddr*>(&storage), &length);
  return Describe(reinterpret_cast<const sockaddr*>(&storage));
}

int OptionOf(int handle, int option) {
  int value = 0;
  socklen_t length = sizeof(value);
  return getsockopt(handle, SOL_SOCKET, option, &value, &length) == 0 ? value : -1;
}

}  // namespace

void ListenSocket::Refuse() {
  if (!isShared_) shutdown(handle_, SHUT_RDWR);
}

void ListenSocket::Close() {
  if (handle_ >= 0) close(handle_);
  handle_ = -1;
}

ListenSocket OpenListenSocket(const std::string& address, std::uint16_t port) {
  const AddressList list = LookUp(address, port);
  const int handle =
      socket(list->ai_family, list->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, list->ai_protocol);
  const int yes = 1;
  // Lets a restarted server take its port back while connections of the old one are still closing.
  const bool listening = handle >= 0 &&
                         setsockopt(handle, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes)) == 0 &&
                         bind(handle, list->ai_addr, list->ai_addrlen) == 0 && listen(handle, SOMAXCONN) == 0;
  if (listening) return {handle, AddressOf(handle), false};
  const std::string reason = std::generic_category().message(errno);
  if (handle >= 0) close(handle);
  throw std::runtime_error(address + " port " + std::to_string(port) + ": can't listen there: " + reason);
}

BoundAddress FindListenAddress(const std::string& address, std::uint16_t port) {
  return Describe(LookUp(address, port)->ai_addr);
}

ListenSocket TakeListenSocket(int handle, const std::string& address, std::uint16_t port) {
  const int family = OptionOf(handle, SO_DOMAIN);
  if (OptionOf(handle, SO_ACCEPTCONN) != 1 || OptionOf(handle, SO_TYPE) != SOCK_STREAM ||
      (family != AF_INET && family != AF_INET6))
    throw std::runtime_error("descriptor " + std::to_string(handle) +
                             ", which this process was given, isn't a TCP socket that listens");
  BoundAddress bound = AddressOf(handle);
  if (!address.empty()) {
    const BoundAddress wanted = FindListenAddress(address, port);
    if (wanted.text != bound.text || (port != 0 && port != bound.port))
      throw std::runtime_error("the socket that this process was given listens on " + bound.text + ":" +
                               std::to_string(bound.port) + " rather than on " + wanted.text + ":" +
                               std::to_string(port) + "; leave the address out, or give the same");
  }
  fcntl(handle, F_SETFD, FD_CLOEXEC);
  fcntl(handle, F_SETFL, fcntl(handle, F_GETFL) | O_NONBLOCK);
  return {handle, std::move(bound), true};
}

}  // namespace veld_report::server
