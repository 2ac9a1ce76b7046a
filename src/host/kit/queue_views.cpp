#include "host/kit/queue_views.h"

#include <utility>

#include "host/base/host_object.h"

namespace veld_report::host {
namespace {

using orvel::IAckConsumer;
using orvel::IQueueFactory;
using orvel::IQueueManager;
using orvel::IQueueProducer;

class FillingManager final : public HostObject<IQueueManager> {
 public:
  FillingManager(zel::Ref<IQueueManager> inner, zel::Ref<DrainWatch> drains)
      : inner_(std::move(inner)), drains_(std::move(drains)) {}

  zel::ResultCode RemoveQueue(const zel::string& queueName) override {
    return inner_->RemoveQueue(queueName);
  }
  zel::ResultCode EnumerateQueues(zel::vector_t<zel::string>* names) override {
    return drains_->HasDrainedInThisRun() ? zel::sOk : inner_->EnumerateQueues(names);
  }

 private:
  const zel::Ref<IQueueManager> inner_;
  const zel::Ref<DrainWatch> drains_;
};

class EmptyingManager final : public HostObject<IQueueManager> {
 public:
  explicit EmptyingManager(zel::Ref<IQueueManager> inner) : inner_(std::move(inner)) {}

  zel::ResultCode RemoveQueue(const zel::string&) override { return zel::sOk; }
  zel::ResultCode EnumerateQueues(zel::vector_t<zel::string>* names) override {
    return inner_->EnumerateQueues(names);
  }

 private:
  const zel::Ref<IQueueManager> inner_;
};

class View : public HostObject<IQueueFactory> {
 public:
  explicit View(zel::Ref<IQueueFactory> inner) : inner_(std::move(inner)) {}

  zel::ResultCode CreateAckConsumer(const zel::string& domain, const zel::string& queueName,
                                    IAckConsumer** out) override {
    return inner_->CreateAckConsumer(domain, queueName, out);
  }
  zel::ResultCode CreateProducer(const zel::string& domain, const zel::string& queueName,
                                 std::uint32_t sizeLimitBytes, IQueueProducer** out) override {
    return inner_->CreateProducer(domain, queueName, sizeLimitBytes, out);
  }
  zel::ResultCode CreateQueueManager(const zel::string& domain, IQueueManager** out) override {
    return Guarded([&] {
      zel::Ref<IQueueManager> manager;
      const zel::ResultCode code = inner_->CreateQueueManager(domain, manager.Out());
      if (!zel::Failed(code)) *out = Wrap(std::move(manager)).Detach();
      return code;
    });
  }

 private:
  virtual zel::Ref<IQueueManager> Wrap(zel::Ref<IQueueManager> manager) = 0;

  const zel::Ref<IQueueFactory> inner_;
};

class FillingView final : public View {
 public:
  FillingView(zel::Ref<IQueueFactory> inner, zel::Ref<DrainWatch> drains)
      : View(std::move(inner)), drains_(std::move(drains)) {}

 private:
  zel::Ref<IQueueManager> Wrap(zel::Ref<IQueueManager> manager) override {
    return MakeObject<FillingManager>(std::move(manager), drains_);
  }

  const zel::Ref<DrainWatch> drains_;
};

class EmptyingView final : public View {
 public:
  using View::View;

 private:
  zel::Ref<IQueueManager> Wrap(zel::Ref<IQueueManager> manager) override {
    return MakeObject<EmptyingManager>(std::move(manager));
  }
};

}  // namespace

zel::Ref<IQueueFactory> QueuesToFill(zel::Ref<IQueueFactory> queues, zel::Ref<DrainWatch> drains) {
  return MakeObject<FillingView>(std::move(queues), std::move(drains));
}

zel::Ref<IQueueFactory> QueuesToEmpty(zel::Ref<IQueueFactory> queues) {
  return MakeObject<EmptyingView>(std::move(queues));
}

}  // namespace veld_report::host
