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
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/clock.h"

namespace veld_report::server {

// The records of one request. What it refers to must last until Store returns.
struct SinkPacket {
  std::string_view urlPath;
  std::string_view keyName;  // of the key that has signed it; empty: no signature was checked
  std::string_view lines;    // one record each, line ends included, all valid JSON
};

// One of the records.
struct SinkRecord {
  std::string_view text{};  // one line of JSON, without its end
  std::string id{};         // of "recordId", if that is a text of at most 64 bytes; empty: none
  std::string time{};       // of "recordTime", likewise
};

// Calls `onRecord` for each record. Throws std::bad_alloc, and what `onRecord` throws.
void ReadRecords(std::string_view lines, const std::function<void(const SinkRecord&)>& onRecord);

struct StoreResult {
  std::size_t stored = 0;
  std::size_t repeated = 0;
};

// Threads: any, for all operations.
class RecordSink {
 public:
  virtual ~RecordSink() = default;
  // Blocks on the disk. Throws std::runtime_error with a sentence if the packet can't be stored. Then none of
  // it is, and the sink goes on: a later call tries again with all that it takes.
  virtual StoreResult Store(const SinkPacket& packet) = 0;
  // Goes on in the file that has the sink's path by now, creating it if there is none. Waits for a Store in
  // progress. Throws std::runtime_error with a sentence. Then the next Store uses the former file or, in the
  // case of a database, opens the path again.
  virtual void Reopen() = 0;
  // The bytes of a torn end that were cut off when the sink was opened.
  virtual std::uint64_t TornBytes() const { return 0; }
};

struct SinkOptions {
  std::string path;
  std::uint64_t rotateBytes = 0;         // see NdjsonFile; 0: never
  std::chrono::seconds rotateEvery{0};   // likewise
  std::shared_ptr<host::Clock> clock{};  // null: the system's
};

// By the end of the path: .sqlite is a SqliteFile, everything else an NdjsonFile. Throws std::runtime_error
// with a sentence.
std::unique_ptr<RecordSink> OpenSink(const SinkOptions& options);

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
