// ShuffledQueueList: the names of all queues of the domain in random order, with the position of one walk.
#pragma once

#include <cstdint>

#include "contract/queue.h"
#include "types/basic_string.h"
#include "types/vector.h"

namespace orvel::veld_report {

class ShuffledQueueList {
 public:
  // Gets the names from the queue service, duplicates included, and shuffles them. Throws
  // zel::SystemException with the service's code.
  explicit ShuffledQueueList(IQueueFactory* queueFactory);

  bool Exhausted() const { return cursor == names.size(); }
  const zel::string& Current() const { return names[cursor]; }
  void MoveOn() { ++cursor; }

 private:
  zel::vector_t<zel::string> names;
  std::uint64_t cursor = 0;  // only moves forward
};

}  // namespace orvel::veld_report
