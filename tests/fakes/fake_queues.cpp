#include "tests/fakes/fake_queues.h"

#include <algorithm>

namespace veld_report::fakes {
namespace {

constexpr char senderDomain[] = "veld_rep";

std::string Text(const zel::string& text) { return std::string(text.View()); }
// Queues of senders are named by 32 characters; two tell them apart in a log.
std::string Short(const std::string& queueName) { return queueName.substr(0, 2); }

struct Place {
  FakeQueueFactory& factory;
  QueueStore::Key key;
  std::string shortName = Short(key.second);
};

class Producer final : public FakeObject<orvel::IQueueProducer> {
 public:
  Producer(FakeWorld& world, Place place, std::uint32_t sizeLimitBytes)
      : FakeObject(world, "Producer"), place_(std::move(place)), sizeLimitBytes_(sizeLimitBytes) {}

  zel::ResultCode Push(const zel::ByteRange* data) override {
    Use();
    std::string bytes(data->begin, data->end);
    const std::string shown = bytes.size() > 40 ? "[" + std::to_string(bytes.size()) + "]" : bytes;
    if (const auto code = world().Enter("Push", place_.shortName + " " + shown)) return code;
    QueueStore& store = place_.factory.store;
    std::lock_guard guard(store.lock);
    QueueStore::Queue& queue = store.queues[place_.key];
    std::uint64_t total = bytes.size();
    for (const QueueStore::Item& item : queue) total += item.bytes.size();
    if (total > sizeLimitBytes_) return zel::eOutOfSpace;
    queue.push_back({++store.lastToken, std::move(bytes), nullptr});
    return zel::sOk;
  }

 private:
  const Place place_;
  const std::uint32_t sizeLimitBytes_;
};

class Consumer final : public FakeObject<orvel::IAckConsumer> {
 public:
  Consumer(FakeWorld& world, Place place) : FakeObject(world, "AckConsumer"), place_(std::move(place)) {}

  zel::ResultCode Read(zel::vector_t<std::uint8_t>* data, std::uint64_t* token) override {
    Use();
    const bool policing = place_.factory.policing;
    if (data->allocator.Service() && policing) Fault("AckConsumer: Read into a vector with an allocator");
    if (ended_ && policing) Fault("AckConsumer: Read after the end");
    if (const auto code = world().script.Enter("Read")) {
      ended_ = true;
      return code;
    }
    QueueStore& store = place_.factory.store;
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
    QueueStore& store = place_.factory.store;
    std::lock_guard guard(store.lock);
    const auto queue = store.queues.find(place_.key);
    // The queue may have been removed meanwhile, and its items with it.
    if (queue == store.queues.end()) return zel::eNotFound;
    const auto item = std::find_if(queue->second.begin(), queue->second.end(),
                                   [&](const QueueStore::Item& one) { return one.token == token; });
    if (item == queue->second.end() || item->holder != this) {
      if (place_.factory.policing) Fault("AckConsumer: token " + std::to_string(token) + " isn't held");
      return zel::eNotFound;
    }
    if (remove) {
      queue->second.erase(item);
    } else {
      item->holder = nullptr;
    }
    return zel::sOk;
  }
  void OnEnd() override {
    QueueStore& store = place_.factory.store;
    std::lock_guard guard(store.lock);
    const auto queue = store.queues.find(place_.key);
    if (queue == store.queues.end()) return;
    for (QueueStore::Item& item : queue->second) {
      if (item.holder == this) item.holder = nullptr;
    }
  }

  const Place place_;
  std::uint64_t position_ = 0;
  bool ended_ = false;
};

class Manager final : public FakeObject<orvel::IQueueManager> {
 public:
  Manager(FakeWorld& world, FakeQueueFactory& factory, std::string domain)
      : FakeObject(world, "QueueManager"), factory_(factory), domain_(std::move(domain)) {}

  zel::ResultCode RemoveQueue(const zel::string& queueName) override {
    Use();
    if (const auto code = world().Enter("RemoveQueue", Short(Text(queueName)))) return code;
    std::lock_guard guard(factory_.store.lock);
    const auto removed = factory_.store.queues.erase({domain_, Text(queueName)});
    return removed ? zel::sOk : zel::eNotFound;
  }
  zel::ResultCode EnumerateQueues(zel::vector_t<zel::string>* names) override {
    Use();
    if (!names->empty()) Fault("QueueManager: EnumerateQueues into a filled vector");
    if (names->allocator.Service()) Fault("QueueManager: EnumerateQueues into a vector with an allocator");
    std::lock_guard guard(factory_.store.lock);
    for (const auto& [key, queue] : factory_.store.queues) {
      if (key.first == domain_) names->push_back(zel::string(std::string_view(key.second)));
    }
    for (const std::string& name : factory_.extraNames) {
      names->push_back(zel::string(std::string_view(name)));
    }
    // Scripted failures leave the names behind: whether a caller looks at them shows.
    return world().Enter("EnumerateQueues");
  }

 private:
  FakeQueueFactory& factory_;
  const std::string domain_;
};

}  // namespace

void FakeQueueFactory::CheckDomain(const zel::string& domain) const {
  Use();
  if (policing && Text(domain) != senderDomain) Fault("QueueFactory: domain " + Text(domain));
}

zel::ResultCode FakeQueueFactory::CreateAckConsumer(const zel::string& domain, const zel::string& queueName,
                                                    orvel::IAckConsumer** out) {
  CheckDomain(domain);
  const QueueStore::Key key(Text(domain), Text(queueName));
  if (const auto code = world().Enter("CreateAckConsumer", Short(key.second))) return code;
  *out = MakeFake<Consumer>(world(), Place{*this, key}).Detach();
  return zel::sOk;
}

zel::ResultCode FakeQueueFactory::CreateProducer(const zel::string& domain, const zel::string& queueName,
                                                 std::uint32_t sizeLimitBytes, orvel::IQueueProducer** out) {
  CheckDomain(domain);
  const QueueStore::Key key(Text(domain), Text(queueName));
  const std::string detail = Short(key.second) + " " + std::to_string(sizeLimitBytes);
  if (const auto code = world().Enter("CreateProducer", detail)) return code;
  std::lock_guard guard(store.lock);
  store.queues[key];
  *out = MakeFake<Producer>(world(), Place{*this, key}, sizeLimitBytes).Detach();
  return zel::sOk;
}

zel::ResultCode FakeQueueFactory::CreateQueueManager(const zel::string& domain, orvel::IQueueManager** out) {
  CheckDomain(domain);
  if (const auto code = world().Enter("CreateQueueManager")) return code;
  *out = MakeFake<Manager>(world(), *this, Text(domain)).Detach();
  return zel::sOk;
}

void FakeQueueFactory::Put(const std::string& queueName, std::string_view bytes) {
  std::lock_guard guard(store.lock);
  store.queues[{senderDomain, queueName}].push_back({++store.lastToken, std::string(bytes), nullptr});
}

std::vector<std::string> FakeQueueFactory::Items(const std::string& queueName) {
  std::lock_guard guard(store.lock);
  std::vector<std::string> items;
  for (const QueueStore::Item& item : store.queues[{senderDomain, queueName}]) items.push_back(item.bytes);
  return items;
}

void FakeQueueFactory::Clear() {
  std::lock_guard guard(store.lock);
  store.queues.clear();
  extraNames.clear();
  store.lastToken = 0;
}

}  // namespace veld_report::fakes
