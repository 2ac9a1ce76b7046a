// The services of examples/own_host: others copy them, so they keep the contracts that the kit's keep.
#include "examples/own_host/http_client.h"
#include "examples/own_host/memory_queues.h"
#include "examples/own_host/timer.h"
#include "tests/host/http_contract.h"
#include "tests/host/queue_course.h"
#include "tests/host/timer_contract.h"

namespace veld_report::tests {
namespace {

class OwnQueues : public testing::Test, protected QueueCourses {
 protected:
  orvel::IQueueFactory& Factory() override { return *service_; }
  void Begin() override { service_ = own_host::Make<own_host::MemoryQueues>(); }
  void Restart() override {}  // they end with the process

 private:
  zel::Ref<own_host::MemoryQueues> service_;
};
TEST_F(OwnQueues, TakeEachCourse) { RunAll(VELD_COURSES "/contract"); }

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
