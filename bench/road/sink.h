// The report server of a benchmark: a process of its own on loopback that answers every POST with 200 at
// once.
//
// It differs from `veldrep serve` in that it stores nothing and, unless told to count, doesn't look into a
// body, so that it never is what a measurement waits for. What it costs is kept apart: it is another process.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace veld_report::bench {

// Lies in memory that both processes see.
struct SinkCounters {
  std::atomic<std::uint64_t> requests{0};
  std::atomic<std::uint64_t> bodyBytes{0};
  // Where bodies are counted: items by their "number", and how many different ones from `firstNumber` on.
  std::atomic<std::uint64_t> items{0};
  std::atomic<std::uint64_t> distinct{0};
};

struct SinkOptions {
  std::uint16_t port = 0;  // 0: a free one
  bool count = false;      // decodes the payloads and counts their items
  std::int64_t firstNumber = 0;
  std::uint64_t mostNumbers = 0;
};

// Life: serving (from the constructor on) -> gone, with the object or with this process.
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
