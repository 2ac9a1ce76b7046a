// An HTTP server on a free loopback port that does what a test's script says, well or badly.
//
// It isn't the project's report server: it checks nothing, and it can do what no proper server would.
#pragma once

#include <netinet/in.h>
#include <openssl/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace veld_report::tests {

struct ScriptedRequest {
  std::string head;  // up to the empty line
  std::string body;
  int connection = 0;  // the how-manieth of the server
};

// What the server does with a request. The bytes go out as they stand.
struct ScriptedReply {
  std::string bytes;
  enum { keepOpen, close, never, endless } then = keepOpen;
  // keepOpen: on to the next request. close: without another byte. never: no byte until the client has gone.
  // endless: then one "a" every `pause`, until the client has gone.
  std::chrono::milliseconds pause{0};

  static ScriptedReply Status(int status, const std::string& headers = "");
};

// Life: serving from the constructor on -> stopped by the destructor, which closes every connection.
class ScriptedServer {
 public:
  using Script = std::function<ScriptedReply(const ScriptedRequest&)>;
  struct Options {
    bool ipv6 = false;
    SSL_CTX* tls = nullptr;  // not null: HTTPS; borrowed
  };
  // `script` is called on the connections' threads, one call at a time.
  explicit ScriptedServer(Script script) : ScriptedServer(std::move(script), Options()) {}
  ScriptedServer(Script script, Options options);
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;
  ~ScriptedServer();

  std::uint16_t Port() const { return port_; }
  std::string Url(const std::string& path = "/") const;
  std::vector<ScriptedRequest> Requests() const;
  int Connections() const { return connections_; }
  // Until so many requests have arrived.
  bool WaitForRequests(std::size_t count) const;

 private:
  struct Connection {
    int socket;
    int number;
    std::thread thread;
  };
  class Stream;

  void Listen();
  void Accept();
  void Serve(const Connection& connection);
  bool Reply(Stream& stream, const ScriptedReply& reply);

  const Script script_;
  const Options options_;
  int listener_ = -1;
  std::uint16_t port_ = 0;
  std::atomic<int> connections_ = 0;
  mutable std::mutex mutex_;  // guards the rest, and serialises the script
  mutable std::condition_variable changed_;
  bool stopped_ = false;
  std::vector<ScriptedRequest> requests_;
  std::list<Connection> open_;
  std::thread acceptor_;
};

// A port of 127.0.0.1 that nobody listens on.
std::uint16_t ClosedPort();

}  // namespace veld_report::tests
