#include "host/platform/console.h"

#include <atomic>

#include "host/platform/windows/wide.h"
// Needs the names of windows.h.
#include <shellapi.h>

namespace veld_report::host {
namespace {

// Written by a thread of the system; publishes nothing but itself.
constinit std::atomic<bool> interrupted{false};

BOOL WINAPI OnInterrupt(DWORD what) {
  const bool isFirst = !interrupted.exchange(true);
  if (what == CTRL_C_EVENT || what == CTRL_BREAK_EVENT) return isFirst ? TRUE : FALSE;
  // Once this returns, the system ends the process. So main gets the time that the system allows.
  Sleep(INFINITE);
  return TRUE;
}

}  // namespace

// The runtime library has turned `arguments` into the system's code page.
std::vector<std::string> BeginConsole(int, const char* const*) {
  SetConsoleOutputCP(CP_UTF8);
  SetConsoleCP(CP_UTF8);
  int count = 0;
  wchar_t** const wide = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> result;
  for (int i = 1; wide && i < count; ++i) result.push_back(Narrow(wide[i]));
  LocalFree(wide);
  return result;
}

std::optional<unsigned> ErrorColumns() noexcept {
  HANDLE const terminal = GetStdHandle(STD_ERROR_HANDLE);
  DWORD mode = 0;
  CONSOLE_SCREEN_BUFFER_INFO info{};
  const bool understands =
      GetConsoleMode(terminal, &mode) && SetConsoleMode(terminal, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
  if (!understands || !GetConsoleScreenBufferInfo(terminal, &info)) return std::nullopt;
  const int columns = info.srWindow.Right - info.srWindow.Left + 1;
  return columns > 1 ? static_cast<unsigned>(columns) : 80u;
}

void NoteInterrupts() noexcept { SetConsoleCtrlHandler(OnInterrupt, TRUE); }

bool IsInterrupted() noexcept { return interrupted; }

}  // namespace veld_report::host
