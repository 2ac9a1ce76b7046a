// An HTTP server on a free loopback port that does what a test's script says, well or badly.
// On Windows there is no TLS.
//
// It isn't the project's report server: it checks nothing, and it can do what no proper server would.
#pragma once

#include <openssl/types.h>

#include <atomic>
#include <chrono>
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
  // `script` is called on the connections' threads, one call at a time. `tls`: borrowed; null: in the clear.
  // `port`: 0 is any free one.
  explicit ScriptedServer(Script script, SSL_CTX* tls = nullptr, std::uint16_t port = 0);
  // Gives every request the same reply.
  explicit ScriptedServer(const ScriptedReply& reply, SSL_CTX* tls = nullptr)
      : ScriptedServer([reply](const ScriptedRequest&) { return reply; }, tls) {}
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;
  ~ScriptedServer();

  std::uint16_t Port() const { return port_; }
  std::string Url(const std::string& path = "/", const std::string& host = "127.0.0.1") const;
  std::vector<ScriptedRequest> Requests() const;
  int Connections() const { return connections_; }
  // Until so many requests have arrived.
  bool WaitForRequests(std::size_t count) const;

 private:
  struct Connection {
    BIO* bytes;
    std::thread thread;
  };

  void Accept();
  void Serve(BIO* bytes);

  const Script script_;
  SSL_CTX* const tls_;
  std::uint16_t port_;
  BIO* const listener_;
  std::atomic<int> connections_ = 0;
  std::atomic<bool> ending_ = false;
  mutable std::mutex mutex_;  // guards the requests, and serialises the script
  std::vector<ScriptedRequest> requests_;
  std::list<Connection> open_;  // the acceptor's, until it has ended
  std::thread acceptor_;
};

// A port of 127.0.0.1 that nobody listens on.
std::uint16_t ClosedPort();

}  // namespace veld_report::tests
