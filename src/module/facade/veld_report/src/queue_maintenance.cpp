// The sender's side of the host's persistent queues: its producers, the changes that new settings make, and
// the push that makes room.
#include <algorithm>

#include "facade/veld_report/src/throw_sites.h"
#include "facade/veld_report/src/veld_report_sender.h"
#include "trace/trace_stream.h"

namespace orvel::veld_report {
namespace {

// The names that no row has, ascending. Both inputs are sorted.
zel::vector_t<zel::string> NamesWithoutRow(const zel::vector_t<zel::string>& names,
                                           const zel::vector_t<ConsumerEndpoint>& rows) {
  zel::vector_t<zel::string> missing;
  const ConsumerEndpoint* row = rows.first;
  const zel::string* name = names.first;
  while (name != names.last) {
    if (row == rows.last || *name < row->queueName) {
      missing.push_back(*name++);
    } else if (row->queueName < *name) {
      ++row;
    } else {
      ++row;
      ++name;
    }
  }
  return missing;
}

}  // namespace

void VeldReportSenderImpl::UpdateQueues(const SenderSnapshot& snapshot, std::uint32_t flags) {
  zel::TraceText(tracer.Get(), zel::normalLevel, "UpdateQueues started");
  if ((flags & queueLimitChanged) != 0) ReplaceProducers(snapshot);
  if ((flags & tableReplaced) != 0) RemoveUnknownQueues(snapshot);
  zel::TraceText(tracer.Get(), zel::normalLevel, "UpdateQueues finished");
}

// A new limit means a new producer for the same queue; its items stay. A row that never had an item gets none
// here.
void VeldReportSenderImpl::ReplaceProducers(const SenderSnapshot& snapshot) {
  const std::lock_guard lock(queuesLock);
  for (const ConsumerEndpoint& row : snapshot.endpoints) {
    const auto entry = queues.find(row.queueName);
    if (entry == queues.end()) continue;
    zel::Ref<IQueueProducer> producer;
    Require(
        queueFactory->CreateProducer(QueueDomain(), row.queueName, QueueLimitBytes(snapshot), producer.Out()),
        site::replaceProducer);
    entry->second = std::move(producer);
  }
}

// Goes by what the service holds rather than by `queues`: a queue of an earlier run has no entry there.
void VeldReportSenderImpl::RemoveUnknownQueues(const SenderSnapshot& snapshot) {
  zel::Ref<IQueueManager> manager;
  zel::vector_t<zel::string> names;
  // Without a manager there are no names. That failure isn't reported, nor is a failure of the list.
  const zel::ResultCode created = queueFactory->CreateQueueManager(QueueDomain(), manager.Out());
  if (!zel::Failed(created)) static_cast<void>(manager->EnumerateQueues(&names));
  std::sort(names.first, names.last);

  const zel::vector_t<zel::string> removed = NamesWithoutRow(names, snapshot.endpoints);
  zel::TraceLine(tracer.Get(), zel::normalLevel, [&](zel::TraceStream& line) {
    line.PutUInt64(removed.size()).PutText(" queues will be removed");
  });
  for (const zel::string& name : removed) static_cast<void>(manager->RemoveQueue(name));
  const std::lock_guard lock(queuesLock);
  for (const zel::string& name : removed) queues.erase(name);
}

void VeldReportSenderImpl::QueuePendingData(const zel::string& queueName, std::uint32_t sizeLimitBytes,
                                            const zel::ByteRange* data) {
  // This reference keeps the producer valid if settings replace the entry meanwhile.
  const zel::Ref<IQueueProducer> producer = ProducerOf(queueName, sizeLimitBytes);
  // Only a full queue is handled; other failures aren't reported.
  if (producer->Push(data) == zel::eOutOfSpace) PushWithEviction(*producer, queueName, data);
}

zel::Ref<IQueueProducer> VeldReportSenderImpl::ProducerOf(const zel::string& queueName,
                                                          std::uint32_t sizeLimitBytes) {
  const std::lock_guard lock(queuesLock);
  if (const auto entry = queues.find(queueName); entry != queues.end()) return entry->second;
  zel::Ref<IQueueProducer> producer;
  Require(queueFactory->CreateProducer(QueueDomain(), queueName, sizeLimitBytes, producer.Out()),
          site::createProducer);
  InsertProducer(queueName, producer);
  return producer;
}

void VeldReportSenderImpl::InsertProducer(const zel::string& queueName,
                                          const zel::Ref<IQueueProducer>& producer) {
  const std::lock_guard lock(queuesLock);
  queues.emplace(queueName, producer);
}

// Drops the oldest item, one at a time, until the new one fits.
void VeldReportSenderImpl::PushWithEviction(IQueueProducer& producer, const zel::string& queueName,
                                            const zel::ByteRange* data) {
  zel::Ref<IAckConsumer> consumer;
  Require(queueFactory->CreateAckConsumer(QueueDomain(), queueName, consumer.Out()),
          site::createEvictingConsumer);
  do {
    zel::vector_t<std::uint8_t> dropped;
    std::uint64_t token = 0;
    if (consumer->Read(&dropped, &token) != zel::sOk) {
      zel::TraceLine(tracer.Get(), zel::normalLevel, [&](zel::TraceStream& line) {
        line.PutText("QueuePendingData. Cann't insert element in the queue ").PutText(queueName);
      });
      return;
    }
    consumer->Ack(&token);
  } while (producer.Push(data) == zel::eOutOfSpace);
}

}  // namespace orvel::veld_report
