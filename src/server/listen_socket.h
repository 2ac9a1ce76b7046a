// A listening TCP socket. Opened here rather than by the HTTP library, so that an error can say what is wrong
// and a free port is known at once.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace veld_report::server {

// Where a socket listens.
struct BoundAddress {
  bool isLoopback = false, isAny = false;
  std::string text;  // numeric, an IPv6 address in brackets
  std::uint16_t port = 0;
};

// Listens from OpenListenSocket or TakeListenSocket to Close or the destructor. One thread at a time.
class ListenSocket {
 public:
  // `isShared`: whoever gave it to this process has it too, and goes on listening when this one ends.
  ListenSocket(int handle, BoundAddress address, bool isShared)
      : handle_(handle), address_(std::move(address)), isShared_(isShared) {}
  ListenSocket(const ListenSocket&) = delete;
  ListenSocket& operator=(const ListenSocket&) = delete;
  ~ListenSocket() { Close(); }

  int Handle() const { return handle_; }  // non-blocking
  const BoundAddress& Address() const { return address_; }
  std::uint16_t Port() const { return address_.port; }
  // From now on clients can't connect, unless the socket is shared.
  void Refuse();
  void Close();

 private:
  int handle_;
  const BoundAddress address_;
  const bool isShared_;
};

// `address`: numeric or a name (its first address is used). `port` 0 takes a free one. Throws
// std::runtime_error with a sentence.
ListenSocket OpenListenSocket(const std::string& address, std::uint16_t port);

// Where OpenListenSocket would listen; whether that is free isn't looked at. Throws likewise.
BoundAddress FindListenAddress(const std::string& address, std::uint16_t port);

// A socket that listens already and that this process was given. Throws likewise if it isn't one for TCP, or
// if `address` isn't empty and names another address; a `port` other than 0 is compared too.
ListenSocket TakeListenSocket(int handle, const std::string& address, std::uint16_t port);

}  // namespace veld_report::server
