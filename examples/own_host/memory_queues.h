// The queue service, in memory: what waits here ends with the process. A service for use keeps it on disk.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "contract/queue.h"
#include "counted.h"

namespace own_host {

struct Item {
  std::uint64_t token = 0;
  std::vector<std::uint8_t> bytes;
  const void* holder = nullptr;  // the reader that has it
};
using Queue = std::vector<Item>;
using QueueName = std::pair<std::string, std::string>;  // domain and name

// All queues. Readers and writers share it, so it outlives the service if they do.
struct QueueTable {
  std::mutex mutex;  // guards all below
  std::map<QueueName, Queue> queues;
  std::uint64_t lastToken = 0;  // tokens rise by one an item, so they give the order and the number as well
};

class MemoryQueues final : public Counted<orvel::IQueueFactory> {
 public:
  zel::ResultCode CreateAckConsumer(const zel::string& domain, const zel::string& queueName,
                                    orvel::IAckConsumer** out) override;
  zel::ResultCode CreateProducer(const zel::string& domain, const zel::string& queueName,
                                 std::uint32_t sizeLimitBytes, orvel::IQueueProducer** out) override;
  zel::ResultCode CreateQueueManager(const zel::string& domain, orvel::IQueueManager** out) override;

  struct Counts {
    std::size_t accepted = 0;  // items that were pushed, since the service was made
    std::size_t waiting = 0;   // items in all queues, those that a reader holds included
  };
  Counts Count() const;

 private:
  std::shared_ptr<QueueTable> table_ = std::make_shared<QueueTable>();
};

}  // namespace own_host
