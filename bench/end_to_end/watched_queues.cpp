#include "bench/end_to_end/watched_queues.h"

#include <utility>

#include "host/base/host_object.h"

namespace veld_report::bench {
namespace {

void Count(std::atomic<std::uint64_t>& counter) { counter.fetch_add(1, std::memory_order_relaxed); }

class WatchedProducer final : public host::HostObject<orvel::IQueueProducer> {
 public:
  WatchedProducer(zel::Ref<orvel::IQueueProducer> inner, QueueTraffic& traffic)
      : inner_(std::move(inner)), traffic_(traffic) {}

  zel::ResultCode Push(const zel::ByteRange* data) override {
    const zel::ResultCode code = inner_->Push(data);
    if (code == zel::sOk) Count(traffic_.pushed);
    return code;
  }

 private:
  const zel::Ref<orvel::IQueueProducer> inner_;
  QueueTraffic& traffic_;
};

class WatchedReader final : public host::HostObject<orvel::IAckConsumer> {
 public:
  WatchedReader(zel::Ref<orvel::IAckConsumer> inner, QueueTraffic& traffic)
      : inner_(std::move(inner)), traffic_(traffic) {}

  zel::ResultCode Read(zel::vector_t<std::uint8_t>* data, std::uint64_t* token) override {
    const zel::ResultCode code = inner_->Read(data, token);
    if (code != zel::sOk) return code;
    if (traffic_.firstReadNs.load(std::memory_order_relaxed) == 0) {
      traffic_.firstReadNs = std::chrono::steady_clock::now().time_since_epoch().count();
    }
    return code;
  }
  zel::ResultCode Ack(const std::uint64_t* token) override {
    const zel::ResultCode code = inner_->Ack(token);
    if (code == zel::sOk) Count(traffic_.acknowledged);
    return code;
  }
  zel::ResultCode ReturnItem(const std::uint64_t* token) override { return inner_->ReturnItem(token); }

 private:
  const zel::Ref<orvel::IAckConsumer> inner_;
  QueueTraffic& traffic_;
};

class WatchedQueues final : public host::HostObject<orvel::IQueueFactory> {
 public:
  WatchedQueues(zel::Ref<orvel::IQueueFactory> inner, QueueTraffic& traffic)
      : inner_(std::move(inner)), traffic_(traffic) {}

  zel::ResultCode CreateAckConsumer(const zel::string& domain, const zel::string& queueName,
                                    orvel::IAckConsumer** out) override {
    zel::Ref<orvel::IAckConsumer> inner;
    const zel::ResultCode code = inner_->CreateAckConsumer(domain, queueName, inner.Out());
    if (!zel::Failed(code)) *out = host::MakeObject<WatchedReader>(std::move(inner), traffic_).Detach();
    return code;
  }
  zel::ResultCode CreateProducer(const zel::string& domain, const zel::string& queueName,
                                 std::uint32_t sizeLimitBytes, orvel::IQueueProducer** out) override {
    zel::Ref<orvel::IQueueProducer> inner;
    const zel::ResultCode code = inner_->CreateProducer(domain, queueName, sizeLimitBytes, inner.Out());
    if (!zel::Failed(code)) *out = host::MakeObject<WatchedProducer>(std::move(inner), traffic_).Detach();
    return code;
  }
  zel::ResultCode CreateQueueManager(const zel::string& domain, orvel::IQueueManager** out) override {
    return inner_->CreateQueueManager(domain, out);
  }

 private:
  const zel::Ref<orvel::IQueueFactory> inner_;
  QueueTraffic& traffic_;
};

}  // namespace

zel::Ref<orvel::IQueueFactory> WatchQueues(zel::Ref<orvel::IQueueFactory> inner, QueueTraffic& traffic) {
  return host::MakeObject<WatchedQueues>(std::move(inner), traffic);
}

}  // namespace veld_report::bench
