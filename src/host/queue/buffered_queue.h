// BufferedQueue, what the writer of a store keeps of one queue: its row in the file, its figures, and the
// changes of both that aren't in the file yet. Others only look. One thread at a time; queue_store.h locks.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "host/queue/read_ahead.h"
#include "veld_report/queue_ledger.h"

namespace veld_report::host {

class BufferedQueue {
 public:
  explicit BufferedQueue(std::string name) : name_(std::move(name)) {}
  BufferedQueue(const BufferedQueue&) = delete;
  BufferedQueue& operator=(const BufferedQueue&) = delete;

  const std::string& Name() const { return name_; }
  // Whether the queue exists; of a removed one the figures are kept.
  bool IsPresent() const { return present_; }
  // What holds, changes in the buffer included.
  const QueueLedger& Ledger() const { return ledger_; }
  // Row in the file, 0 as long as there is none.
  std::int64_t Id() const { return id_; }
  // Whether what the file holds of the queue counts.
  bool CountsInFile() const { return id_ != 0 && !removalBuffered_; }

 private:
  friend class QueueWriter;

  const std::string name_;
  std::int64_t id_ = 0;
  bool present_ = false;
  QueueLedger ledger_;
  ReadAhead ahead_;

  bool dirty_ = false;
  std::optional<bool> presence_;  // to be written
  bool removalBuffered_ = false;
  QueueLedger unwritten_;   // change of the figures that isn't in the file, buffered items left out
  QueueLedger change_;      // of the transaction in progress
  QueueLedger correction_;  // by which that transaction differs from what was expected
};

}  // namespace veld_report::host
