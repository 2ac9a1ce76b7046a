// A listening TCP socket. Opened here rather than by the HTTP library, so that an error can say what is wrong
// and a free port is known at once.
#pragma once

#include <cstdint>
#include <string>

namespace veld_report::server {

// Listens from OpenListenSocket to Close or the destructor. One thread at a time.
class ListenSocket {
 public:
  ListenSocket(int handle, std::uint16_t port, bool isShared = false)
      : handle_(handle), port_(port), isShared_(isShared) {}
  ListenSocket(const ListenSocket&) = delete;
  ListenSocket& operator=(const ListenSocket&) = delete;
  ~ListenSocket() { Close(); }

  int Handle() const { return handle_; }  // non-blocking
  std::uint16_t Port() const { return port_; }
  // From now on clients can't connect, unless the socket is shared with whoever gave it to this process.
  void Refuse();
  void Close();

 private:
  int handle_;
  const std::uint16_t port_;
  const bool isShared_;
};

// `address`: numeric or a name (its first address is used). `port` 0 takes a free one. Throws
// std::runtime_error with a sentence.
ListenSocket OpenListenSocket(const std::string& address, std::uint16_t port);

}  // namespace veld_report::server
