// ReadAhead: a range of one queue's items in the file, read at once.
//
// A statement for each item would cost a read transaction, two locks on the file and two tree searches each
// time. It isn't kept up to date by itself: whoever deletes items from the file or adds some must report
// that, and if another process may have done so, it must be forgotten. One thread at a time; queue_store.h
// locks.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "host/queue/store_file.h"

namespace veld_report::host {

class ReadAhead {
 public:
  // The oldest item with a token above `after`, claimed or not; null if there is none. Deletions must be
  // reported with Drop, or the caller must skip those items. Reads further if needed: up to `limitBytes` of
  // items, or one larger item. Throws SqliteError. The result is valid until the next call.
  const ItemRow* Next(StoreFile& file, std::int64_t queueId, std::uint64_t after, std::size_t limitBytes);

  // The item was or will be deleted.
  void Drop(std::uint64_t token);
  // The file has new items of this queue, younger than all others.
  void NoteInsertion() { reachesEnd_ = false; }
  // Forgets everything, because the file has changed in unknown ways.
  void Forget();
  // Frees the memory. If the queue is empty, that is still known.
  void Shrink();

 private:
  struct Row {
    std::uint64_t token;
    std::int64_t enqueuedMs;
    std::size_t offset;  // into bytes_
    std::size_t size;
    bool dropped;
  };

  const Row* Find(std::uint64_t after) const;
  void Fill(StoreFile& file, std::int64_t queueId, std::uint64_t after, std::size_t limitBytes);

  // Holds every item with a token above begin_ and up to end_; if it reaches the end, all above begin_.
  bool valid_ = false;
  bool reachesEnd_ = false;
  std::uint64_t begin_ = 0;
  std::uint64_t end_ = 0;
  std::size_t first_ = 0;  // the rows before it were dropped
  std::vector<Row> rows_;
  std::vector<std::uint8_t> bytes_;
  ItemRow found_;
};

}  // namespace veld_report::host
