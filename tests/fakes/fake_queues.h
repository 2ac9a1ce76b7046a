// The queue service in memory. Queues keep their items across senders, as long as the factory lives.
//
// An item that a reader holds isn't handed to another reader until its token is given back or the reader is
// gone. Tokens count up over all queues of the factory and are never used again.
#pragma once

#include <algorithm>
#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <set>
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
  std::set<std::uint64_t> removed;  // tokens of items that went with their queue
  // Names that EnumerateQueues gives besides the real ones, behind them.
  std::vector<std::string> extraNames;
  // Off where the caller is a contract suite, which reads past the end and uses other domains on purpose.
  std::atomic<bool> policing{true};
};

inline constexpr char senderDomain[] = "veld_rep";

inline std::string Text(const zel::string& text) { return std::string(text.View()); }
// Queues of senders are named by 32 characters; two tell them apart in a log.
inline std::string Short(const std::string& queueName) { return queueName.substr(0, 2); }

struct QueuePlace {
  QueueStore& store;
  QueueStore::Key key;
  std::string shortName = Short(key.second);
};

class FakeProducer final : public FakeObject<orvel::IQueueProducer> {
 public:
  FakeProducer(FakeWorld& world, QueuePlace place, std::uint32_t sizeLimitBytes)
      : FakeObject(world, "Producer"), place_(std::move(place)), sizeLimitBytes_(sizeLimitBytes) {}

  zel::ResultCode Push(const zel::ByteRange* data) override {
    Use();
    std::string bytes(data->begin, data->end);
    const std::string shown = bytes.size() > 40 ? "[" + std::to_string(bytes.size()) + "]" : bytes;
    if (const auto code = world().Enter("Push", place_.shortName + " " + shown)) return code;
    QueueStore& store = place_.store;
    std::lock_guard guard(store.lock);
    QueueStore::Queue& queue = store.queues[place_.key];
    std::uint64_t total = bytes.size();
    for (const QueueStore::Item& item : queue) total += item.bytes.size();
    if (total > sizeLimitBytes_) return zel::eOutOfSpace;
    queue.push_back({++store.lastToken, std::move(bytes), nullptr});
    return world().Done();
  }

 private:
  const QueuePlace place_;
  const std::uint32_t sizeLimitBytes_;
};

class FakeConsumer final : public FakeObject<orvel::IAckConsumer> {
 public:
  FakeConsumer(FakeWorld& world, QueuePlace place)
      : FakeObject(world, "AckConsumer"), place_(std::move(place)) {}

  zel::ResultCode Read(zel::vector_t<std::uint8_t>* data, std::uint64_t* token) override {
    Use();
    const bool policing = place_.store.policing;
    if (data->allocator.Service() && policing) Fault("AckConsumer: Read into a vector with an allocator");
    if (ended_ && policing) Fault("AckConsumer: Read after the end");
    if (const auto code = world().script.Enter("Read")) {
      ended_ = true;
      return code;
    }
    QueueStore& store = place_.store;
    std::lock_guard guard(store.lock);
    const auto queue = store.queues.find(place_.key);
    if (queue != store.queues.end()) {
      for (QueueStore::Item& item : queue->second) {
        if (item.token <= position_ || item.holder) continue;
        data->assign(reinterpret_cast<const std::uint8_t*>(item.bytes.data()), item.bytes.size());
        *token = position_ = item.token;
        item.holder = this;
        world().log.Add("Read " + place_.shortName + " " + std::to_string(item.token));
        return zel::sOk;
      }
    }
    world().log.Add("Read " + place_.shortName + " none");
    ended_ = true;
    return zel::eNotFound;
  }

  zel::ResultCode Ack(const std::uint64_t* token) override {
    Use();
    if (const auto code = world().Enter("Ack", std::to_string(*token))) return code;
    return Settle(*token, true);
  }
  zel::ResultCode ReturnItem(const std::uint64_t* token) override {
    Use();
    if (const auto code = world().Enter("ReturnItem", std::to_string(*token))) return code;
    return Settle(*token, false);
  }

 private:
  zel::ResultCode Settle(std::uint64_t token, bool remove) {
    QueueStore& store = place_.store;
    std::lock_guard guard(store.lock);
    const auto queue = store.queues.find(place_.key);
    // The queue may have been removed meanwhile, and its items with it; there may be a new one of its name.
    if (queue == store.queues.end()) return zel::eNotFound;
    const auto item = std::find_if(queue->second.begin(), queue->second.end(),
                                   [&](const QueueStore::Item& one) { return one.token == token; });
    if (item == queue->second.end() || item->holder != this) {
      if (place_.store.policing && !store.removed.contains(token))
        Fault("AckConsumer: token " + std::to_string(token) + " isn't held");
      return zel::eNotFound;
    }
    if (remove) {
      queue->second.erase(item);
    } else {
      item->holder = nullptr;
    }
    return world().Done();
  }
  void OnEnd() override {
    QueueStore& store = place_.store;
    std::lock_guard guard(store.lock);
    const auto queue = store.queues.find(place_.key);
    if (queue == store.queues.end()) return;
    for (QueueStore::Item& item : queue->second) {
      if (item.holder == this) item.holder = nullptr;
    }
  }

