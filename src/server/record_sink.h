// RecordSink: where the report server puts what it has checked.
//
// It differs from a stream in that a packet is stored as a whole or not at all, and is safe on the disk when
// Store returns: that is what an answer of 200 promises. A record that has a "recordId" which the sink still
// remembers is counted as repeated and not stored again; what a sink remembers, its header says.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/clock.h"

namespace veld_report::server {

// The records of one request. What it refers to must last until Store returns.
struct SinkPacket {
  std::string_view url;      // that it was sent to: the host as the sender named it, and the path; ASCII
  std::string_view urlPath;  // the path alone
  std::string_view keyName;  // in UTF-8, of the key that has signed it; empty: no signature was checked
  host::Clock::WallTimePoint received{};
  std::string_view lines;      // one record each, line ends included, all valid JSON
  std::string_view payload{};  // the text that was signed, {"array":[...]}: for sinks that keep packets whole
};

// One of the records.
struct SinkRecord {
  std::string_view text{};  // one line of JSON, without its end
  std::string id{};    // of "recordId", if that is a text of at most 64 bytes without U+0000; empty: none
  std::string time{};  // of "recordTime", likewise
};

// Calls `onRecord` for each record, which lasts until it returns. Throws std::bad_alloc, and what `onRecord`
// throws.
void ReadRecords(std::string_view lines, const std::function<void(const SinkRecord&)>& onRecord);

// "2026-03-31T09:41:07.123Z", as databases get it.
std::string TextOfTime(host::Clock::WallTimePoint moment);

struct StoreResult {
  std::size_t stored = 0;
  std::size_t repeated = 0;
};

// No attempt to store the packet can succeed.
class PacketTooLarge : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

// Threads: any, for all operations.
class RecordSink {
 public:
  virtual ~RecordSink() = default;
  // Blocks until the packet is safe. Throws std::runtime_error with a sentence, which begins with the sink's
  // name, if the packet can't be stored. Then none of it is, as far as the sink can tell, and the sink goes
  // on: a later call tries again with all that it takes.
  virtual StoreResult Store(const SinkPacket& packet) = 0;
  // Goes on in the file that has the sink's path by now, creating it if there is none. Waits for a Store in
  // progress. Throws std::runtime_error with a sentence. Then the next Store uses the former file or, in the
  // case of a database, opens it again.
  virtual void Reopen() = 0;
  // The maximum size of a packet's lines. It may change, because another server may set it.
  virtual std::size_t MaxPacketBytes() const { return std::numeric_limits<std::size_t>::max(); }
};

struct SinkOptions {
  std::string out;  // what OpenSink (open_sink.h) takes: a path or a URL
  // These two are for files of lines, see ndjson_file.h; 0: never.
  std::uint64_t rotateBytes = 0;
  std::chrono::seconds rotateEvery{0};
  std::shared_ptr<host::Clock> clock{};  // null: the system's
  // Called with a sentence that its owner should see, on any thread; may be empty.
  std::function<void(const std::string&)> log{};
  std::size_t rememberedIds = 100'000;  // of a file of lines; databases know those of all their rows
};

// The base of sinks that write several packets at once: those that arrive during one write share the next,
// and with it its sync.
class GroupingSink : public RecordSink {
 public:
  StoreResult Store(const SinkPacket& packet) final;
  void Reopen() final;

 protected:
  struct Member {
    const SinkPacket* packet;
    StoreResult result{};
  };
  // One call of these two at a time. WriteGroup stores all or throws std::runtime_error; it may be called
  // again after a failure.
  virtual void WriteGroup(std::vector<Member>& group) = 0;
  virtual void ReopenFile() = 0;

 private:
  struct Group {
    std::vector<Member> members;
    std::string failure;
    bool done = false;
  };

  std::mutex mutex_;  // guards the members below; never held across I/O
  std::condition_variable changed_;
  std::shared_ptr<Group> open_;  // the group that calls can still join
  bool writing_ = false;
};

}  // namespace veld_report::server
