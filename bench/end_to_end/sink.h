// The report server of a benchmark: a process of its own on loopback that answers every POST with 200 at
// once.
//
// It differs from `veldrep serve` in that it stores nothing and doesn't read the bodies (unless asked to
// count), so that no measurement waits for it. As a process of its own it doesn't add to the cost of the
// sender.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace veld_report::bench {

// In memory that both processes share.
struct SinkCounters {
  std::atomic<std::uint64_t> requests{0};
  std::atomic<std::uint64_t> bodyBytes{0};
  // If bodies are counted: the items by their "number", and the distinct ones from `firstNumber` on.
  std::atomic<std::uint64_t> items{0};
  std::atomic<std::uint64_t> distinct{0};
};

struct SinkOptions {
  std::uint16_t port = 0;  // 0: a free one
  bool count = false;      // decodes the payloads and counts their items
  std::int64_t firstNumber = 0;
  std::uint64_t maxNumbers = 0;
};

// Life: serves from the constructor until the object or this process ends.
class Sink {
 public:
  // Forks, so this process must have one thread. Throws std::system_error.
  explicit Sink(const SinkOptions& options);
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;
  ~Sink();

  std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  const SinkCounters& Counters() const { return *counters_; }

 private:
  std::uint16_t port_ = 0;
  pid_t process_ = -1;
  SinkCounters* counters_ = nullptr;
};

}  // namespace veld_report::bench
