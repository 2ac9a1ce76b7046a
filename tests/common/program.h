// A program as a process of its own, without a shell in between.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tests/common/files.h"
#include "tests/common/temporary_folder.h"

namespace veld_report::tests {

// Life: running from the constructor on -> ended (Wait has returned). The destructor kills what still runs.
class Program {
 public:
  // `arguments`: the program's path, or its name to be looked for in PATH, then what it is given. Its output
  // goes to files in a folder of its own. `workingFolder`: empty for the test's own. Throws
  // std::runtime_error.
  explicit Program(std::vector<std::string> arguments, const std::string& workingFolder = {});
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  void Feed(std::string_view text);  // to stdin
  void EndInput();
  void Kill();  // SIGKILL, or TerminateProcess on Windows
#ifndef _WIN32
  void Signal(int number);
  pid_t Id() const { return process_; }  // -1 once it has ended
#endif
  bool HasEnded() const;
  // Ends the input and returns the exit code; -signal if a signal ended it, 9 if Kill did on Windows. Throws
  // std::runtime_error if it hasn't ended within the limit.
  int Wait(std::chrono::seconds limit = std::chrono::minutes(1));
  std::string Output() const { return ReadFile(folder_ / "out"); }
  std::string Errors() const { return ReadFile(folder_ / "err"); }

 private:
  const TemporaryFolder folder_;
#ifdef _WIN32
  static constexpr std::intptr_t none = 0;
  std::intptr_t process_ = none, input_ = none;  // handles
#else
  pid_t process_ = -1;
  int input_ = -1;
#endif
};

struct ProgramResult {
  int exitCode;
  std::string output, errors;
};

// From start to end.
inline ProgramResult RunProgram(const std::vector<std::string>& arguments, std::string_view input = {}) {
  Program program(arguments);
  program.Feed(input);
  const int exitCode = program.Wait();
  return {exitCode, program.Output(), program.Errors()};
}

}  // namespace veld_report::tests
