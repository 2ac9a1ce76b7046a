// LineTracer: the tracer of the host kit. It writes whole lines with time and level to a file, to stderr or
// to a function.
//
// A line is written when it is committed and isn't buffered after that, so a crash loses none. A line looks
// like
//   2026-03-01T12:00:00.123456Z 300 veld_rep<tab>...
// with the time in UTC. Control characters other than tab are written as \xNN, so that a line stays one line
// whatever a record or a url contains. Text that isn't UTF-8 isn't changed.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "contract/tracer.h"
#include "host/base/host_object.h"

namespace veld_report::host {

class TraceFile;

struct LineTracerOptions {
  std::string path{};                   // empty: stderr
  std::uint32_t level = 300;            // the highest level to write: 300 failures, 700 all, 0 none
  std::uint64_t limitBytes = 16 << 20;  // of the file; at this size it is moved to PATH.1
  // If set, receives each line without its line end instead of a file, one call at a time, on the thread that
  // wrote the line. It must not trace. If it throws, the line is dropped.
  std::function<void(std::string_view)> sink{};
  // The same, but receives the level and the line without its time and level.
  std::function<void(std::uint32_t, std::string_view)> log{};
};

// Threads: any; lines of concurrent writers don't mix. If a line's level is off, it costs one call and no
// lock.
class LineTracer final : public HostObject<zel::ITracer> {
 public:
  // Throws std::runtime_error if the file can't be opened.
  explicit LineTracer(LineTracerOptions options);

  void SetLevel(std::uint32_t level) { level_.store(level, std::memory_order_relaxed); }
  // Lines that couldn't be written because of a full disk or a sink that threw.
  std::uint64_t DroppedLines() const { return dropped_.load(std::memory_order_relaxed); }

  // As in the contract. Returns 1 if the level is off, and 0x80000041 "Out of memory" if there is no buffer;
  // when growing, the old buffer then stays valid.
  zel::ResultCode AcquireBuffer(std::uint32_t level, char** buffer, std::uint64_t size) override;
  zel::ResultCode CommitBuffer(char* buffer, std::uint64_t length) override;

 private:
  ~LineTracer() override;

  zel::ResultCode Acquire(std::uint32_t level, char** buffer, std::uint64_t size);
  zel::ResultCode Grow(char** buffer, std::uint64_t size);
  void Recycle(char* buffer);
  void WriteLine(std::uint32_t level, std::string_view text);

  std::atomic<std::uint32_t> level_;       // a choice; a line that has just begun may miss it
  std::atomic<std::uint64_t> dropped_{0};  // a figure
  const std::function<void(std::string_view)> sink_;
  const std::function<void(std::uint32_t, std::string_view)> log_;

  std::mutex outputMutex_;  // guards file_, line_ and the call of sink_ or log_; held across one write
  std::unique_ptr<TraceFile> file_;
  std::string line_;

  std::mutex poolMutex_;  // guards pool_; held briefly
  std::vector<char*> pool_;
};

}  // namespace veld_report::host
