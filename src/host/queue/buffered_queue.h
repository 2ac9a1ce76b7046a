// BufferedQueue: what the writer of a store keeps of one queue, namely its row in the file, its figures, and
// the changes of both that aren't in the file yet. Others only read it. One thread at a time; queue_store.h
// locks.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "host/queue/queue_positions.h"
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
  // The token of the youngest item that there ever was in the file.
  std::uint64_t LastToken() const { return KeyOf(id_, positions_.last); }

 private:
  friend class QueueWriter;
  static constexpr std::size_t none = SIZE_MAX;

  const std::string name_;
  std::int64_t id_ = 0;  // the row in the file, 0 if there is none
  bool present_ = false;
  QueueLedger ledger_;
  QueuePositions positions_;  // in the file
  ReadAhead ahead_;
  // The youngest block has been looked at and is large, so it won't be extended.
  bool isYoungestFull_ = false;
  // The youngest blocks, if they are small, and the position with which they begin.
  std::size_t smallBlocks_ = 0;
  std::uint64_t firstSmall_ = 0;

  bool dirty_ = false;
  std::optional<bool> presence_;  // to be written
  RangeSet deleted_;              // positions that the buffer deletes
  std::size_t lastItem_ = none;   // the youngest of the buffered items
  bool removalBuffered_ = false;
  QueueLedger unwritten_;  // change not in the file yet, without buffered items

  // Of the transaction in progress.
  QueuePositions next_;
  ItemCount waitingInFile_;  // with `next_`, if processes share the file
  QueueLedger change_;
  QueueLedger correction_;  // the difference from the expected change
};

}  // namespace veld_report::host
