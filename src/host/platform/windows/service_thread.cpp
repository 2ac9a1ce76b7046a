#include "host/platform/service_thread.h"

#include <utility>

#include "host/platform/windows/wide.h"

namespace veld_report::host {

namespace {

// Only since Windows 10 is there a name that tools show.
void SetOwnName(const std::wstring& name) {
  using SetDescription = HRESULT(WINAPI*)(HANDLE, PCWSTR);
  void* const found =
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "SetThreadDescription"));
  if (found) reinterpret_cast<SetDescription>(found)(GetCurrentThread(), name.c_str());
}

}  // namespace

// Signals are no matter of threads here.
std::thread StartServiceThread(const char* name, std::function<void()> body) {
  return std::thread([wide = Wide(name), run = std::move(body)] {
    SetOwnName(wide);
    run();
  });
}

}  // namespace veld_report::host
