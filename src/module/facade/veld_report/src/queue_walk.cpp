// The walk through the queues: items are read oldest first, gathered into packets and sent, one request at a
// time. An item leaves its queue only after an answer with status 200.
#include <algorithm>

#include "facade/veld_report/src/request_callback.h"
#include "facade/veld_report/src/throw_sites.h"
#include "facade/veld_report/src/veld_report_sender.h"
#include "trace/trace_stream.h"

namespace orvel::veld_report {
namespace {

// The row of the sorted table with this name, or null.
const ConsumerEndpoint* FindRow(const zel::vector_t<ConsumerEndpoint>& rows, const zel::string& name) {
  const ConsumerEndpoint* row = std::lower_bound(
      rows.first, rows.last, name, [](const ConsumerEndpoint& candidate, const zel::string& wanted) {
        return candidate.queueName < wanted;
      });
  return row != rows.last && row->queueName == name ? row : nullptr;
}

}  // namespace

// The working values of a visit to one queue. They are destroyed in reverse order: the request first, the
// reader last.
struct VeldReportSenderImpl::QueueVisit {
  zel::Ref<IAckConsumer> consumer;
  zel::vector_t<std::uint8_t> scratch;  // the bytes of the item just read
  std::uint64_t token = 0;
  zel::vector_t<zel::string> packet;  // the bytes of the packet's items; the callback has their tokens
  zel::Ref<RequestCallbackObject> callback;
  zel::Ref<network_services::IHttpRequestHandle> request;
};

void VeldReportSenderImpl::HandleQueueList(const SenderSnapshot& snapshot, SendTotals& totals) {
  zel::TraceText(tracer.Get(), zel::normalLevel, "HandleQueueList called");
  if (!shuffledQueues) shuffledQueues = std::make_unique<ShuffledQueueList>(queueFactory.Get());
  totals = SendTotals();
  while (!stopping.load(std::memory_order_acquire)) {
    if (shuffledQueues->Exhausted()) return;
    if (BackgroundDisabled()) {
      totals.needToSend = 1;
      return;
    }
    // A queue without a row is left alone: neither read nor removed.
    const ConsumerEndpoint* row = FindRow(snapshot.endpoints, shuffledQueues->Current());
    if (row && VisitQueue(*row, snapshot, totals) == RequestEnd::abandon) return;
    shuffledQueues->MoveOn();
  }
}

VeldReportSenderImpl::RequestEnd VeldReportSenderImpl::VisitQueue(const ConsumerEndpoint& row,
                                                                  const SenderSnapshot& snapshot,
                                                                  SendTotals& totals) {
  QueueVisit visit;
  Require(queueFactory->CreateAckConsumer(QueueDomain(), row.queueName, visit.consumer.Out()),
          site::createWalkConsumer);
  // An empty queue and a failed read both end the visit.
  while (visit.consumer->Read(&visit.scratch, &visit.token) == zel::sOk) {
    AddToPacket(visit);
    if (visit.packet.size() != snapshot.packetLimit) continue;
    if (stopping.load(std::memory_order_acquire)) return RequestEnd::abandon;
    if (SendPacket(visit, row, totals) == RequestEnd::abandon) return RequestEnd::abandon;
    visit.packet.clear();
    visit.request.Reset();
    visit.callback.Reset();
  }
  // The last, shorter packet is sent even during a stop.
  return visit.packet.empty() ? RequestEnd::goOn : SendPacket(visit, row, totals);
}

void VeldReportSenderImpl::AddToPacket(QueueVisit& visit) {
  if (!visit.callback) {
    Require(CreateRequestCallback(locator.Get(), visit.callback.Out()), site::createCallback);
    visit.callback->consumer = visit.consumer;
    visit.callback->notification = requestsNotification;
  }
  try {
    visit.callback->tokens.push_back(visit.token);
  } catch (...) {
    // The callback doesn't have this token, so it can't give the item back. The others go first, in reading
    // order.
    visit.callback.Reset();
    visit.consumer->ReturnItem(&visit.token);
    throw;
  }
  visit.callback->needToSend.fetch_add(static_cast<std::uint32_t>(visit.scratch.size()),
                                       std::memory_order_relaxed);
  const std::string_view bytes(reinterpret_cast<const char*>(visit.scratch.first), visit.scratch.size());
  visit.packet.push_back(zel::string(bytes));
  zel::TraceLine(tracer.Get(), zel::normalLevel, [&](zel::TraceStream& line) {
    line.PutText("Request added to packet. Size =  ").PutUInt64(bytes.size());
  });
}

VeldReportSenderImpl::RequestEnd VeldReportSenderImpl::SendPacket(QueueVisit& visit,
                                                                  const ConsumerEndpoint& row,
                                                                  SendTotals& totals) {
  MakeRequest(visit.packet, row.url, visit.callback.Get(), visit.request);
  const zel::ResultCode waited = WaitForRequest(visit.request.Get());
  // Every request that was started counts, whatever its outcome.
  totals.needToSend += visit.callback->needToSend.load(std::memory_order_acquire);
  totals.sent += visit.callback->sent.load(std::memory_order_acquire);
  // For a status other than 200 the result is still 0, so the walk goes on with the next packet.
  const zel::ResultCode result = visit.callback->result.load(std::memory_order_acquire);
  return zel::Failed(waited) || zel::Failed(result) ? RequestEnd::abandon : RequestEnd::goOn;
}

}  // namespace orvel::veld_report
