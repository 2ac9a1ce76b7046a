// One request and its answer over a plain socket, interruptible from another thread.
#pragma once

#include <mutex>
#include <string>

#include "veld_report/contract/io.h"

namespace own_host {

// Threads: Interrupt on any; everything else on the thread that makes the exchange.
class InterruptibleSocket {
 public:
  // Returns the socket, -1 for none. After an Interrupt there is none.
  int Open(int family, int protocol);
  void Close();
  // Everything that waits on the socket fails at once, a connect included. Doesn't block.
  void Interrupt();
  bool IsInterrupted() const;

 private:
  mutable std::mutex mutex_;  // guards the members below
  int socket_ = -1;
  bool interrupted_ = false;
};

// Posts the body to http://HOST[:PORT][/PATH]. `headers`: lines with their line ends. Returns the status of
// the answer, 0 if no complete answer arrived.
int Exchange(const std::string& url, const std::string& headers, zel::IIO& body, InterruptibleSocket* socket);

}  // namespace own_host
