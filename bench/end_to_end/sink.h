// The report server of a benchmark: a process of its own on loopback that answers every POST with 200 at
// once.
//
// It differs from `veldrep serve` in that it stores nothing and doesn't read the bodies, so that no
// measurement waits for it. As a process of its own it doesn't add to the cost of the sender.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace veld_report::bench {

// Life: serves from the constructor until the object or this process ends.
class Sink {
 public:
  // Forks, so this process must have one thread. Throws std::system_error.
  // `port`: 0 takes a free one.
  explicit Sink(std::uint16_t port);
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;
  ~Sink();

  // Of requests, heads included.
  std::uint64_t ReceivedBytes() const { return *receivedBytes_; }
  std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  std::uint16_t port_ = 0;
  pid_t process_ = -1;
  std::atomic<std::uint64_t>* receivedBytes_;  // shared with the process
};

}  // namespace veld_report::bench
