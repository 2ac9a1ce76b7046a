// The send cycle, and the drain of the pending submissions.
#include <optional>
#include <utility>

#include "facade/veld_report/src/rows_by_consumer.h"
#include "facade/veld_report/src/veld_report_sender.h"
#include "trace/trace_stream.h"
#include "zel/rtl/error_handling/exception_conversion.h"

namespace orvel::veld_report {

// Destroys the walk's list on every path out of the cycle, so that no other cycle finds it. A stopped cycle
// leaves it to the destructor.
struct VeldReportSenderImpl::WalkEnd {
  explicit WalkEnd(VeldReportSenderImpl& owner) : sender(owner) {}
  WalkEnd(const WalkEnd&) = delete;
  WalkEnd& operator=(const WalkEnd&) = delete;
  ~WalkEnd() {
    if (!sender.stopping.load(std::memory_order_acquire)) sender.shuffledQueues.reset();
  }
  VeldReportSenderImpl& sender;
};

void VeldReportSenderImpl::OnSendTimeout(void* /*argument*/) {
  zel::TraceText(tracer.Get(), zel::normalLevel, "OnSendTimeout called");
  timerSink.Disarm();
  SenderSnapshot snapshot;
  SendTotals totals;
  const std::uint32_t flags = TakeSnapshot(snapshot);
  const WalkEnd walkEnd{*this};
  try {
    RunCycle(snapshot, flags, totals);
  } catch (...) {
    // The totals keep what was added so far; the end of the cycle goes by them.
    zel::ReportCaughtException(locator.Get(), "orvel::veld_report::VeldReportSenderImpl::OnSendTimeout");
  }
  // A stopped cycle reports nothing more.
  if (!stopping.load(std::memory_order_acquire)) EndCycle(snapshot, totals);
}

std::uint32_t VeldReportSenderImpl::TakeSnapshot(SenderSnapshot& snapshot) {
  const std::lock_guard lock(settingsLock);
  snapshot = live;
  return std::exchange(updateFlags, 0);
}

void VeldReportSenderImpl::RunCycle(const SenderSnapshot& snapshot, std::uint32_t flags, SendTotals& totals) {
  if (flags != 0) UpdateQueues(snapshot, flags);
  // Before the gate: records reach the persistent queues even while sending is disabled.
  QueuePendingData(snapshot);
  if (BackgroundDisabled()) {
    totals.needToSend = 1;
    return;
  }
  HandleQueueList(snapshot, totals);
}

// Traces a closed gate.
bool VeldReportSenderImpl::BackgroundDisabled() const {
  if (!executionModeProvider || executionModeProvider->IsBackgroundDisabled() == 0) return false;
  zel::TraceText(tracer.Get(), zel::normalLevel,
                 "Background activities disabled or network disabled by provider");
  return true;
}

void VeldReportSenderImpl::EndCycle(const SenderSnapshot& snapshot, const SendTotals& totals) {
  if (totals.needToSend != 0) {
    zel::TraceLine(tracer.Get(), zel::normalLevel, [&](zel::TraceStream& line) {
      line.PutText("Not all data were sent. NeedToSend size = ").PutUInt32(totals.needToSend);
      line.PutText(". Sended size = ").PutUInt32(totals.sent);
    });
    static_cast<void>(timerSink.Arm(snapshot.sendTimeout));
  } else {
    zel::TraceText(tracer.Get(), zel::normalLevel,
                   "Threre are no more data to send. Timer for sending was cancelled");
  }
}

void VeldReportSenderImpl::QueuePendingData(const SenderSnapshot& snapshot) {
  std::optional<RowsByConsumer> rows;
  for (;;) {
    PendingStatistic element;
    if (!TakePending(element)) return;
    if (!rows) rows.emplace(snapshot.endpoints);
    try {
      QueueElement(*rows, QueueLimitBytes(snapshot), element);
    } catch (...) {
      // This element loses its remaining rows; elements are never put back.
      zel::ReportCaughtException(locator.Get(), "orvel::veld_report::VeldReportSenderImpl::QueuePendingData");
    }
  }
}

bool VeldReportSenderImpl::TakePending(PendingStatistic& element) {
  const std::lock_guard lock(pendingLock);
  if (pending.empty()) return false;
  element.consumer.swap(pending.front().consumer);
  element.payload.swap(pending.front().payload);
  pending.pop_front();
  return true;
}

void VeldReportSenderImpl::QueueElement(const RowsByConsumer& rows, std::uint32_t sizeLimitBytes,
                                        const PendingStatistic& element) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(element.payload.data);
  const zel::ByteRange data{bytes, bytes + element.payload.size};
  rows.Each(element.consumer,
            [&](const ConsumerEndpoint& row) { QueuePendingData(row.queueName, sizeLimitBytes, &data); });
}

}  // namespace orvel::veld_report
