#include "host/platform/input.h"

#include <algorithm>
#include <cstring>

#include "host/platform/windows/wide.h"

namespace veld_report::host {
namespace {

// A pipe can't be waited for.
constexpr DWORD pollEveryMs = 5;

HANDLE OpenInput(const std::string& path) {
  HANDLE result = INVALID_HANDLE_VALUE;
  if (path == "-") {
    HANDLE const self = GetCurrentProcess();
    if (!DuplicateHandle(self, GetStdHandle(STD_INPUT_HANDLE), self, &result, 0, FALSE,
                         DUPLICATE_SAME_ACCESS))
      result = INVALID_HANDLE_VALUE;
  } else {
    result = CreateFileW(LongPath(FromUtf8(path)).c_str(), GENERIC_READ,
                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
  }
  if (result == INVALID_HANDLE_VALUE) throw std::system_error(LastError());
  return result;
}

bool IsTerminal(HANDLE input) {
  DWORD mode = 0;
  return GetConsoleMode(input, &mode) != 0;
}

// Returns whether there is something to read, or an end or failure to report.
bool IsReady(HANDLE input, DWORD limitMs) {
  if (GetFileType(input) == FILE_TYPE_DISK) return true;
  if (IsTerminal(input)) return WaitForSingleObject(input, limitMs) != WAIT_TIMEOUT;
  for (const ULONGLONG until = GetTickCount64() + limitMs;; Sleep(pollEveryMs)) {
    DWORD waiting = 0;
    if (!PeekNamedPipe(input, nullptr, 0, nullptr, &waiting, nullptr) || waiting > 0) return true;
    if (GetTickCount64() >= until) return false;
  }
}

}  // namespace

Input::Input(const std::string& path) : handle_(OpenInput(path)) {}

Input::~Input() { CloseHandle(handle_); }

std::optional<std::size_t> Input::Read(std::span<char> bytes, std::chrono::milliseconds limit) {
  if (pending_.empty() && !IsReady(handle_, static_cast<DWORD>(limit.count()))) return std::nullopt;
  DWORD length = 0;
  if (!IsTerminal(handle_)) {
    if (ReadFile(handle_, bytes.data(), static_cast<DWORD>(bytes.size()), &length, nullptr)) return length;
    if (GetLastError() == ERROR_BROKEN_PIPE) return 0;  // its writer has ended
    throw std::system_error(LastError());
  }
  if (pending_.empty()) {
    wchar_t line[8192];
    SetLastError(ERROR_SUCCESS);
    if (!ReadConsoleW(handle_, line, static_cast<DWORD>(std::size(line)), &length, nullptr))
      throw std::system_error(LastError());
    // Ctrl-C, which reads as an empty line.
    if (length == 0 && GetLastError() == ERROR_OPERATION_ABORTED) return std::nullopt;
    constexpr wchar_t ctrlZ = 0x1a;  // the end of what is typed
    if (length == 0 || line[0] == ctrlZ) return 0;
    pending_ = Narrow({line, length});
  }
  const std::size_t copied = std::min(bytes.size(), pending_.size());
  std::memcpy(bytes.data(), pending_.data(), copied);
  pending_.erase(0, copied);
  return copied;
}

std::uint64_t Input::SizeBytes() const noexcept {
  LARGE_INTEGER size{};
  if (GetFileType(handle_) != FILE_TYPE_DISK || !GetFileSizeEx(handle_, &size)) return 0;
  return static_cast<std::uint64_t>(size.QuadPart);
}

}  // namespace veld_report::host
