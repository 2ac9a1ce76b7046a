#include "tests/common/program.h"

#include <windows.h>

#include <stdexcept>

#include "tests/common/files.h"
#include "tests/common/waiting.h"

namespace veld_report::tests {
namespace {

HANDLE HandleOf(std::intptr_t number) { return reinterpret_cast<HANDLE>(number); }

// No test gives a program a quotation mark or a backslash at the end.
std::string CommandLine(const std::vector<std::string>& arguments) {
  std::string line;
  for (const std::string& argument : arguments) line += (line.empty() ? "\"" : " \"") + argument + "\"";
  return line;
}

}  // namespace

Program::Program(std::vector<std::string> arguments, const std::string& workingFolder) {
  SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
  HANDLE read = nullptr, write = nullptr;
  if (!CreatePipe(&read, &write, &inherited, 0)) throw std::runtime_error("no pipe");
  SetHandleInformation(write, HANDLE_FLAG_INHERIT, 0);
  const auto create = [&](const std::string& file) {
    return CreateFileA(file.c_str(), FILE_APPEND_DATA | SYNCHRONIZE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                       &inherited, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  };
  STARTUPINFOA start{};
  start.cb = sizeof start;
  start.dwFlags = STARTF_USESTDHANDLES;
  start.hStdInput = read;
  start.hStdOutput = create(folder_ / "out");
  start.hStdError = create(folder_ / "err");
  PROCESS_INFORMATION made{};
  const bool isStarted =
      CreateProcessA(nullptr, CommandLine(arguments).data(), nullptr, nullptr, TRUE, 0, nullptr,
                     workingFolder.empty() ? nullptr : workingFolder.c_str(), &start, &made) != 0;
  for (HANDLE const handle : {start.hStdInput, start.hStdOutput, start.hStdError, made.hThread})
    if (handle) CloseHandle(handle);
  input_ = reinterpret_cast<std::intptr_t>(write);
  if (isStarted) {
    process_ = reinterpret_cast<std::intptr_t>(made.hProcess);
    return;
  }
  EndInput();
  throw std::runtime_error("can't start " + arguments[0]);
}

Program::~Program() {
  Kill();
  if (process_ != none) {
    WaitForSingleObject(HandleOf(process_), INFINITE);
    CloseHandle(HandleOf(process_));
  }
  EndInput();
}

void Program::Feed(std::string_view text) {
  DWORD written = 0;
  ::WriteFile(HandleOf(input_), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

void Program::EndInput() {
  if (input_ != none) CloseHandle(HandleOf(input_));
  input_ = none;
}

void Program::Kill() {
  constexpr UINT killed = 9;
  if (process_ != none) TerminateProcess(HandleOf(process_), killed);
}

bool Program::HasEnded() const {
  return process_ == none || WaitForSingleObject(HandleOf(process_), 0) == WAIT_OBJECT_0;
}

int Program::Wait(std::chrono::seconds limit) {
  EndInput();
  if (!Eventually([&] { return HasEnded(); }, limit)) throw std::runtime_error("the program doesn't end");
  DWORD code = 0;
  GetExitCodeProcess(HandleOf(process_), &code);
  CloseHandle(HandleOf(process_));
  process_ = none;
  return static_cast<int>(code);
}

}  // namespace veld_report::tests
