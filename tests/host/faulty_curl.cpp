#include "tests/host/faulty_curl.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace veld_report::tests {
namespace {

using Kind = FaultyCurl::Kind;
std::atomic<Kind> failing{Kind::memory};
std::atomic<int> failAt{0};  // 0: nothing fails
std::atomic<bool> failsOnwards{false};
std::atomic<int> count{0};
std::atomic<int> failures{0};
std::atomic<std::int64_t> liveBlocks{0};
std::atomic<int> descriptors{0};
std::atomic<const char*> failedCall{"an allocation"};
std::atomic<const void*> curlBase{nullptr};

bool Fails(Kind kind) {
  if (failAt == 0 || failing != kind) return false;
  const int number = ++count;
  if (number != failAt && !(failsOnwards && number > failAt)) return false;
  ++failures;
  return true;
}

const void* BaseOf(const void* address) {
  Dl_info info;
  return dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
}

void* Counted(void* block) {
  liveBlocks += block != nullptr;
  return block;
}
void* Malloc(std::size_t size) { return Fails(Kind::memory) ? nullptr : Counted(std::malloc(size)); }
void* Calloc(std::size_t elements, std::size_t size) {
  return Fails(Kind::memory) ? nullptr : Counted(std::calloc(elements, size));
}
char* Strdup(const char* text) {
  return Fails(Kind::memory) ? nullptr : static_cast<char*>(Counted(strdup(text)));
}
void* Realloc(void* block, std::size_t size) {
  if (!block) return Malloc(size);
  return Fails(Kind::memory) ? nullptr : std::realloc(block, size);
}
void Free(void* block) {
  liveBlocks -= block != nullptr;
  std::free(block);
}

}  // namespace

void FaultyCurl::Install() {
  ASSERT_EQ(curl_global_init_mem(CURL_GLOBAL_DEFAULT, Malloc, Free, Realloc, Strdup, Calloc), CURLE_OK);
  curlBase = BaseOf(reinterpret_cast<const void*>(dlsym(RTLD_DEFAULT, "curl_easy_init")));
  ASSERT_NE(curlBase, nullptr);
  ASSERT_NE(curlBase, BaseOf(&failAt)) << "libcurl is linked into this program, and its calls can't be told";
}

void FaultyCurl::FailNth(Kind kind, int nth, bool onwards) {
  failAt = 0;
  failing = kind;
  failsOnwards = onwards;
  count = 0;
  failures = 0;
  failedCall = "an allocation";
  failAt = nth;
}
void FaultyCurl::Heal() { failAt = 0; }
int FaultyCurl::Failures() { return failures; }
const char* FaultyCurl::FirstFailed() { return failedCall; }
std::int64_t FaultyCurl::LiveBlocks() { return liveBlocks; }
int FaultyCurl::Descriptors() { return descriptors; }

namespace {

bool FromCurl(const void* caller) { return curlBase != nullptr && BaseOf(caller) == curlBase; }

bool CallFails(const char* name, const void* caller) {
  if (failAt == 0 || failing != Kind::calls || !FromCurl(caller) || !Fails(Kind::calls)) return false;
  if (failures == 1) failedCall = name;
  return true;
}

// Over its pairs of sockets libcurl wakes its own threads. A byte that is lost there isn't a fault that a
// system has, and 7.88 loses the result of a look-up with it.
bool GoesOut(int s) {
  int domain = AF_UNIX;
  socklen_t length = sizeof domain;
  return getsockopt(s, SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 && domain != AF_UNIX;
}

// Where the names of the top domain "test" lead.
const char* Loopback(const char* name) {
  return name && std::string_view(name).ends_with(".test") ? "127.0.0.1" : name;
}

// Notes descriptors that libcurl has got or given back.
int NoteDescriptors(const void* caller, int result, int change) {
  if (result >= 0 && FromCurl(caller)) descriptors += change;
  return result;
}

}  // namespace
}  // namespace veld_report::tests

// NOLINTBEGIN: the C library's names
#define VELD_CALL(result, name, parameters, arguments, fails, descriptorChange, answer)            \
  extern "C" __attribute__((visibility("default"), noinline)) result name parameters {             \
    static auto* const original = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name)); \
    const void* const caller = __builtin_return_address(0);                                        \
    if (fails && veld_report::tests::CallFails(#name, caller)) return answer;                      \
    if (descriptorChange == 0) return original arguments;                                          \
    return static_cast<result>(veld_report::tests::NoteDescriptors(                                \
        caller, static_cast<int>(original arguments), descriptorChange));                          \
  }
#define VELD_FAULTY_CALL(result, name, parameters, arguments, answer) \
  VELD_CALL(result, name, parameters, arguments, true, 0, answer)
#define VELD_ERRNO(code) (errno = (code), -1)

VELD_CALL(int, socket, (int domain, int type, int protocol) noexcept, (domain, type, protocol), true, 1,
          VELD_ERRNO(EMFILE))
VELD_CALL(int, socketpair, (int domain, int type, int protocol, int pair[2]) noexcept,
          (domain, type, protocol, pair), true, 2, VELD_ERRNO(EMFILE))
VELD_FAULTY_CALL(int, connect, (int s, const sockaddr* address, socklen_t length), (s, address, length),
                 VELD_ERRNO(ENETUNREACH))
VELD_CALL(ssize_t, send, (int s, const void* bytes, size_t count, int flags), (s, bytes, count, flags),
          veld_report::tests::GoesOut(s), 0, VELD_ERRNO(EPIPE))
VELD_CALL(ssize_t, recv, (int s, void* bytes, size_t count, int flags), (s, bytes, count, flags),
          veld_report::tests::GoesOut(s), 0, VELD_ERRNO(ECONNRESET))
VELD_FAULTY_CALL(int, poll, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout),
                 VELD_ERRNO(ENOMEM))
VELD_FAULTY_CALL(int, getsockopt, (int s, int level, int name, void* value, socklen_t* length) noexcept,
                 (s, level, name, value, length), VELD_ERRNO(ENOBUFS))
VELD_FAULTY_CALL(int, setsockopt, (int s, int level, int name, const void* value, socklen_t length) noexcept,
                 (s, level, name, value, length), VELD_ERRNO(ENOBUFS))
VELD_FAULTY_CALL(int, getsockname, (int s, sockaddr* address, socklen_t* length) noexcept,
                 (s, address, length), VELD_ERRNO(ENOBUFS))
VELD_FAULTY_CALL(int, getpeername, (int s, sockaddr* address, socklen_t* length) noexcept,
                 (s, address, length), VELD_ERRNO(ENOBUFS))
VELD_FAULTY_CALL(int, pthread_create,
                 (pthread_t * thread, const pthread_attr_t* attributes, void* (*run)(void*),
                  void* argument) noexcept,
                 (thread, attributes, run, argument), EAGAIN)
VELD_FAULTY_CALL(int, getaddrinfo,
                 (const char* name, const char* service, const addrinfo* hints, addrinfo** out),
                 (veld_report::tests::Loopback(name), service, hints, out), EAI_MEMORY)
// It doesn't fail, since nobody can do anything about that. Without memory for a look-up 7.88 closes
// descriptor 0 too, which isn't its own: the process would lose its input, and this test a socket of the
// server.
extern "C" __attribute__((visibility("default"), noinline)) int close(int descriptor) {
  static auto* const original = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "close"));
  const void* const caller = __builtin_return_address(0);
  if (descriptor == 0 && veld_report::tests::FromCurl(caller)) return 0;
  return veld_report::tests::NoteDescriptors(caller, original(descriptor), -1);
}
// NOLINTEND
