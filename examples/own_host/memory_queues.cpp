#include "memory_queues.h"

#include <algorithm>
#include <set>
#include <utility>

namespace own_host {
namespace {

using Table = std::shared_ptr<QueueTable>;

std::string NameOf(const zel::string& name) { return std::string(name.View()); }

class Producer final : public Counted<orvel::IQueueProducer> {
 public:
  Producer(Table table, std::string name, std::uint64_t limit)
      : table_(std::move(table)), name_(std::move(name)), limit_(limit) {
    const std::scoped_lock hold(table_->lock);
    table_->queues[name_];
  }

  zel::ResultCode Push(const zel::ByteRange* data) override {
    const std::scoped_lock hold(table_->lock);
    std::deque<Item>& queue = table_->queues[name_];
    std::uint64_t used = 0;
    for (const Item& item : queue) used += item.bytes.size();
    const auto size = static_cast<std::uint64_t>(data->end - data->begin);
    // Exactly this code makes the sender drop the oldest items and try again.
    if (used + size > limit_) return zel::eOutOfSpace;
    queue.push_back({++table_->lastToken, {data->begin, data->end}});
    return zel::sOk;
  }

 private:
  const Table table_;
  const std::string name_;
  const std::uint64_t limit_;
};

class Consumer final : public Counted<orvel::IAckConsumer> {
 public:
  Consumer(Table table, std::string name) : table_(std::move(table)), name_(std::move(name)) {}
  // What a reader still holds when it goes is free for the next one.
  ~Consumer() override {
    const std::scoped_lock hold(table_->lock);
    for (Item& item : table_->queues[name_]) {
      if (held_.contains(item.token)) item.claimed = false;
    }
  }

  zel::ResultCode Read(zel::vector_t<std::uint8_t>* data, std::uint64_t* token) override {
    const std::scoped_lock hold(table_->lock);
    for (Item& item : table_->queues[name_]) {
      // Forward only: an item that was handed out once isn't handed out again, even if it was given back.
      if (item.token <= last_ || item.claimed) continue;
      zel::vector_t<std::uint8_t> bytes;
      bytes.append(item.bytes.size());
      std::copy(item.bytes.begin(), item.bytes.end(), bytes.first);
      *data = std::move(bytes);
      *token = last_ = item.token;
      item.claimed = true;
      held_.insert(item.token);
      return zel::sOk;
    }
    return zel::eNotFound;
  }

  // Ack and ReturnItem come from the HTTP client's thread, also while another one is in Read.
  zel::ResultCode Ack(const std::uint64_t* token) override {
    const std::scoped_lock hold(table_->lock);
    std::erase_if(table_->queues[name_], [&](const Item& item) { return item.token == *token; });
    held_.erase(*token);
    return zel::sOk;
  }
  zel::ResultCode ReturnItem(const std::uint64_t* token) override {
    const std::scoped_lock hold(table_->lock);
    for (Item& item : table_->queues[name_]) {
      if (item.token == *token) item.claimed = false;
    }
    held_.erase(*token);
    return zel::sOk;
  }

 private:
  const Table table_;
  const std::string name_;
  std::uint64_t last_ = 0;
  std::set<std::uint64_t> held_;
};

class Manager final : public Counted<orvel::IQueueManager> {
 public:
  explicit Manager(Table table) : table_(std::move(table)) {}

  zel::ResultCode RemoveQueue(const zel::string& queueName) override {
    const std::scoped_lock hold(table_->lock);
    table_->queues.erase(NameOf(queueName));
    return zel::sOk;
  }
  zel::ResultCode EnumerateQueues(zel::vector_t<zel::string>* names) override {
    const std::scoped_lock hold(table_->lock);
    for (const auto& [name, items] : table_->queues) names->push_back(zel::string(name));
    return zel::sOk;
  }

 private:
  const Table table_;
};

}  // namespace

zel::ResultCode MemoryQueues::CreateAckConsumer(const zel::string&, const zel::string& queueName,
                                                orvel::IAckConsumer** out) {
  *out = Make<Consumer>(table_, NameOf(queueName)).Detach();
  return zel::sOk;
}

zel::ResultCode MemoryQueues::CreateProducer(const zel::string&, const zel::string& queueName,
                                             std::uint32_t sizeLimitBytes, orvel::IQueueProducer** out) {
  *out = Make<Producer>(table_, NameOf(queueName), sizeLimitBytes).Detach();
  return zel::sOk;
}

zel::ResultCode MemoryQueues::CreateQueueManager(const zel::string&, orvel::IQueueManager** out) {
  *out = Make<Manager>(table_).Detach();
  return zel::sOk;
}

MemoryQueues::Counts MemoryQueues::Count() const {
  const std::scoped_lock hold(table_->lock);
  Counts counts{.accepted = table_->lastToken};
  for (const auto& [name, items] : table_->queues) counts.waiting += items.size();
  return counts;
}

}  // namespace own_host