  const QueuePlace place_;
  std::uint64_t position_ = 0;
  bool ended_ = false;
};

class FakeManager final : public FakeObject<orvel::IQueueManager> {
 public:
  FakeManager(FakeWorld& world, QueueStore& store, std::string domain)
      : FakeObject(world, "QueueManager"), store_(store), domain_(std::move(domain)) {}

  zel::ResultCode RemoveQueue(const zel::string& queueName) override {
    Use();
    if (const auto code = world().Enter("RemoveQueue", Short(Text(queueName)))) return code;
    std::lock_guard guard(store_.lock);
    const auto queue = store_.queues.extract({domain_, Text(queueName)});
    if (queue) {
      for (const QueueStore::Item& item : queue.mapped()) store_.removed.insert(item.token);
    }
    return queue ? world().Done() : zel::eNotFound;
  }
  zel::ResultCode EnumerateQueues(zel::vector_t<zel::string>* names) override {
    Use();
    if (!names->empty()) Fault("QueueManager: EnumerateQueues into a filled vector");
    if (names->allocator.Service()) Fault("QueueManager: EnumerateQueues into a vector with an allocator");
    std::lock_guard guard(store_.lock);
    for (const auto& [key, queue] : store_.queues) {
      if (key.first == domain_) names->push_back(zel::string(std::string_view(key.second)));
    }
    for (const std::string& name : store_.extraNames) {
      names->push_back(zel::string(std::string_view(name)));
    }
    // Scripted failures leave the names behind: whether a caller looks at them shows.
    return world().Answer("EnumerateQueues");
  }

 private:
  QueueStore& store_;
  const std::string domain_;
};

class FakeQueueFactory final : public FakeObject<orvel::IQueueFactory> {
 public:
  explicit FakeQueueFactory(FakeWorld& world) : FakeObject(world, "QueueFactory") {}

  zel::ResultCode CreateAckConsumer(const zel::string& domain, const zel::string& queueName,
                                    orvel::IAckConsumer** out) override {
    CheckDomain(domain);
    const QueueStore::Key key(Text(domain), Text(queueName));
    if (const auto code = world().Enter("CreateAckConsumer", Short(key.second))) return code;
    *out = MakeFake<FakeConsumer>(world(), QueuePlace{store, key}).Detach();
    return world().Done();
  }
  zel::ResultCode CreateProducer(const zel::string& domain, const zel::string& queueName,
                                 std::uint32_t sizeLimitBytes, orvel::IQueueProducer** out) override {
    CheckDomain(domain);
    const QueueStore::Key key(Text(domain), Text(queueName));
    const std::string detail = Short(key.second) + " " + std::to_string(sizeLimitBytes);
    if (const auto code = world().Enter("CreateProducer", detail)) return code;
    std::lock_guard guard(store.lock);
    store.queues[key];
    *out = MakeFake<FakeProducer>(world(), QueuePlace{store, key}, sizeLimitBytes).Detach();
    return world().Done();
  }
  zel::ResultCode CreateQueueManager(const zel::string& domain, orvel::IQueueManager** out) override {
    CheckDomain(domain);
    if (const auto code = world().Enter("CreateQueueManager")) return code;
    *out = MakeFake<FakeManager>(world(), store, Text(domain)).Detach();
    return world().Done();
  }

  // The test's own view of the domain "veld_rep".
  void Put(const std::string& queueName, std::string_view bytes) {
    std::lock_guard guard(store.lock);
    store.queues[{senderDomain, queueName}].push_back({++store.lastToken, std::string(bytes), nullptr});
  }
  std::vector<std::string> Items(const std::string& queueName) {
    std::lock_guard guard(store.lock);
    std::vector<std::string> items;
    for (const QueueStore::Item& item : store.queues[{senderDomain, queueName}]) items.push_back(item.bytes);
    return items;
  }
  // No queue and no extra name is left, and the next token is 1 again.
  void Clear() {
    std::lock_guard guard(store.lock);
    store.queues.clear();
    store.extraNames.clear();
    store.lastToken = 0;
    store.removed.clear();
  }
  QueueStore store;

 private:
  void CheckDomain(const zel::string& domain) const {
    Use();
    if (store.policing && Text(domain) != senderDomain) Fault("QueueFactory: domain " + Text(domain));
  }
};

}  // namespace veld_report::fakes
