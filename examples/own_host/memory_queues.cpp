#include "memory_queues.h"

#include <algorithm>
#include <span>

namespace own_host {
namespace {

using Table = std::shared_ptr<QueueTable>;

std::string Text(const zel::string& text) { return std::string(text.View()); }

class Producer final : public Counted<orvel::IQueueProducer> {
 public:
  Producer(Table table, QueueName name, std::uint64_t limit)
      : table_(std::move(table)), name_(std::move(name)), limit_(limit) {
    const std::scoped_lock lock(table_->mutex);
    table_->queues[name_];
  }

  zel::ResultCode Push(const zel::ByteRange* data) override {
    const std::scoped_lock lock(table_->mutex);
    Queue& queue = table_->queues[name_];
    const auto size = static_cast<std::uint64_t>(data->end - data->begin);
    // The sender would drop everything else for it, and then the item too.
    if (size > limit_) return zel::eInvalidArgument;
    std::uint64_t used = 0;
    for (const Item& item : queue) used += item.bytes.size();
    // This code in particular makes the sender drop the oldest items and try again.
    if (used + size > limit_) return zel::eOutOfSpace;
    queue.push_back({++table_->lastToken, {data->begin, data->end}});
    return zel::sOk;
  }

 private:
  const Table table_;
  const QueueName name_;
  const std::uint64_t limit_;
};

class Consumer final : public Counted<orvel::IAckConsumer> {
 public:
  Consumer(Table table, QueueName name) : table_(std::move(table)), name_(std::move(name)) {}
  // What a reader still holds at its end is free for the next one.
  ~Consumer() override {
    const std::scoped_lock lock(table_->mutex);
    for (Item& item : Items()) {
      if (item.holder == this) item.holder = nullptr;
    }
  }

  zel::ResultCode Read(zel::vector_t<std::uint8_t>* data, std::uint64_t* token) override {
    const std::scoped_lock lock(table_->mutex);
    for (Item& item : Items()) {
      // Forward only: the same reader never gets an item again, even if it was given back.
      if (item.token <= last_ || item.holder) continue;
      zel::vector_t<std::uint8_t> bytes;
      bytes.append(item.bytes.size());
      std::copy(item.bytes.begin(), item.bytes.end(), bytes.first);
      *data = std::move(bytes);
      *token = last_ = item.token;
      item.holder = this;
      return zel::sOk;
    }
    return zel::eNotFound;
  }

  // Ack and ReturnItem come on the HTTP client's threads, even during a Read.
  zel::ResultCode Ack(const std::uint64_t* token) override {
    const std::scoped_lock lock(table_->mutex);
    if (!Held(*token)) return zel::eNotFound;
    std::erase_if(table_->queues.at(name_), [&](const Item& item) { return item.token == *token; });
    return zel::sOk;
  }
  zel::ResultCode ReturnItem(const std::uint64_t* token) override {
    const std::scoped_lock lock(table_->mutex);
    Item* const item = Held(*token);
    if (!item) return zel::eNotFound;
    item->holder = nullptr;
    return zel::sOk;
  }

 private:
  // Empty if there is no such queue: only a producer creates one.
  std::span<Item> Items() const {
    const auto found = table_->queues.find(name_);
    return found == table_->queues.end() ? std::span<Item>() : std::span(found->second);
  }
  // Null if this reader doesn't hold the item, or no longer does.
  Item* Held(std::uint64_t token) const {
    for (Item& item : Items()) {
      if (item.token == token && item.holder == this) return &item;
    }
    return nullptr;
  }

  const Table table_;
  const QueueName name_;
  std::uint64_t last_ = 0;
};

class Manager final : public Counted<orvel::IQueueManager> {
 public:
  Manager(Table table, std::string domain) : table_(std::move(table)), domain_(std::move(domain)) {}

  zel::ResultCode RemoveQueue(const zel::string& queueName) override {
    const std::scoped_lock lock(table_->mutex);
    table_->queues.erase({domain_, Text(queueName)});
    return zel::sOk;
  }
  zel::ResultCode EnumerateQueues(zel::vector_t<zel::string>* names) override {
    const std::scoped_lock lock(table_->mutex);
    for (const auto& [name, items] : table_->queues) {
      if (name.first == domain_) names->push_back(zel::string(name.second));
    }
    return zel::sOk;
  }

 private:
  const Table table_;
  const std::string domain_;
};

}  // namespace

zel::ResultCode MemoryQueues::CreateAckConsumer(const zel::string& domain, const zel::string& queueName,
                                                orvel::IAckConsumer** out) {
  *out = Make<Consumer>(table_, QueueName(Text(domain), Text(queueName))).Detach();
  return zel::sOk;
}

zel::ResultCode MemoryQueues::CreateProducer(const zel::string& domain, const zel::string& queueName,
                                             std::uint32_t sizeLimitBytes, orvel::IQueueProducer** out) {
  *out = Make<Producer>(table_, QueueName(Text(domain), Text(queueName)), sizeLimitBytes).Detach();
  return zel::sOk;
}

zel::ResultCode MemoryQueues::CreateQueueManager(const zel::string& domain, orvel::IQueueManager** out) {
  *out = Make<Manager>(table_, Text(domain)).Detach();
  return zel::sOk;
}

MemoryQueues::Counts MemoryQueues::Count() const {
  const std::scoped_lock lock(table_->mutex);
  Counts counts{.accepted = table_->lastToken};
  for (const auto& [name, items] : table_->queues) counts.waiting += items.size();
  return counts;
}

}  // namespace own_host
