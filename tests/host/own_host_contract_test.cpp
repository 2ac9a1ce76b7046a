// The services of examples/own_host: others copy them, so they keep the contracts that the kit's keep.
#include "examples/own_host/http_client.h"
#include "examples/own_host/memory_queues.h"
#include "examples/own_host/timer.h"
#include "tests/host/http_contract.h"
#include "tests/host/queue_contract.h"
#include "tests/host/timer_contract.h"

namespace veld_report::tests {
namespace {

class OwnQueues final : public QueuesUnderTest {
 public:
  orvel::IQueueFactory& Factory() override { return *service_; }
  void Restart() override {}  // they end with the process

 private:
  const zel::Ref<own_host::MemoryQueues> service_ = own_host::Make<own_host::MemoryQueues>();
};
INSTANTIATE_TEST_SUITE_P(OwnHost, QueueContract, testing::Values(MakeQueues<OwnQueues>));

TimerUnderTest MakeTimer() {
  return {own_host::Make<own_host::Timer>(), [](auto) {}};
}
INSTANTIATE_TEST_SUITE_P(OwnHost, TimerContract, testing::Values(MakeTimer));

zel::Ref<network_services::IHttpClientFactory> MakeFactory() {
  return own_host::Make<own_host::HttpClientFactory>();
}
INSTANTIATE_TEST_SUITE_P(OwnHost, HttpContract, testing::Values(MakeFactory));

}  // namespace
}  // namespace veld_report::tests
