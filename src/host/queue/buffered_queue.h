// BufferedQueue: what the writer of a store keeps of one queue, namely its row in the file, its figures, and
// the changes of both that aren't in the file yet. Others only read it. One thread at a time; queue_store.h
// locks.
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
  // True if the queue exists. A removed one keeps its figures.
  bool IsPresent() const { return present_; }
  // The current figures, including the changes in the buffer.
  const QueueLedger& Ledger() const { return ledger_; }
  // The row in the file, 0 if there is none.
  std::int64_t Id() const { return id_; }
  // True if the queue's content in the file is valid.
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
  QueueLedger unwritten_;   // change not in the file yet, without buffered items
  QueueLedger change_;      // of the transaction in progress
  QueueLedger correction_;  // the difference of that transaction from the expected change
};

}  // namespace veld_report::host
