// The sender's life, and submission.
#include "facade/veld_report/src/veld_report_sender.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "facade/veld_report/src/throw_sites.h"
#include "orvel_tools/json_helpers.h"
#include "trace/trace_stream.h"
#include "zel/rtl/error_handling/exception_conversion.h"

namespace orvel::veld_report {
namespace {

// The delay from a submission to the cycle, whatever sendTimeout is.
constexpr std::uint32_t submissionDelayMs = 1000;

// One step of the teardown. If a host throws in it, the later steps still run: a timer that isn't cancelled
// would call a sender that is gone. And a Release lets no exception through.
template <class Step>
void TearDown(Step&& step) noexcept {
  try {
    step();
  } catch (...) {
  }
}

}  // namespace

VeldReportSenderImpl::VeldReportSenderImpl(zel::IServiceLocator* source)
    : ObjectRootEx(source), ServiceProvider(source) {
  requestOptions.headers = zel::vector_t<network_services::HttpHeader>(allocator.Get());
}

VeldReportSenderImpl::~VeldReportSenderImpl() = default;

zel::ResultCode VeldReportSenderImpl::QueryInterface(zel::InterfaceId interfaceId, void** out) {
  switch (interfaceId) {
    case 0:
    case IVeldReportSender::iid:
      *out = static_cast<IVeldReportSender*>(this);
      break;
    case IVeldReportSenderConstruct::iid:
      *out = static_cast<IVeldReportSenderConstruct*>(this);
      break;
    case IVeldReportSenderSettings::iid:
      *out = static_cast<IVeldReportSenderSettings*>(this);
      break;
    default:
      *out = nullptr;
      return zel::eInterfaceNotSupported;
  }
  static_cast<IVeldReportSender*>(this)->AddRef();
  return zel::sOk;
}

zel::ResultCode VeldReportSenderImpl::Construct(const SenderSettings& settings) {
  try {
    Require(zel::GetInterface(locator.Get(), queueFactory), site::getQueueFactory);
    zel::Ref<network_services::IHttpClientFactory> clientFactory;
    Require(zel::GetInterface(locator.Get(), clientFactory), site::getHttpClientFactory);
    Require(clientFactory->CreateClient(httpClient.Out()), site::createHttpClient);
    requestOptions.headers.push_back(
        {zel::string("Content-Type", allocator.Get()), zel::string("application/json", allocator.Get())});

    const auto note = [&](std::string_view text) { zel::TraceText(tracer.Get(), zel::normalLevel, text); };
    note("INetworkInformationProvider is not used in this BSK version");
    if (zel::Failed(zel::GetInterface(locator.Get(), executionModeProvider))) {
      note("IExecutionModeProvider interface is not available!");
    }
    if (zel::Failed(zel::GetInterface(locator.Get(), signatureProvider))) {
      note("Cann't get ISignatureProvider iface");
    }
    if (zel::Failed(zel::GetInterface(locator.Get(), requestsNotification))) {
      note("Cann't get IRequestsNotification iface");
    }

    // Before SetSettings, which otherwise refuses.
    constructed.store(true, std::memory_order_release);
    Require(static_cast<IVeldReportSenderSettings*>(this)->SetSettings(settings), site::applySettings);

    // Last, so that nothing runs before the first submission: when SetSettings armed the sink, it had no
    // service.
    timerSink.Bind(this, &VeldReportSenderImpl::OnSendTimeout);
    static_cast<void>(zel::GetInterface(locator.Get(), timerSink.timerService));
    return zel::sOk;
  } catch (...) {
    constructed.store(false, std::memory_order_release);
    return zel::ReportCaughtException(locator.Get(), "orvel::veld_report::VeldReportSenderImpl::Construct");
  }
}

void VeldReportSenderImpl::FinalRelease() {
  TearDown([&] { zel::TraceText(tracer.Get(), zel::normalLevel, "FinalRelease called"); });
  stopping.store(true, std::memory_order_release);
  {
    // Ends the wait of a running cycle.
    const std::lock_guard lock(requestLock);
    if (currentRequest) TearDown([&] { currentRequest->Cancel(); });
  }
  timerSink.Stop();
  // CancelTimer's guarantee holds even if it fails or throws: no Run is in progress and none can begin. There
  // is nothing else to wait for, since a call that the service still held could begin after any wait.
  TearDown([&] { timerSink.Cancel(); });
  if (!queueFactory) return;
  try {
    // Nobody else is left, so the settings are read without their lock.
    QueuePendingData(live);
  } catch (...) {
    zel::ReportCaughtException(locator.Get(), "orvel::veld_report::VeldReportSenderImpl::FinalRelease");
  }
}

zel::ResultCode VeldReportSenderImpl::SendStatistic(zel::AnyPtr data) {
  return static_cast<IVeldReportSender*>(this)->SendStatistic(zel::string(), data);
}

zel::ResultCode VeldReportSenderImpl::SendStatistic(const zel::string& consumer, zel::AnyPtr data) {
  if (!constructed.load(std::memory_order_acquire)) return zel::eNotInitialized;
  zel::ResultCode result = zel::sOk;
  try {
    Submit(consumer, data);
  } catch (...) {
    result =
        zel::ReportCaughtException(locator.Get(), "orvel::veld_report::VeldReportSenderImpl::SendStatistic");
  }
  // The outcome of the attempt is only traced. An exception of the tracer is dropped.
  try {
    TraceSubmission(consumer, data, result);
  } catch (...) {
  }
  return zel::sOk;
}

void VeldReportSenderImpl::Submit(const zel::string& consumer, const zel::AnyPtr& data) {
  PendingStatistic element;
  element.payload = orvel_tools::SerializeToJson(locator.Get(), data);
  element.consumer = consumer;
  {
    const std::lock_guard lock(pendingLock);
    pending.push_back(element);
  }
  timerSink.ArmAlways(submissionDelayMs);
}

void VeldReportSenderImpl::TraceSubmission(const zel::string& consumer, const zel::AnyPtr& data,
                                           zel::ResultCode result) {
  zel::TraceLine(tracer.Get(), zel::normalLevel, [&](zel::TraceStream& line) {
    line.PutText("SendStatistic. Data with serId=").PutUInt32(data.descriptor->serId);
    line.PutText(zel::Failed(result) ? " wasn't" : " was").PutText(" added to sending queue for ");
    if (consumer.empty()) {
      line.PutText("all consumers");
    } else {
      // One piece, written in place: the line must not fail for lack of memory.
      constexpr std::string_view label = "consumer ";
      if (char* place = line.Reserve(label.size() + consumer.size)) {
        std::ranges::copy(consumer.View(), std::ranges::copy(label, place).out);
      }
    }
    line.PutText(". Result is").PutInt32(result);
  });
}

}  // namespace orvel::veld_report
