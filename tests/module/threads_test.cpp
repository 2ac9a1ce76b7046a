// The sender under many threads, with everything at once: the built module, the host kit's services, queues
// in memory and a client that answers by itself.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "contract/http.h"
#include "contract/sender.h"
#include "examples/own_host/memory_queues.h"
#include "host/json/json_record.h"
#include "host/json/json_storage.h"
#include "host/json/serializer.h"
#include "host/services/execution_mode.h"
#include "host/services/function_notification.h"
#include "host/services/hash_service.h"
#include "host/services/heap_allocator.h"
#include "host/services/line_tracer.h"
#include "host/services/loaded_module.h"
#include "host/services/service_locator.h"
#include "host/services/timer_service.h"
#include "server/message_check.h"
#include "tests/common/loaded_library.h"

namespace veld_report::tests {
namespace {

using host::MakeObject;
using orvel::veld_report::IVeldReportSender;
using orvel::veld_report::IVeldReportSenderConstruct;
using orvel::veld_report::IVeldReportSenderSettings;
using orvel::veld_report::SenderSettings;

// The host kit's timer without the delays: 1 ms for what a cycle asks for, none for a submission.
class PromptTimer final : public host::HostObject<zel::ITimerService> {
 public:
  zel::ResultCode ReservedTimerOperation0() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedTimerOperation1() override { return zel::eNotImplemented; }
  zel::ResultCode ArmTimer(zel::IRunnable* sink, std::uint32_t delayMs) override {
    return timer_->ArmTimer(sink, delayMs > 1000 ? 1 : 0);
  }
  zel::ResultCode DisarmTimer(zel::IRunnable* sink) override { return timer_->DisarmTimer(sink); }
  zel::ResultCode CancelTimer(zel::IRunnable* sink) override {
    ++cancelled;
    return timer_->CancelTimer(sink);
  }
  std::uint64_t Cycles() const { return timer_->RunsStarted(); }

  std::atomic<int> cancelled = 0;

 private:
  const zel::Ref<host::TimerService> timer_ = host::MakeObject<host::TimerService>();
};

class AnsweredRequest final : public host::HostObject<network_services::IHttpRequestHandle> {
 public:
  AnsweredRequest(const zel::wstring& url, network_services::IAsyncHttpRequestCallback* callback)
      : url_(url), callback_(callback) {}

  zel::ResultCode ReservedRequestOperation() override { return zel::eNotImplemented; }
  zel::ResultCode Wait(std::uint32_t timeoutMs) override {
    const bool ended = ended_.wait_for(std::chrono::milliseconds(timeoutMs)) == std::future_status::ready;
    return ended ? ended_.get() : zel::eOperationTimeout;
  }
  zel::ResultCode Cancel() override { return zel::sOk; }  // each answer comes soon

  // Once. A status of 0 is a failure.
  void Report(std::uint16_t status) {
    alignas(8) char response[96] = {};
    std::memcpy(response + network_services::responseStatusOffset, &status, sizeof status);
    const zel::ResultCode failure = status == 0 ? zel::eOperationTimeout : zel::sOk;
    const auto callback = std::exchange(callback_, {});
    EXPECT_EQ(
        failure ? callback->OnRequestFailed(url_, failure) : callback->OnRequestCompleted(url_, response),
        zel::sOk);
    result_.set_value(failure);
  }

