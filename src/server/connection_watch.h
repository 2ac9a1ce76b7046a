// ConnectionWatch: bounds what clients can hold of a server, in connections, time and memory.
//
// It differs from the HTTP library's own limits in what it does at a limit: the library stops accepting, so
// whoever came first keeps everyone else out, and it only times silence, so a byte now and then holds a
// connection for ever. Here the connection that has waited longest for the end of its request is cut, and
// every request has a time in which it must have arrived.
//
// Cutting shuts the socket down; the library then ends the connection as if the client had gone.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

namespace veld_report::server {

struct ConnectionLimits {
  std::size_t connections;
  // For the headers of a request, from the start of the connection or the end of the answer before; and once
  // more for its body.
  std::chrono::milliseconds requestTime;
  // Of bodies that are arriving, together. From three quarters of it on, connections are cut. The last eighth
  // is for the first piece of a body, so that a small one gets through while large ones are being cut.
  std::size_t bodyBytes;
};

// Life: from the constructor to the destructor a thread of its own looks for requests that take too long.
// Threads: any for everything.
class ConnectionWatch {
 public:
  // One connection. Belongs to the watch.
  struct Connection {
    int socket;
    std::chrono::steady_clock::time_point since;  // what is awaited has been awaited since then
    std::size_t bodyBytes = 0;
    bool arrived = false;  // a whole request is being answered; such a connection isn't cut
    bool cut = false;
  };

  // `log` hears a line for each connection that is cut.
  ConnectionWatch(const ConnectionLimits& limits, std::function<void(const std::string&)> log);
  ~ConnectionWatch();
  ConnectionWatch(const ConnectionWatch&) = delete;
  ConnectionWatch& operator=(const ConnectionWatch&) = delete;

  // The socket stays open until Closed.
  Connection* Opened(int socket);
  void Closed(Connection* connection);

  // The headers are there, the body's time begins.
  void BodyBegins(Connection* connection);
  static constexpr std::size_t firstPieceBytes = std::size_t{64} * 1024;
  // So many bytes are held for the body from now on. False if there is no room for them; then it holds what
  // it held.
  bool Hold(Connection* connection, std::size_t bodyBytes);
  // A whole request is there. False if the connection has been cut: then nobody would get the answer.
  bool Arrived(Connection* connection);
  // Whatever became of the request: nothing of it is held any more.
  void Ended(Connection* connection);

 private:
  using Lock = std::unique_lock<std::mutex>;

  void CutOverdue();
  // Cuts the connection that has waited longest, but not `besides`. False if there is none to cut.
  bool CutLongest(const Connection* besides, bool withBody, const char* why);
  void Cut(Connection& connection, const char* why);

  const ConnectionLimits limits_;
  const std::function<void(const std::string&)> log_;

  std::mutex mutex_;  // guards what follows; held while sockets are shut down and while `log` is called
  std::condition_variable ending_;
  bool ended_ = false;
  std::list<Connection> connections_;
  std::size_t uncut_ = 0;           // connections that aren't cut
  std::size_t bodyBytes_ = 0;       // of all connections
  std::size_t uncutBodyBytes_ = 0;  // of those that aren't cut
  std::thread thread_;
};

}  // namespace veld_report::server
