// ConnectionWatch: limits the connections, time and memory that clients can take up on a server.
//
// It differs from the HTTP library's own limits in what it does when one is reached. The library stops
// accepting, so whoever came first keeps everyone else out. And it only times silence, so a client that sends
// a byte now and then keeps its connection for ever. Here every request has a deadline. If there are too many
// connections, one of the client address that has most of them is cut: the one that has waited longest for
// the end of its request. So no client can shut out one that has fewer.
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
#include <unordered_map>

#include "server/refusal_reason.h"

namespace veld_report::server {

struct ConnectionLimits {
  std::size_t connections;
  // For the headers of a request, counted from the start of the connection or the end of the previous answer.
  // Its body gets the same time again.
  std::chrono::milliseconds requestTime;
  // Of all bodies in transit together. Above three quarters of it, connections are cut. The last eighth is
  // reserved for the first piece of a body, so that small bodies get through while large ones are being cut.
  std::size_t bodyBytes;
};

// Life: a thread of its own looks for overdue requests from the constructor to the destructor.
// Threads: any for everything.
class ConnectionWatch {
 public:
  // One connection. Belongs to the watch.
  struct Connection {
    int socket;
    std::string address;                          // of the client
    std::chrono::steady_clock::time_point since;  // when the current wait began
    std::size_t bodyBytes = 0;
    bool arrived = false;  // a whole request is being answered; such a connection isn't cut
    bool cut = false;
    bool used = false;  // it has had the first line of a request; for its owner, on the connection's thread
  };

  // Hears of each connection that is cut, with a line for the log; called under the watch's lock. May be
  // empty.
  using OnCut = std::function<void(CutReason, const std::string& line)>;
  ConnectionWatch(const ConnectionLimits& limits, OnCut onCut);
  ~ConnectionWatch();
  ConnectionWatch(const ConnectionWatch&) = delete;
  ConnectionWatch& operator=(const ConnectionWatch&) = delete;

  // The socket stays open until Closed.
  Connection* Opened(int socket);
  void Closed(Connection* connection);

  // The headers have arrived; the time for the body begins.
  void BodyBegins(Connection* connection);
  static constexpr std::size_t firstPieceBytes = std::size_t{64} * 1024;
  // Reserves memory for a body of `bodyBytes` in total. False if there is no room; what was reserved before
  // stays reserved.
  bool Hold(Connection* connection, std::size_t bodyBytes);
  // The whole request has arrived. False if the connection has been cut: nobody would get the answer.
  bool Arrived(Connection* connection);
  struct Load {
    std::size_t connections = 0;
    std::size_t bodyBytes = 0;  // reserved for bodies in transit
  };
  Load CurrentLoad();
  // The request is over, whatever came of it. Frees what was reserved for it.
  void Ended(Connection* connection);
  bool IsCut(const Connection* connection);

  // Passes on that somebody else has ended a connection of this client.
  void Tell(const std::string& address, CutReason why) const;

 private:
  using Lock = std::unique_lock<std::mutex>;

  void CutOverdue();
  // Cuts the connection that has waited longest, other than `besides`. False if there is none to cut.
  bool CutLongest(const Connection* besides, CutReason why, const std::string* address = nullptr);
  void CutOfMost(const Connection* besides);
  void Cut(Connection& connection, CutReason why);
  void CountOut(const Connection& connection);

  const ConnectionLimits limits_;
  const OnCut onCut_;

  std::mutex mutex_;  // guards the members below; held during shutdown() and `onCut`
  std::condition_variable ending_;
  bool ended_ = false;
  std::list<Connection> connections_;
  std::unordered_map<std::string, std::size_t> byAddress_;  // how many of an address aren't cut
  std::size_t uncut_ = 0;                                   // connections that aren't cut
  std::size_t bodyBytes_ = 0;                               // of all connections
  std::size_t uncutBodyBytes_ = 0;                          // of those that aren't cut
  std::thread thread_;
};

}  // namespace veld_report::server
