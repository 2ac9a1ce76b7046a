// Every allocation of libcurl failing during one delivery, alone and with all after it: the request ends
// once, with a code or with the answer, nothing is left, and the next delivery works.
#include <iostream>
#include <thread>

#include "tests/host/faulty_curl.h"
#include "tests/host/http_fakes.h"
#include "tests/host/scripted_server.h"

namespace veld_report::tests {
namespace {

class HttpFaults : public testing::TestWithParam<bool> {
 protected:
  static void SetUpTestSuite() { FaultyCurl::Install(); }
  HttpFaults() {
    options_.backoff.enabled = false;
    options_.connectTimeoutMs = options_.totalTimeoutMs = 2000;
    factory_ = CreateHttpClientFactory(options_);
  }
  ~HttpFaults() override { FaultyCurl::Heal(); }

  // A client's life with two deliveries; the first one, from the making of the client on, meets the failure.
  // Returns whether there was one.
  bool DeliverWith(int nth) {
    FaultyCurl::FailNth(nth, GetParam());
    zel::Ref<network_services::IHttpClient> client;
    if (zel::Failed(factory_->CreateClient(client.Out()))) {
      FaultyCurl::Heal();
      EXPECT_EQ(client.Get(), nullptr);
    }
    ClientUnderTest user(factory_.Get(), client);
    const std::string url = server_.Url("/", "localhost");
    const zel::Ref<RecordingCallback> first = user.Send(url);
    EXPECT_TRUE(first->code < 0 || first->status == 200) << first->code << " " << first->status;
    FaultyCurl::Heal();
    EXPECT_EQ(user.Send(url)->status, 200) << "the next one: " << factory_->States().at(0).lastError;
    return FaultyCurl::failures > 0;
  }
  // A look-up that was given up ends on a thread of its own.
  static bool HoldsAtMost(std::int64_t blocks) {
    for (int i = 0; i < 2000 && FaultyCurl::liveBlocks > blocks; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return FaultyCurl::liveBlocks <= blocks;
  }

  host::HttpClientOptions options_ = Direct();
  zel::Ref<host::HttpClientFactory> factory_;
  ScriptedServer server_{ScriptedReply::Status(200)};
};

TEST_P(HttpFaults, TheRequestEndsOnceNothingLeaksAndTheNextWorks) {
  EXPECT_FALSE(DeliverWith(1000000));
  EXPECT_FALSE(DeliverWith(1000000)) << "what stays from the first delivery on, stays";
  const std::int64_t blocks = FaultyCurl::liveBlocks;
  int nth = 1;
  for (; DeliverWith(nth); ++nth) {
    EXPECT_TRUE(HoldsAtMost(blocks)) << FaultyCurl::liveBlocks - blocks << " blocks leak";
    ASSERT_FALSE(HasFailure()) << "number " << nth;
    ASSERT_LT(nth, 5000);
  }
  std::cout << nth - 1 << " failed" << std::endl;
  RecordProperty("failed", nth - 1);
  EXPECT_GT(nth, 10);
}

INSTANTIATE_TEST_SUITE_P(AloneOrOnwards, HttpFaults, testing::Bool());

}  // namespace
}  // namespace veld_report::tests
