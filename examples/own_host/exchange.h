// One request and its answer over a plain socket, and the means to interrupt it from another thread.
#pragma once

#include <mutex>
#include <string>

#include "contract/io.h"

namespace own_host {

// Threads: Interrupt on any; all else on the one that makes the exchange.
class InterruptibleSocket {
 public:
  // Returns the socket, -1 for none; none is made after an Interrupt.
  int Open(int family, int protocol);
  void Close();
  // Whatever waits on the socket fails at once, a connect included. Doesn't block.
  void Interrupt();
  bool IsInterrupted() const;

 private:
  mutable std::mutex mutex_;  // guards all below
  int socket_ = -1;
  bool interrupted_ = false;
};

// Posts the body to http://HOST[:PORT][/PATH]. `headers`: lines with their ends.
// Returns the status of the answer, 0 if none arrived whole.
int Exchange(const std::string& url, const std::string& headers, zel::IIO& body, InterruptibleSocket* socket);

}  // namespace own_host
