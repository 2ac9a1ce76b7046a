// Services that replace the disk, the network and the clock where a benchmark measures the code before them.
// They do the minimum that the contract allows, so that they hardly count in a figure.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "contract/http.h"
#include "contract/queue.h"
#include "contract/timer.h"
#include "host/base/host_object.h"

namespace veld_report::bench {

// A timer that never fires by itself: the benchmark runs the cycle on its own thread. Arming goes on to
// `inner` (may be null) with a delay that never elapses, so that it costs what it normally costs.
class HeldTimer final : public host::HostObject<zel::ITimerService> {
 public:
  explicit HeldTimer(zel::Ref<zel::ITimerService> inner) : inner_(std::move(inner)) {}

  zel::ResultCode ReservedTimerOperation0() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedTimerOperation1() override { return zel::eNotImplemented; }
  zel::ResultCode ArmTimer(zel::IRunnable* sink, std::uint32_t) override {
    // Written once: another write of the same value would bounce the cache line between the cores.
    if (sink_.load(std::memory_order_relaxed) != sink) sink_.store(sink, std::memory_order_relaxed);
    return inner_ ? inner_->ArmTimer(sink, neverMs) : zel::sOk;
  }
  zel::ResultCode DisarmTimer(zel::IRunnable* sink) override {
    return inner_ ? inner_->DisarmTimer(sink) : zel::sOk;
  }
  zel::ResultCode CancelTimer(zel::IRunnable* sink) override {
    sink_.store(nullptr, std::memory_order_relaxed);
    return inner_ ? inner_->CancelTimer(sink) : zel::sOk;
  }

  // Runs a cycle on this thread. Does nothing before the first submission.
  void RunCycle() {
    if (zel::IRunnable* const sink = sink_.load(std::memory_order_relaxed)) sink->Run(nullptr);
  }

 private:
  static constexpr std::uint32_t neverMs = 24 * 60 * 60 * 1000;

  const zel::Ref<zel::ITimerService> inner_;
  std::atomic<zel::IRunnable*> sink_{nullptr};
};

// Queues that accept everything and only count. Reading returns `item`, `readable` times.
class NullQueues final : public host::HostObject<orvel::IQueueFactory> {
 public:
  std::uint64_t pushed = 0;
  std::uint64_t lastSize = 0;  // of the last item pushed, in bytes
  std::string item{};
  std::uint64_t readable = 0;
  std::vector<std::string> names{};    // of all queues
  std::uint64_t removed = 0;           // calls of RemoveQueue
  std::function<void()> onLastRead{};  // called after the read of the last item; may be empty

  zel::ResultCode CreateAckConsumer(const zel::string&, const zel::string&,
                                    orvel::IAckConsumer** out) override {
    *out = host::MakeObject<Consumer>(*this).Detach();
    return zel::sOk;
  }
  zel::ResultCode CreateProducer(const zel::string&, const zel::string&, std::uint32_t,
                                 orvel::IQueueProducer** out) override {
    *out = host::MakeObject<Producer>(*this).Detach();
    return zel::sOk;
  }
  zel::ResultCode CreateQueueManager(const zel::string&, orvel::IQueueManager** out) override {
    *out = host::MakeObject<Manager>(*this).Detach();
    return zel::sOk;
  }

 private:
  // These refer to the factory, which outlives them here.
  class Producer final : public host::HostObject<orvel::IQueueProducer> {
   public:
    explicit Producer(NullQueues& queues) : queues_(queues) {}
    zel::ResultCode Push(const zel::ByteRange* data) override {
      ++queues_.pushed;
      queues_.lastSize = static_cast<std::uint64_t>(data->end - data->begin);
      return zel::sOk;
    }

   private:
    NullQueues& queues_;
  };
  class Consumer final : public host::HostObject<orvel::IAckConsumer> {
   public:
    explicit Consumer(NullQueues& queues) : queues_(queues) {}
    zel::ResultCode Read(zel::vector_t<std::uint8_t>* data, std::uint64_t* token) override {
      if (queues_.readable == 0) return zel::eNotFound;
      data->assign(reinterpret_cast<const std::uint8_t*>(queues_.item.data()), queues_.item.size());
      *token = queues_.readable--;
      if (queues_.readable == 0 && queues_.onLastRead) queues_.onLastRead();
      return zel::sOk;
    }
    zel::ResultCode Ack(const std::uint64_t*) override { return zel::sOk; }
    zel::ResultCode ReturnItem(const std::uint64_t*) override { return zel::sOk; }

   private:
    NullQueues& queues_;
  };
  class Manager final : public host::HostObject<orvel::IQueueManager> {
   public:
    explicit Manager(NullQueues& queues) : queues_(queues) {}
    zel::ResultCode RemoveQueue(const zel::string&) override {
      ++queues_.removed;
      return zel::sOk;
    }
    zel::ResultCode EnumerateQueues(zel::vector_t<zel::string>* out) override {
      return host::Guarded([&] {
        for (const std::string& name : queues_.names) out->push_back(zel::string(name));
        return zel::sOk;
      });
    }

   private:
    NullQueues& queues_;
  };
};

// A client that answers 200 to every request at once, on the caller's thread.
class NullHttp final : public host::HostObject<network_services::IHttpClientFactory> {
 public:
  std::uint64_t requests = 0;
  std::uint64_t lastSize = 0;         // of the last body, in bytes
  std::function<void()> onRequest{};  // called first; may be empty

  zel::ResultCode CreateClient(network_services::IHttpClient** out) override {
    *out = host::MakeObject<Client>(*this).Detach();
    return zel::sOk;
  }

 private:
  class Request final : public host::HostObject<network_services::IHttpRequestHandle> {
   public:
    zel::ResultCode ReservedRequestOperation() override { return zel::eNotImplemented; }
    zel::ResultCode Wait(std::uint32_t) override { return zel::sOk; }
    zel::ResultCode Cancel() override { return zel::sOk; }
  };
  class Client final
      : public host::HostObject<network_services::IHttpClient, network_services::IHttpClientCertificates> {
   public:
    explicit Client(NullHttp& http) : http_(http) {}
    zel::ResultCode SetCertificates(const network_services::CertificateRange*) override { return zel::sOk; }
    zel::ResultCode ReservedClientOperation0() override { return zel::eNotImplemented; }
    zel::ResultCode ReservedClientOperation1() override { return zel::eNotImplemented; }
    zel::ResultCode ReservedClientOperation2() override { return zel::eNotImplemented; }
    zel::ResultCode ReservedClientOperation3() override { return zel::eNotImplemented; }
    zel::ResultCode ReservedClientOperation4() override { return zel::eNotImplemented; }
    zel::ResultCode MakeRequestAsync(const zel::wstring& url, const network_services::HttpRequestOptions&,
                                     const std::uint32_t*, zel::IIO* body, void*,
                                     network_services::IAsyncHttpRequestCallback* callback,
                                     network_services::IHttpRequestHandle** request) override {
      if (http_.onRequest) http_.onRequest();
      ++http_.requests;
      body->GetSize(&http_.lastSize);
      alignas(std::uint16_t) char response[network_services::responseStatusOffset + 2] = {};
      *reinterpret_cast<std::uint16_t*>(response + network_services::responseStatusOffset) = 200;
      callback->OnRequestCompleted(url, response);
      *request = host::MakeObject<Request>().Detach();
      return zel::sOk;
    }

   private:
    NullHttp& http_;
  };
};

}  // namespace veld_report::bench
