#include "server/listen_socket.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>

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

std::uint16_t PortOf(int handle) {
  sockaddr_storage storage{};
  socklen_t length = sizeof(storage);
  if (getsockname(handle, reinterpret_cast<sockaddr*>(&storage), &length) != 0) return 0;
  // The port is at the same offset for both address families.
  return ntohs(reinterpret_cast<const sockaddr_in*>(&storage)->sin_port);
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
  if (listening) return ListenSocket(handle, PortOf(handle));
  const std::string reason = std::generic_category().message(errno);
  if (handle >= 0) close(handle);
  throw std::runtime_error(address + " port " + std::to_string(port) + ": can't listen there: " + reason);
}

}  // namespace veld_report::server
