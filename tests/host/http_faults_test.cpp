// Every allocation and every system call of libcurl failing during one delivery, alone and with all behind
// it: the request ends once, with a code or with the answer, nothing is left, and the next delivery works.

#include <chrono>
#include <iostream>
#include <map>
#include <string>
#include <thread>

#include "tests/host/faulty_curl.h"
#include "tests/host/http_fakes.h"
#include "tests/host/scripted_server.h"

namespace veld_report::tests {
namespace {

struct Sweep {
  const char* name;
  FaultyCurl::Kind kind;
  bool onwards;
};

class HttpFaults : public testing::TestWithParam<Sweep> {
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
    FaultyCurl::FailNth(GetParam().kind, nth, GetParam().onwards);
    zel::Ref<network_services::IHttpClient> client;
    const zel::ResultCode made = factory_->CreateClient(client.Out());
    if (made < 0) {
      FaultyCurl::Heal();
      EXPECT_EQ(client.Get(), nullptr);
    }
    ClientUnderTest user(factory_.Get(), client);
    const zel::Ref<RecordingCallback> first = user.Send(Url());
    EXPECT_TRUE(first->code < 0 || first->status == 200) << first->code << " " << first->status;
    FaultyCurl::Heal();
    const zel::Ref<RecordingCallback> next = user.Send(Url());
    EXPECT_EQ(next->status, 200) << "the next delivery: " << factory_->States().at(0).lastError;
    return FaultyCurl::Failures() > 0;
  }
  std::string Url() const { return server_.Url("/", "server.test"); }
  // A look-up that was given up ends on a thread of its own.
  template <class Condition>
  static bool Soon(Condition&& condition) {
    for (int i = 0; i < 2000 && !condition(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return condition();
  }

  host::HttpClientOptions options_ = Direct();
  zel::Ref<host::HttpClientFactory> factory_;
  ScriptedServer server_{ScriptedReply::Status(200)};
};

TEST_P(HttpFaults, TheRequestEndsOnceNothingLeaksAndTheNextOneWorks) {
  EXPECT_FALSE(DeliverWith(1000000));
  EXPECT_FALSE(DeliverWith(1000000)) << "what stays from the first delivery on, stays";
  const std::int64_t blocks = FaultyCurl::LiveBlocks();
  const int descriptors = FaultyCurl::Descriptors();
  int nth = 1;
  std::map<std::string, int> points;
  for (; DeliverWith(nth); ++nth) {
    ++points[FaultyCurl::FirstFailed()];
    EXPECT_TRUE(Soon([&] { return FaultyCurl::LiveBlocks() <= blocks; }))
        << FaultyCurl::LiveBlocks() - blocks;
    EXPECT_TRUE(Soon([&] { return FaultyCurl::Descriptors() <= descriptors; }))
        << FaultyCurl::Descriptors() - descriptors;
    ASSERT_FALSE(HasFailure()) << "number " << nth << ", " << FaultyCurl::FirstFailed();
    ASSERT_LT(nth, 5000);
  }
  for (const auto& [what, count] : points) std::cout << "  " << what << " " << count << "\n";
  std::cout << nth - 1 << " failed" << std::endl;
  RecordProperty("failed", nth - 1);
  EXPECT_GT(nth, 10);
}

INSTANTIATE_TEST_SUITE_P(, HttpFaults,
                         testing::Values(Sweep{"Memory", FaultyCurl::Kind::memory, false},
                                         Sweep{"MemoryOnwards", FaultyCurl::Kind::memory, true},
                                         Sweep{"Calls", FaultyCurl::Kind::calls, false},
                                         Sweep{"CallsOnwards", FaultyCurl::Kind::calls, true}),
                         [](const auto& sweep) { return sweep.param.name; });

}  // namespace
}  // namespace veld_report::tests
