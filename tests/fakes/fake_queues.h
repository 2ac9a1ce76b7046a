// The queue service in memory. Queues keep their items across senders, as long as the factory lives.
//
// An item that a reader holds isn't handed to another reader until its token is given back or the reader is
// gone. Tokens count up over all queues of the factory and are never used again.
#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "contract/queue.h"
#include "tests/fakes/fake_object.h"

namespace veld_report::fakes {

// The items of all queues.
struct QueueStore {
  struct Item {
    std::uint64_t token;
    std::string bytes;
    const void* holder;  // the reader that has it, or null
  };
  using Queue = std::deque<Item>;
  using Key = std::pair<std::string, std::string>;  // domain, name

  std::mutex lock;
  std::map<Key, Queue> queues;
  std::uint64_t lastToken = 0;
};

class FakeQueueFactory final : public FakeObject<orvel::IQueueFactory> {
 public:
  explicit FakeQueueFactory(FakeWorld& world) : FakeObject(world, "QueueFactory") {}

  zel::ResultCode CreateAckConsumer(const zel::string& domain, const zel::string& queueName,
                                    orvel::IAckConsumer** out) override;
  zel::ResultCode CreateProducer(const zel::string& domain, const zel::string& queueName,
                                 std::uint32_t sizeLimitBytes, orvel::IQueueProducer** out) override;
  zel::ResultCode CreateQueueManager(const zel::string& domain, orvel::IQueueManager** out) override;

  // The test's own view of the domain "veld_rep".
  void Put(const std::string& queueName, std::string_view bytes);
  std::vector<std::string> Items(const std::string& queueName);
  // No queue and no extra name is left, and the next token is 1 again.
  void Clear();
  // Names that EnumerateQueues gives besides the real ones, behind them.
  std::vector<std::string> extraNames;

  // Off where the caller is a contract suite, which reads past the end and uses other domains on purpose.
  std::atomic<bool> policing{true};
  QueueStore store;

 private:
  void CheckDomain(const zel::string& domain) const;
};

}  // namespace veld_report::fakes
