// The queue service, in memory: waiting items are lost with the process. A production service keeps them on
// disk.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "counted.h"
#include "veld_report/contract/queue.h"

namespace own_host {

struct Item {
  std::uint64_t token = 0;
  std::vector<std::uint8_t> bytes;
  const void* holder = nullptr;  // the reader that holds it
};
using Queue = std::vector<Item>;
using QueueName = std::pair<std::string, std::string>;  // domain and name

// All queues. Shared with readers and writers, so that it lives as long as they do.
struct QueueTable {
  std::mutex mutex;  // guards the members below
  std::map<QueueName, Queue> queues;
  std::uint64_t lastToken = 0;  // tokens ascend by one, so they also give the order and the count
};

class MemoryQueues final : public Counted<orvel::IQueueFactory> {
 public:
  zel::ResultCode CreateAckConsumer(const zel::string& domain, const zel::string& queueName,
                                    orvel::IAckConsumer** out) override;
  zel::ResultCode CreateProducer(const zel::string& domain, const zel::string& queueName,
                                 std::uint32_t sizeLimitBytes, orvel::IQueueProducer** out) override;
  zel::ResultCode CreateQueueManager(const zel::string& domain, orvel::IQueueManager** out) override;

  struct Counts {
    std::size_t accepted = 0;  // items pushed since the service was created
    std::size_t waiting = 0;   // items in all queues, including those that a reader holds
  };
  Counts Count() const;

 private:
  std::shared_ptr<QueueTable> table_ = std::make_shared<QueueTable>();
};

}  // namespace own_host
