#include "tests/world/queues.h"

#include <algorithm>

#include "tests/world/client.h"
#include "tests/world/services.h"

namespace veld_report::world {

zel::ResultCode Reader::Read(zel::vector_t<std::uint8_t>* data, std::uint64_t* token) {
  auto call = Begin(Op::read, 0, id);
  if (ended_ || data->allocator.Service())
    host.Fail(invariant::calls, "Read after the end, or not into the heap");
  StoredItem* item = call.Planned() == 0 ? Host::Next(host.QueueOf(name), position_) : nullptr;
  if (!item) {
    ended_ = true;
    return call.Done(call.Planned() ? call.Planned() : zel::eNotFound);
  }
  data->assign(reinterpret_cast<const std::uint8_t*>(item->bytes.data()), item->bytes.size());
  *token = position_ = item->token;
  item->holder = this;
  unsent.push_back(item->token);
  call.Own().b = item->token;
  return call.Done(zel::sOk);
}

void Reader::JudgeAck(StoredQueue& queue, std::uint64_t token) {
  const Request* carrier = host.completing;
  if (carrier && carrier->reader == this &&
      std::count(carrier->tokens.begin(), carrier->tokens.end(), token) > 0) {
    if (carrier->status != 200 || carrier->failure != 0) {
      host.Fail(invariant::acknowledged, "item " + std::to_string(token) + " after an answer " +
                                             std::to_string(carrier->status) + " or a failure");
    }
    ++host.delivered;
    return;
  }
  const bool older = std::any_of(queue.items.begin(), queue.items.end(),
                                 [&](const StoredItem& item) { return item.token < token && !item.holder; });
  if (!queue.refused || older) {
    host.Fail(invariant::acknowledged,
              "item " + std::to_string(token) +
                  (older ? " is dropped while there is an older one" : " that no answer 200 carried"));
  }
  queue.refused = false;
  ++host.evicted;
}

zel::ResultCode Reader::Settle(Op op, std::uint64_t token) {
  settleFailed_ = settleFailed_ || host.WillFail(op);
  auto call = Begin(op, 0, id, token);
  if (call.Planned() != 0) return call.Done();
  StoredQueue& queue = host.QueueOf(name);
  const auto item = Host::Find(queue, token);
  if (item == queue.items.end() || item->holder != this) return call.Done(zel::eNotFound);
  item->holder = nullptr;
  if (op == Op::returnItem) return call.Done();
  JudgeAck(queue, token);
  queue.bytes -= item->bytes.size();
  queue.items.erase(item);
  return call.Done();
}

void Reader::OnEnd() {
  host.Append({.op = Op::readerEnd, .a = id});
  for (StoredItem& item : host.QueueOf(name).items) {
    if (item.holder != this) continue;
    item.holder = nullptr;
    if (!settleFailed_) ++host.unsettled;
  }
  if (host.walking == this) host.walking = nullptr;
}

namespace {

class Producer final : public Fake<orvel::IQueueProducer> {
 public:
  Producer(Host& owner, int name, std::uint32_t limit)
      : Fake(owner), id(++owner.producers), queue_(owner.QueueOf(name)), limit_(limit) {}
  zel::ResultCode Push(const zel::ByteRange* data) override {
    const std::string_view bytes = TextOf(*data);
    auto call = Begin(Op::push, 0, id, Print(bytes), bytes.size());
    if (call.Refused() && call.Planned() != zel::eOutOfSpace) return call.Done();
    queue_.refused = call.Refused() || queue_.bytes + bytes.size() > limit_;
    if (queue_.refused) return call.Done(zel::eOutOfSpace);
    host.Put(queue_, std::string(bytes));
    call.Own().d = host.lastToken;
    return call.Done();
  }

  const std::uint32_t id;

 private:
  StoredQueue& queue_;
  const std::uint32_t limit_;
};

class Manager final : public Fake<orvel::IQueueManager> {
 public:
  using Fake::Fake;
  zel::ResultCode RemoveQueue(const zel::string& queueName) override {
    const int name = NameIndex(queueName.View());
    auto call = Begin(Op::removeQueue, 0, static_cast<std::uint64_t>(name));
    if (call.Planned() != 0) return call.Done();
    StoredQueue& queue = host.QueueOf(name);
    host.removed += queue.items.size();
    queue = StoredQueue();
    return call.Done();
  }
  zel::ResultCode EnumerateQueues(zel::vector_t<zel::string>* names) override {
    auto call = Begin(Op::enumerateQueues, 0, host.enumerated.size());
    if (!names->empty() || names->allocator.Service())
      host.Fail(invariant::calls, "EnumerateQueues into a filled list");
    const auto give = [&](int name) {
      names->push_back(zel::string(std::string_view(QueueName(name))));
      host.enumerated.push_back(name);
    };
    // A failing one gives its names all the same, and one with something to say gives the first one twice.
    for (int name = nameCount; name-- > 0;) {
      if (!host.QueueOf(name).exists) continue;
      if (call.Planned() > 0 && names->empty()) give(name);
      give(name);
    }
    call.Own().b = names->size();
    return call.Done();
  }
};

class QueueFactory final : public Fake<orvel::IQueueFactory> {
 public:
  using Fake::Fake;
  zel::ResultCode CreateAckConsumer(const zel::string& domain, const zel::string& queueName,
                                    orvel::IAckConsumer** out) override {
    const int name = Place(domain, queueName);
    auto call = Begin(Op::createAckConsumer, 0, static_cast<std::uint64_t>(name));
    if (call.Refused()) return call.Done();
    *out = host.walking = host.Make<Reader>(name);
    call.Own().c = host.walking->id;
    return call.Done();
  }
  zel::ResultCode CreateProducer(const zel::string& domain, const zel::string& queueName,
                                 std::uint32_t sizeLimitBytes, orvel::IQueueProducer** out) override {
    const int name = Place(domain, queueName);
    auto call = Begin(Op::createProducer, 1, static_cast<std::uint64_t>(name), sizeLimitBytes);
    if (call.Refused()) return call.Done();
    host.QueueOf(name).exists = true;
    auto* producer = host.Make<Producer>(name, sizeLimitBytes);
    *out = producer;
    call.Own().c = producer->id;
    return call.Done();
  }
  zel::ResultCode CreateQueueManager(const zel::string& domain, orvel::IQueueManager** out) override {
    auto call = Begin(Op::createQueueManager, 0);
    if (domain.View() != "veld_rep") host.Fail(invariant::calls, "an unknown domain");
    if (!call.Refused()) *out = host.Make<Manager>();
    return call.Done();
  }

 private:
  int Place(const zel::string& domain, const zel::string& queueName) const {
    const int name = NameIndex(queueName.View());
    if (domain.View() != "veld_rep" || name < 0) host.Fail(invariant::calls, "an unknown queue or domain");
    return std::max(name, 0);
  }
};

}  // namespace

zel::IObject* MakeQueueFactory(Host& host) { return host.Make<QueueFactory>(); }

}  // namespace veld_report::world
