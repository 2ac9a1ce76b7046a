// ServiceManager: the sockets that systemd started this process with, and what it hears of the process.
//
// Both protocols are a few environment variables and a datagram, and are promised to stay. libsystemd, which
// has them too, would load six more libraries for that.
#pragma once

#include <string>
#include <vector>

namespace veld_report::app {

// Sockets that listen already; -1: none.
struct PassedSockets {
  int reports = -1;
  int page = -1;
};

// Without systemd, or another manager with these protocols, it has no sockets, and nobody is told anything.
// Threads: one at a time; it is made before others start.
class ServiceManager {
 public:
  // Takes the protocols' variables out of the environment, as they aren't for processes that this one starts.
  // Throws Failure if they don't say what a report server can use.
  ServiceManager();

  // The socket named "page" is the page's. They are the caller's from now on.
  const PassedSockets& Sockets() const { return sockets_; }

  // `url`: what it serves, for people. Each returns a sentence if the manager can't be told.
  std::string Ready(const std::string& url) const;
  // Until Ready is told again.
  std::string Reloading() const;
  std::string Stopping() const;

 private:
  std::string Tell(const std::string& state) const;

  PassedSockets sockets_;
  std::string notifyPath_;  // empty: nobody
};

}  // namespace veld_report::app
