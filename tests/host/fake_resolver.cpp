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
State& state = *new State;

void Hang() {
  std::unique_lock lock(state.mutex);
  ++state.calls;
  ++state.inside;
  state.changed.notify_all();
  state.changed.wait(lock, [] { return !state.hanging; });
  --state.inside;
  state.changed.notify_all();
}

}  // namespace

HangingResolver::HangingResolver() {
  const std::lock_guard lock(state.mutex);
  state.hanging = true;
  state.calls = 0;
}

HangingResolver::~HangingResolver() {
  std::unique_lock lock(state.mutex);
  state.hanging = false;
  state.changed.notify_all();
  state.changed.wait(lock, [] { return state.inside == 0; });
}

bool HangingResolver::WaitForCalls(int count) const {
  std::unique_lock lock(state.mutex);
  return state.changed.wait_for(lock, std::chrono::seconds(20), [&] { return state.calls >= count; });
}

}  // namespace veld_report::tests

extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* name, const char* service,
                                                                  const addrinfo* hints, addrinfo** out) {
  const std::string_view host = name ? name : "";
  if (host == "hangs.test") veld_report::tests::Hang();
  if (host.ends_with(".test")) return EAI_NONAME;
  static auto* const resolve = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return resolve(name, service, hints, out);
}
