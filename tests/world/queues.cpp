#include "tests/world/queues.h"

#include <algorithm>

#include "tests/world/client.h"

namespace veld_report::world {
namespace {

StoredQueue& QueueOf(Host& host, int name) { return host.queues[static_cast<std::size_t>(name)]; }

}  // namespace

zel::ResultCode Producer::Push(const zel::ByteRange* data) {
  Use();
  const std::string_view bytes(reinterpret_cast<const char*>(data->begin),
                               static_cast<std::size_t>(data->end - data->begin));
  Call call(host, Op::push, 0, id_, Print(bytes), bytes.size());
  if (call.Refused() && call.Planned() != zel::eOutOfSpace) return call.Done(call.Planned());
  StoredQueue& queue = QueueOf(host, name_);
  queue.refused = call.Refused() || queue.bytes + bytes.size() > limit_;
  if (queue.refused) return call.Done(zel::eOutOfSpace);
  host.Put(queue, std::string(bytes));
  call.Own().d = host.lastToken;
  return call.Done(call.Planned());
}

zel::ResultCode Reader::Read(zel::vector_t<std::uint8_t>* data, std::uint64_t* token) {
  Use();
  Call call(host, Op::read, 0, id);
  if (ended_ || data->allocator.Service())
    host.Fail(invariant::calls, "Read after the end, or not into the heap");
  StoredItem* item = call.Planned() == 0 ? Host::Next(QueueOf(host, name), position_) : nullptr;
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

zel::ResultCode Reader::Ack(const std::uint64_t* token) {
  Use();
  settleFailed_ = settleFailed_ || host.WillFail(Op::ack);
  Call call(host, Op::ack, 0, id, *token);
  if (call.Planned() != 0) return call.Done(call.Planned());
  StoredQueue& queue = QueueOf(host, name);
  const auto item = Host::Find(queue, *token);
  if (item == queue.items.end() || item->holder != this) return call.Done(zel::eNotFound);
  JudgeAck(queue, *token);
  queue.bytes -= item->bytes.size();
  queue.items.erase(item);
  return call.Done(zel::sOk);
}

zel::ResultCode Reader::ReturnItem(const std::uint64_t* token) {
  Use();
  settleFailed_ = settleFailed_ || host.WillFail(Op::returnItem);
  Call call(host, Op::returnItem, 0, id, *token);
  if (call.Planned() != 0) return call.Done(call.Planned());
  StoredQueue& queue = QueueOf(host, name);
  const auto item = Host::Find(queue, *token);
  if (item == queue.items.end() || item->holder != this) return call.Done(zel::eNotFound);
  item->holder = nullptr;
  return call.Done(zel::sOk);
}

void Reader::OnEnd() {
  host.Append({.op = Op::readerEnd, .a = id});
  for (StoredItem& item : QueueOf(host, name).items) {
    if (item.holder != this) continue;
    item.holder = nullptr;
    if (!settleFailed_) ++host.unsettled;
  }
  if (host.walking == this) host.walking = nullptr;
}

zel::ResultCode Manager::RemoveQueue(const zel::string& queueName) {
  Use();
  const int name = NameIndex(queueName.View());
  Call call(host, Op::removeQueue, 0, static_cast<std::uint64_t>(name));
  if (call.Planned() != 0) return call.Done(call.Planned());
  StoredQueue& queue = QueueOf(host, name);
  host.removed += queue.items.size();
  queue = StoredQueue();
  return call.Done(zel::sOk);
}

zel::ResultCode Manager::EnumerateQueues(zel::vector_t<zel::string>* names) {
  Use();
  Call call(host, Op::enumerateQueues, 0, host.enumerated.size());
  if (!names->empty() || names->allocator.Service())
    host.Fail(invariant::calls, "EnumerateQueues into a filled list");
  const auto give = [&](int name) {
    names->push_back(zel::string(std::string_view(QueueName(name))));
    host.enumerated.push_back(name);
  };
  // A failing one gives its names all the same, and one with something to say gives the first one twice.
  for (int name = nameCount; name-- > 0;) {
    if (!QueueOf(host, name).exists) continue;
    if (call.Planned() > 0 && names->empty()) give(name);
    give(name);
  }
  call.Own().b = names->size();
  return call.Done(call.Planned());
}

int QueueFactory::Place(const zel::string& domain, const zel::string& queueName) const {
  Use();
  const int name = NameIndex(queueName.View());
  if (domain.View() != "veld_rep" || name < 0) host.Fail(invariant::calls, "an unknown queue or domain");
  return std::max(name, 0);
}

zel::ResultCode QueueFactory::CreateAckConsumer(const zel::string& domain, const zel::string& queueName,
                                                orvel::IAckConsumer** out) {
  const Outside outside;
  const int name = Place(domain, queueName);
  Call call(host, Op::createAckConsumer, 0, static_cast<std::uint64_t>(name));
  if (call.Refused()) return call.Done(call.Planned());
  *out = host.walking = host.Make<Reader>(name);
  call.Own().c = host.walking->id;
  return call.Done(call.Planned());
}

zel::ResultCode QueueFactory::CreateProducer(const zel::string& domain, const zel::string& queueName,
                                             std::uint32_t sizeLimitBytes, orvel::IQueueProducer** out) {
  const Outside outside;
  const int name = Place(domain, queueName);
  Call call(host, Op::createProducer, 1, static_cast<std::uint64_t>(name), sizeLimitBytes);
  if (call.Refused()) return call.Done(call.Planned());
  QueueOf(host, name).exists = true;
  auto* producer = host.Make<Producer>(name, sizeLimitBytes);
  *out = producer;
  call.Own().c = producer->Id();
  return call.Done(call.Planned());
}

zel::ResultCode QueueFactory::CreateQueueManager(const zel::string& domain, orvel::IQueueManager** out) {
  Use();
  Call call(host, Op::createQueueManager, 0);
  if (domain.View() != "veld_rep") host.Fail(invariant::calls, "an unknown domain");
  if (call.Refused()) return call.Done(call.Planned());
  manager_.AddRef();
  *out = &manager_;
  return call.Done(call.Planned());
}

}  // namespace veld_report::world
