// Every allocation of libcurl failing during one delivery, alone and with all after it: the request ends
// once, with a code or with the answer, nothing is left, and the next delivery works.
//
// The allocations fail through the layer that libcurl offers for it. What its system calls answer isn't made
// to fail: our client sees the same codes of libcurl's then.
#include <curl/curl.h>
#include <dlfcn.h>

#include <cstdlib>
#include <iostream>

#include "tests/common/waiting.h"
#include "tests/host/http_fakes.h"
#include "tests/host/scripted_server.h"

namespace veld_report::tests {
namespace {

std::atomic<int> failAt{0};  // 0: nothing fails
std::atomic<bool> failsOnwards{false};
std::atomic<int> count{0}, failures{0};
std::atomic<std::int64_t> liveBlocks{0};

bool Fails() {
  const int at = failAt;
  if (at == 0) return false;
  const int number = ++count;
  const bool fails = number == at || (failsOnwards && number > at);
  failures += fails;
  return fails;
}
template <class Pointer>
Pointer Counted(Pointer block) {
  liveBlocks += block != nullptr;
  return block;
}
void* Malloc(std::size_t size) { return Fails() ? nullptr : Counted(std::malloc(size)); }
void* Calloc(std::size_t elements, std::size_t size) {
  return Fails() ? nullptr : Counted(std::calloc(elements, size));
}
char* Strdup(const char* text) { return Fails() ? nullptr : Counted(strdup(text)); }
void* Realloc(void* block, std::size_t size) {
  if (!block) return Malloc(size);
  return Fails() ? nullptr : std::realloc(block, size);
}
void Free(void* block) {
  liveBlocks -= block != nullptr;
  std::free(block);
}

class HttpFaults : public testing::Test {
 protected:
  // The process can have libcurl initialised only once, so this comes before anything that uses it.
  static void SetUpTestSuite() {
    ASSERT_EQ(curl_global_init_mem(CURL_GLOBAL_DEFAULT, Malloc, Free, Realloc, Strdup, Calloc), CURLE_OK);
  }
  HttpFaults() {
    options_.backoff.enabled = false;
    options_.connectTimeoutMs = options_.totalTimeoutMs = 20'000;
    factory_ = CreateHttpClientFactory(options_);
  }
  ~HttpFaults() override { failAt = 0; }

  // A client's life with two deliveries; the first one, from the making of the client on, meets the failure.
  // Returns whether there was one.
  bool DeliverWith(int nth) {
    count = failures = 0;
    failAt = nth;
    zel::Ref<network_services::IHttpClient> client;
    if (zel::Failed(factory_->CreateClient(client.Out()))) failAt = 0;
    ClientUnderTest user(factory_.Get(), client);
    const std::string url = server_.Url("/", "localhost");
    const zel::Ref<RecordingCallback> first = user.Send(url);
    EXPECT_TRUE(first->code < 0 || first->status == 200) << first->code << " " << first->status;
    failAt = 0;
    EXPECT_EQ(user.Send(url)->status, 200) << "the next one: " << factory_->States().at(0).lastError;
    return failures > 0;
  }

  host::HttpClientOptions options_ = Direct();
  zel::Ref<host::HttpClientFactory> factory_;
  ScriptedServer server_{ScriptedReply::Status(200)};
};

TEST_F(HttpFaults, TheRequestEndsOnceNothingLeaksAndTheNextWorks) {
  EXPECT_FALSE(DeliverWith(1000000));
  EXPECT_FALSE(DeliverWith(1000000)) << "what stays from the first delivery on, stays";
  const std::int64_t blocks = liveBlocks;
  for (const bool onwards : {false, true}) {
    failsOnwards = onwards;
    int nth = 1;
    for (; DeliverWith(nth); ++nth) {
      // A look-up that was given up ends on a thread of its own.
      EXPECT_TRUE(Eventually([&] { return liveBlocks <= blocks; })) << liveBlocks - blocks << " blocks leak";
      ASSERT_FALSE(HasFailure()) << "number " << nth << (onwards ? " and all after it" : "");
      ASSERT_LT(nth, 5000);
    }
    std::cout << nth - 1 << " failed" << std::endl;
    EXPECT_GT(nth, 10);
  }
}

}  // namespace
}  // namespace veld_report::tests

// Without memory for a look-up 7.88 closes descriptor 0 too, which isn't its own: the process would lose its
// input, and this test a socket of the server.
extern "C" __attribute__((visibility("default"))) int close(int descriptor) {
  static auto* const original = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "close"));
  return descriptor == 0 ? 0 : original(descriptor);
}