 private:
  const zel::wstring url_;
  zel::Ref<network_services::IAsyncHttpRequestCallback> callback_;
  std::promise<zel::ResultCode> result_;
  const std::shared_future<zel::ResultCode> ended_ = result_.get_future().share();
};

// An HTTP client without a network: it answers each request on a thread of its own, or inside the call, and
// counts the items of the bodies that it answered with 200.
class AnsweringClient final
    : public host::HostObject<network_services::IHttpClient, network_services::IHttpClientCertificates,
                              network_services::IHttpClientFactory> {
 public:
  zel::ResultCode ReservedClientOperation0() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation1() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation2() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation3() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedClientOperation4() override { return zel::eNotImplemented; }
  // The first 20 requests get each of the answers in turn, all later ones the last.
  zel::ResultCode MakeRequestAsync(const zel::wstring& url, const network_services::HttpRequestOptions&,
                                   const std::uint32_t*, zel::IIO* body, void*,
                                   network_services::IAsyncHttpRequestCallback* callback,
                                   network_services::IHttpRequestHandle** request) override {
    constexpr std::pair<std::uint16_t, bool> answers[] = {
        {500, false}, {200, true}, {0, false}, {200, false}};
    const std::uint64_t number = requests++;
    const auto [status, inside] = answers[number < 20 ? number % 4 : 3];
    const auto made = MakeObject<AnsweredRequest>(url, callback);
    *request = zel::Ref<network_services::IHttpRequestHandle>(made).Detach();
    const auto report = [this, made, status = status, items = CountItems(*body)] {
      made->Report(status);
      if (status == 200) deliveredItems += items;
    };
    if (inside) {
      report();
    } else {
      const std::lock_guard lock(mutex_);
      threads_.emplace_back(report);
    }
    return zel::sOk;
  }
  zel::ResultCode SetCertificates(const network_services::CertificateRange*) override { return zel::sOk; }
  zel::ResultCode CreateClient(network_services::IHttpClient** out) override {
    AddRef();
    *out = this;
    return zel::sOk;
  }

  // Waits for all answers. No request may be made any more.
  void Finish() {
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
  }

  std::atomic<std::uint64_t> requests = 0, deliveredItems = 0;

 private:
  static std::uint64_t CountItems(zel::IIO& body) {
    std::uint64_t size = 0;
    std::uint32_t count = 0;
    body.GetSize(&size);
    std::string text(size, '\0');
    EXPECT_EQ(body.Read(text.data(), static_cast<std::uint32_t>(size), &count), zel::sOk);
    const server::MessageContent content = server::CheckMessage(text, {});
    EXPECT_EQ(content.problem, "");
    return content.itemCount;
  }

  std::mutex mutex_;
  std::vector<std::thread> threads_;
};

struct Host {
  Host() {
    const auto ignoreLine = [](std::string_view) {};
    const auto ignoreRequest = [](const host::FinishedRequest&) {};
    const host::LineTracerOptions all{.level = 700, .sink = ignoreLine};
    locator->Register<zel::IAllocator>(MakeObject<host::HeapAllocator>());
    locator->Register<zel::ITracer>(MakeObject<host::LineTracer>(all));
    locator->Register<crypto::hash::IHashCalculatorFactory>(MakeObject<host::HashService>());
    locator->Register<orvel::IQueueFactory>(queues);
    locator->Register<network_services::IHttpClientFactory>(client);
    locator->Register<orvel::IExecutionModeProvider>(mode);
    locator->Register<orvel::IRequestsNotification>(MakeObject<host::FunctionNotification>(ignoreRequest));
    locator->Register<zel::IJsonStorageFactory>(host::CreateJsonStorageFactory());
    locator->Register<zel::IStorageSerializer2>(host::CreateSerializer());
    locator->Register<zel::ITimerService>(timer);
  }

