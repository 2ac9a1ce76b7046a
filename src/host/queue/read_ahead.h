// ReadAhead, a stretch of one queue as the file holds it, read in one go.
//
// A statement for each item would pay a read transaction, two locks on the file and a search of two trees
// each time. It is no cache to be trusted blindly: whoever deletes items or adds some to the file tells it,
// and where another process may have done so it is thrown away.
// One thread at a time; queue_store.h locks.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "host/queue/store_file.h"

namespace veld_report::host {

class ReadAhead {
 public:
  // The oldest item with a token above `after`, claimed ones included; null if there is none. What the file
  // has been asked to delete must have been told to Drop, or be skipped by the caller. Reads on if need be,
  // at most `limitBytes` of items, or one larger item. Throws SqliteError. The result is valid until the next
  // call.
  const ItemRow* Next(StoreFile& file, std::int64_t queueId, std::uint64_t after, std::size_t limitBytes);

  // The item is deleted, or about to be.
  void Drop(std::uint64_t token);
  // The file has got further items of this queue, younger than all before.
  void NoteInsertion() { reachesEnd_ = false; }
  // Forgets everything: the file has changed in a way that isn't known in detail.
  void Forget();
  // Gives the memory back. That the queue is empty, if it is, stays known.
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

  // Holds every item with a token above begin_ and up to end_, and if it reaches the end, all above begin_.
  bool valid_ = false;
  bool reachesEnd_ = false;
  std::uint64_t begin_ = 0;
  std::uint64_t end_ = 0;
  std::size_t first_ = 0;  // what stands before it has been dropped
  std::vector<Row> rows_;
  std::vector<std::uint8_t> bytes_;
  ItemRow found_;
};

}  // namespace veld_report::host
