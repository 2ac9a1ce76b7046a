#include "tests/host/fake_resolver.h"

#include <dlfcn.h>
#include <netdb.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string_view>

namespace veld_report::tests {
namespace {

struct State {
  std::mutex mutex;
  std::condition_variable changed;
  bool hanging = false;
  int calls = 0;
  int inside = 0;
};

// Never destroyed: a look-up may outlive main.
State& TheState() {
  static State* const state = new State;
  return *state;
}

using Resolve = int(const char*, const char*, const addrinfo*, addrinfo**);

int ResolveAddress(const char* address, const char* service, const addrinfo* hints, addrinfo** out) {
  static auto* const resolve = reinterpret_cast<Resolve*>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return resolve(address, service, hints, out);
}

int Hang() {
  State& state = TheState();
  std::unique_lock lock(state.mutex);
  ++state.calls;
  ++state.inside;
  state.changed.notify_all();
  state.changed.wait(lock, [&] { return !state.hanging; });
  --state.inside;
  state.changed.notify_all();
  return EAI_NONAME;
}

int ResolveTwo(const char* service, const addrinfo* hints, addrinfo** out) {
  addrinfo wanted = *hints;
  wanted.ai_flags |= AI_NUMERICHOST;
  wanted.ai_family = AF_UNSPEC;
  const int result = ResolveAddress("127.0.0.1", service, &wanted, out);
  addrinfo* first = nullptr;
  if (result == 0 && ResolveAddress("::1", service, &wanted, &first) == 0) {
    // freeaddrinfo frees node by node.
    addrinfo* last = first;
    while (last->ai_next) last = last->ai_next;
    last->ai_next = *out;
    *out = first;
  }
  return result;
}

}  // namespace

HangingResolver::HangingResolver() {
  const std::lock_guard lock(TheState().mutex);
  TheState().hanging = true;
  TheState().calls = 0;
}

HangingResolver::~HangingResolver() {
  State& state = TheState();
  std::unique_lock lock(state.mutex);
  state.hanging = false;
  state.changed.notify_all();
  state.changed.wait(lock, [&] { return state.inside == 0; });
}

bool HangingResolver::WaitForCalls(int count) const {
  State& state = TheState();
  std::unique_lock lock(state.mutex);
  return state.changed.wait_for(lock, std::chrono::seconds(20), [&] { return state.calls >= count; });
}

}  // namespace veld_report::tests

extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* name, const char* service,
                                                                  const addrinfo* hints, addrinfo** out) {
  using namespace veld_report::tests;
  const std::string_view host = name ? name : "";
  if (host == "hangs.test") return Hang();
  if (host == "two-addresses.test") return ResolveTwo(service, hints, out);
  if (host.ends_with(".test")) return EAI_NONAME;
  return ResolveAddress(name, service, hints, out);
}