  const zel::Ref<host::ServiceLocator> locator = MakeObject<host::ServiceLocator>();
  const zel::Ref<own_host::MemoryQueues> queues = own_host::Make<own_host::MemoryQueues>();
  const zel::Ref<host::ExecutionMode> mode = MakeObject<host::ExecutionMode>();
  const zel::Ref<AnsweringClient> client = MakeObject<AnsweringClient>();
  const zel::Ref<PromptTimer> timer = MakeObject<PromptTimer>();
};

SenderSettings MakeSettings(std::initializer_list<std::u16string_view> urls, std::uint32_t packetLimit) {
  SenderSettings settings;
  for (const std::u16string_view url : urls) settings.urls.push_back({zel::wstring(url), {}});
  settings.packetLimit = packetLimit;
  settings.queueLimit = 1000;
  settings.sendTimeout = 2;
  return settings;
}

// Waits a moment for one, and doesn't insist.
void LetACycleBegin(const PromptTimer& timer) {
  const std::uint64_t before = timer.Cycles();
  for (int i = 0; i < 200 && timer.Cycles() == before; ++i) std::this_thread::yield();
}

struct RoundTotals {
  std::uint64_t cycles = 0;
  std::uint64_t requests = 0;
};

// One sender in the hands of eight producers, one who changes settings and one who opens and closes the gate,
// with cycles on a timer's thread and completions on threads of their own. Each of them lets its references
// go when it is done, so the last Release, with its flush, comes from any of them.
void LiveARound(host::LoadedModule& module, RoundTotals* totals) {
  constexpr int producerCount = 8;
  constexpr int submissions = 40;
  const SenderSettings plans[] = {MakeSettings({u"http://a", u"http://b"}, 17),
                                  MakeSettings({u"http://b", u"http://a"}, 5)};
  const Host host;
  const auto& timer = *host.timer;

  zel::Ref<IVeldReportSender> sender;
  zel::Ref<IVeldReportSenderConstruct> construct;
  zel::Ref<IVeldReportSenderSettings> settings;
  auto* const locator = host.locator.Get();
  const auto made =
      module.MakeFactory(locator)->CreateInstance(locator, IVeldReportSender::iid, sender.OutVoid());
  ASSERT_EQ(made, zel::sOk);
  ASSERT_EQ(sender->QueryInterface(IVeldReportSenderConstruct::iid, construct.OutVoid()), zel::sOk);
  ASSERT_EQ(sender->QueryInterface(IVeldReportSenderSettings::iid, settings.OutVoid()), zel::sOk);
  ASSERT_EQ(construct->Construct(plans[0]), zel::sOk);
  construct.Reset();
  std::vector<std::thread> threads;
  for (int i = 0; i < producerCount; ++i) {
    threads.emplace_back([own = sender, &timer]() mutable {
      for (int n = 0; n < submissions; ++n) {
        host::JsonRecord record{"{\"n\":" + std::to_string(n) + "}"};
        EXPECT_EQ(own->SendStatistic(record.AsAny()), zel::sOk);
        if (n % 10 == 0) LetACycleBegin(timer);
      }
      own.Reset();
    });
  }
  threads.emplace_back([own = std::move(settings), &plans, &timer]() mutable {
    for (int n = 0; n < 6; ++n) {
      EXPECT_EQ(own->SetSettings(plans[n % 2]), zel::sOk);
      LetACycleBegin(timer);
    }
    own.Reset();
  });
  threads.emplace_back([own = std::move(sender), &host, &timer]() mutable {
    for (int n = 0; n < 10; ++n) {
      host.mode->AllowBackground(n % 2 != 0);
      LetACycleBegin(timer);
    }
    own.Reset();
  });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(timer.cancelled, 1) << "of many releases exactly one is the last";
  host.client->Finish();
  EXPECT_TRUE(module.CanUnload());

  const own_host::MemoryQueues::Counts counts = host.queues->Count();
  EXPECT_EQ(counts.accepted, 2u * producerCount * submissions) << "by a cycle or by the last flush";
  EXPECT_EQ(counts.waiting + host.client->deliveredItems, counts.accepted);
  totals->requests += host.client->requests;
  totals->cycles += timer.Cycles();
}

// VELD_ROUNDS says how many; scripts/threads runs a thousand.
TEST(ThreadRounds, EverythingAtOnceLosesNothing) {
  const char* const wanted = std::getenv("VELD_ROUNDS");
  const int rounds = wanted ? std::atoi(wanted) : 50;
  ASSERT_GT(rounds, 0);
  host::LoadedModule module(VELD_MODULE_FILE);
  RoundTotals totals;
  int round = 0;
  while (round < rounds && !testing::Test::HasFailure()) {
    SCOPED_TRACE("round " + std::to_string(++round));
    LiveARound(module, &totals);
  }
  std::cout << "rounds " << round << ", cycles " << totals.cycles << ", requests " << totals.requests
            << ", failures " << testing::Test::HasFailure() << std::endl;
  EXPECT_TRUE(module.TryUnload());
  EXPECT_FALSE(IsLoaded(VELD_MODULE_FILE));
}

}  // namespace
}  // namespace veld_report::tests
