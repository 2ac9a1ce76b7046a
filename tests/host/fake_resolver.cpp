#include "tests/host/fake_resolver.h"

#include <dlfcn.h>
#include <netdb.h>

#include <atomic>
#include <string_view>

#include "tests/common/waiting.h"

namespace veld_report::tests {
namespace {

std::atomic<bool> hanging{false};
std::atomic<int> calls{0}, inside{0};

void Hang() {
  ++inside;
  ++calls;
  hanging.wait(true);
  --inside;
}

}  // namespace

HangingResolver::HangingResolver() {
  hanging = true;
  calls = 0;
}

HangingResolver::~HangingResolver() {
  hanging = false;
  hanging.notify_all();
  Eventually([] { return inside == 0; });
}

bool HangingResolver::WaitForCalls(int count) const {
  return Eventually([&] { return calls >= count; });
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
