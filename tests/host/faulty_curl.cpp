#include "tests/host/faulty_curl.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

namespace veld_report::tests {
namespace {

std::atomic<int> failAt{0};  // 0: nothing fails
std::atomic<bool> failsOnwards{false};
std::atomic<int> count{0};

// Makes a block, or none if its turn to fail has come.
template <class Make>
void* Block(Make&& make) {
  const int at = failAt;
  const int number = at == 0 ? 0 : ++count;
  if (at != 0 && (number == at || (failsOnwards && number > at))) {
    ++FaultyCurl::failures;
    return nullptr;
  }
  return make();
}
void* Counted(void* block) {
  FaultyCurl::liveBlocks += block != nullptr;
  return block;
}
void* Malloc(std::size_t size) {
  return Block([&] { return Counted(std::malloc(size)); });
}
void* Calloc(std::size_t elements, std::size_t size) {
  return Block([&] { return Counted(std::calloc(elements, size)); });
}
char* Strdup(const char* text) {
  return static_cast<char*>(Block([&] { return Counted(strdup(text)); }));
}
void* Realloc(void* block, std::size_t size) {
  return block ? Block([&] { return std::realloc(block, size); }) : Malloc(size);
}
void Free(void* block) {
  FaultyCurl::liveBlocks -= block != nullptr;
  std::free(block);
}

}  // namespace

void FaultyCurl::Install() {
  ASSERT_EQ(curl_global_init_mem(CURL_GLOBAL_DEFAULT, Malloc, Free, Realloc, Strdup, Calloc), CURLE_OK);
}
void FaultyCurl::FailNth(int nth, bool onwards) {
  Heal();
  failsOnwards = onwards;
  count = failures = 0;
  failAt = nth;
}
void FaultyCurl::Heal() { failAt = 0; }

}  // namespace veld_report::tests

// Without memory for a look-up 7.88 closes descriptor 0 too, which isn't its own: the process would lose its
// input, and this test a socket of the server.
extern "C" __attribute__((visibility("default"))) int close(int descriptor) {
  static auto* const original = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "close"));
  return descriptor == 0 ? 0 : original(descriptor);
}
