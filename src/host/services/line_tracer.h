// LineTracer, the tracer of the host kit: whole lines with time and level, to a file, to stderr or to a
// function.
//
// A line is written when it is handed back and not buffered further, so a crash loses none. A line looks like
//   2026-03-01T12:00:00.123456Z 300 veld_rep<tab>...
// with the time in UTC. A control character in the text other than tab is written as \xNN: one line stays one
// line whatever a record or a url holds. Text that isn't UTF-8 is passed on as it is.
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
  std::string path{};         // empty: stderr
  std::uint32_t level = 300;  // lines of this level and below are wanted: 300 failures, 700 all, 0 none
  std::uint64_t limitBytes = 16 << 20;  // of the file; at this size it is moved to PATH.1
  // If set, gets each line without its line end, in place of a file, one call at a time, on the thread that
  // wrote it. It must not write trace lines itself. What it throws is dropped, with the line.
  std::function<void(std::string_view)> sink{};
};

// Threads: any; lines of concurrent writers don't mix. A line whose level is off costs one call and no lock.
class LineTracer final : public HostObject<zel::ITracer> {
 public:
  // Throws std::runtime_error if the file can't be opened.
  explicit LineTracer(LineTracerOptions options);

  void SetLevel(std::uint32_t level) { level_.store(level, std::memory_order_relaxed); }
  // Lines that couldn't be written: a full disk, a sink that threw.
  std::uint64_t DroppedLines() const { return dropped_.load(std::memory_order_relaxed); }

  // As the contract says; 1 for a level that is off, 0x80000041 "Out of memory" where no buffer can be had,
  // and then, for a growth, the old buffer stays valid.
  zel::ResultCode AcquireBuffer(std::uint32_t level, char** buffer, std::uint64_t size) override;
  zel::ResultCode CommitBuffer(char* buffer, std::uint64_t length) override;

 private:
  ~LineTracer() override;

  zel::ResultCode Acquire(std::uint32_t level, char** buffer, std::uint64_t size);
  zel::ResultCode Grow(char** buffer, std::uint64_t size);
  void Recycle(char* buffer);
  void WriteLine(std::uint32_t level, std::string_view text);

  std::atomic<std::uint32_t> level_;
  std::atomic<std::uint64_t> dropped_{0};
  const std::function<void(std::string_view)> sink_;

  std::mutex outputMutex_;  // guards file_, line_ and the call of sink_; held across one write
  std::unique_ptr<TraceFile> file_;
  std::string line_;

  std::mutex poolMutex_;  // guards pool_, for moments
  std::vector<char*> pool_;
};

}  // namespace veld_report::host
