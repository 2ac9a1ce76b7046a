// The sender: the one creatable class of the module. It turns submitted records into JSON, keeps them in the
// host's persistent queues and sends them in packets, one request at a time.
//
// Life: created -> constructed -> stopping (the last Release). After a Construct that failed, only the last
// Release is left. The object has no thread of its own: submissions and settings run on callers' threads, and
// a send cycle on a thread of the host's timer, one cycle at a time. Requests report to objects of their own
// (request_callback.h), which have no link to the sender.
//
// The five locks are recursive, and no two different ones are ever held at the same time. The class is spread
// over several units: veld_report_sender.cpp (life, submission), sender_settings.cpp, send_cycle.cpp,
// queue_maintenance.cpp, queue_walk.cpp, request_building.cpp.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>

#include "contract/byte_range.h"
#include "contract/execution_mode.h"
#include "contract/hash.h"
#include "contract/http.h"
#include "contract/queue.h"
#include "contract/requests_notification.h"
#include "contract/sender.h"
#include "contract/signature.h"
#include "facade/veld_report/src/sender_records.h"
#include "facade/veld_report/src/shuffled_queue_list.h"
#include "facade/veld_report/src/timer_sink.h"
#include "types/ref.h"
#include "types/vector.h"
#include "zel/rtl/brief_lock.h"
#include "zel/rtl/objclient.h"
#include "zel/rtl/object.h"

namespace orvel::veld_report {

class RowsByConsumer;

class VeldReportSenderImpl : public zel::ObjectRootEx<zel::AllocatorTracerLocatorStrategy>,
                             public IVeldReportSender,
                             public IVeldReportSenderConstruct,
                             public IVeldReportSenderSettings,
                             public zel::ServiceProvider<crypto::hash::IHashCalculatorFactory> {
 public:
  class AsyncHttpRequestCallbackImpl;

  // Looks up the required services or throws zel::GetInterfaceException. Uses no network, queue or timer.
  explicit VeldReportSenderImpl(zel::IServiceLocator* source);
  ~VeldReportSenderImpl();

  zel::ResultCode QueryInterface(zel::InterfaceId interfaceId, void** out) override;

  zel::ResultCode SendStatistic(const zel::string& consumer, zel::AnyPtr data) override;
  zel::ResultCode SendStatistic(zel::AnyPtr data) override;
  zel::ResultCode Construct(const SenderSettings& settings) override;
  zel::ResultCode SetSettings(const SenderSettings& settings) override;
  zel::ResultCode ReservedSettingsOperation() override;

  // Runs before the destructor, on the thread of the last Release: stops the cycle, waits for a running one
  // and moves what is left in `pending` into the queues.
  void FinalRelease();

 private:
  // What the walk does after a packet's request.
  enum class RequestEnd { goOn, abandon };
  struct QueueVisit;
  struct WalkEnd;

  // Submission.
  void Submit(const zel::string& consumer, const zel::AnyPtr& data);
  void TraceSubmission(const zel::string& consumer, const zel::AnyPtr& data, zel::ResultCode result);

  // Settings. Throws what a service throws; then nothing has changed.
  zel::ResultCode ReplaceSettings(const SenderSettings& settings);
  void TakeSettings(const SenderSettings& settings, zel::vector_t<ConsumerEndpoint>& table);

  // The send cycle: the callback of `timerSink`.
  void OnSendTimeout(void* argument);
  std::uint32_t TakeSnapshot(SenderSnapshot& snapshot);
  void RunCycle(const SenderSnapshot& snapshot, std::uint32_t flags, SendTotals& totals);
  void EndCycle(const SenderSnapshot& snapshot, const SendTotals& totals);
  bool BackgroundDisabled() const;
  // Moves every element of `pending` into the queues of its rows. Failures of single elements are traced
  // here.
  void QueuePendingData(const SenderSnapshot& snapshot);
  bool TakePending(PendingStatistic& element);
  void QueueElement(const RowsByConsumer& rows, std::uint32_t sizeLimitBytes,
                    const PendingStatistic& element);

  // Queue maintenance. Both throw zel::SystemException.
  void UpdateQueues(const SenderSnapshot& snapshot, std::uint32_t flags);
  // Puts one item into one queue and drops the oldest items of a full one.
  void QueuePendingData(const zel::string& queueName, std::uint32_t sizeLimitBytes,
                        const zel::ByteRange* data);
  void ReplaceProducers(const SenderSnapshot& snapshot);
  void RemoveUnknownQueues(const SenderSnapshot& snapshot);
  zel::Ref<IQueueProducer> ProducerOf(const zel::string& queueName, std::uint32_t sizeLimitBytes);
  void InsertProducer(const zel::string& queueName, const zel::Ref<IQueueProducer>& producer);
  void PushWithEviction(IQueueProducer& producer, const zel::string& queueName, const zel::ByteRange* data);

  // The walk through the queues. Throws zel::SystemException.
  void HandleQueueList(const SenderSnapshot& snapshot, SendTotals& totals);
  RequestEnd VisitQueue(const ConsumerEndpoint& row, const SenderSnapshot& snapshot, SendTotals& totals);
  void AddToPacket(QueueVisit& visit);
  RequestEnd SendPacket(QueueVisit& visit, const ConsumerEndpoint& row, SendTotals& totals);

  // One request.
  void MakeRequest(const zel::vector_t<zel::string>& packet, const zel::wstring& url,
                   network_services::IAsyncHttpRequestCallback* callback,
                   zel::Ref<network_services::IHttpRequestHandle>& request);
  zel::string BuildBody(const zel::vector_t<zel::string>& packet);
  zel::vector_t<std::uint8_t> SignatureBlock(const zel::string& payloadText);
  zel::ResultCode WaitForRequest(network_services::IHttpRequestHandle* request);
  void SetCurrentRequest(network_services::IHttpRequestHandle* request);

  // Guards `live` and `updateFlags`. Only held for copies and swaps.
  std::recursive_mutex settingsLock;
  SenderSnapshot live;
  std::uint32_t updateFlags = 0;

  // Doesn't change after Construct has returned. Publishes what Construct found to other threads' calls.
  std::atomic<bool> constructed{false};
  // Written once, by FinalRelease. The cycle reads it at its checkpoints; one that reads it too late goes on
  // to the next. Nothing is published by it: FinalRelease waits for the cycle in CancelTimer.
  std::atomic<bool> stopping{false};

  // Guards `pending`. Only held to append or to remove one element.
  zel::BriefLock pendingLock;
  std::deque<PendingStatistic> pending;

  zel::Ref<ISignatureProvider> signatureProvider;  // may be null
  zel::Ref<IQueueFactory> queueFactory;
  // The walk in progress; null between cycles. Only used by the cycle and the destructor.
  std::unique_ptr<ShuffledQueueList> shuffledQueues;
  zel::Ref<network_services::IHttpClient> httpClient;
  network_services::HttpRequestOptions requestOptions;
  zel::Ref<IExecutionModeProvider> executionModeProvider;  // may be null
  zel::Ref<IRequestsNotification> requestsNotification;    // may be null

  zel::AutoObject<zel_helpers::TimerSink<VeldReportSenderImpl>> timerSink;

  // Guards `queues`. Held across CreateProducer, never across a push or a read. Locked twice on the path that
  // adds a producer.
  std::recursive_mutex queuesLock;
  std::map<zel::string, zel::Ref<IQueueProducer>> queues;

  // Guards `currentRequest`. Held across its Cancel, never across Wait.
  std::recursive_mutex requestLock;
  zel::Ref<network_services::IHttpRequestHandle> currentRequest;
};

}  // namespace orvel::veld_report
