// ShuffledQueueList: the names of all queues of the domain in random order, for one walk, with its position.
#pragma once

#include <cstdint>

#include "contract/queue.h"
#include "types/basic_string.h"
#include "types/vector.h"

namespace orvel::veld_report {

class ShuffledQueueList {
 public:
  // Asks the queue service for the names, duplicates included, and shuffles them. Throws zel::SystemException
  // with the service's code.
  explicit ShuffledQueueList(IQueueFactory* queueFactory);

  bool Exhausted() const { return cursor == names.size(); }
  const zel::string& Current() const { return names[cursor]; }
  void MoveOn() { ++cursor; }

 private:
  zel::vector_t<zel::string> names;
  std::uint64_t cursor = 0;  // moves only forward
};

}  // namespace orvel::veld_report
