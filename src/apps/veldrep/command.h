// What the commands of veldrep share: how they are declared, how they end and how they speak of failures.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <stdexcept>
#include <string>

#include "apps/veldrep/failure.h"

namespace veld_report::app {

enum ExitCode : int {
  exitOk = 0,
  exitFailed = 1,
  exitWrongCommandLine = 2,
  exitRefusedLines = 3,
};

// A command line that parses and makes no sense; ends the command with exit code 2.
class WrongCommandLine : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A command: its options, and what runs when it was the one that was named. `run` returns the exit code; it
// may throw any std::exception, which counts as a failure.
struct Command {
  CLI::App* options;
  std::function<int()> run;
};

// Each declares its command on the program. The options live as long as the returned `run`.
Command MakeServeCommand(CLI::App& program);
Command MakeSendCommand(CLI::App& program);
Command MakeQueuesCommand(CLI::App& program);
Command MakeStoreCommand(CLI::App& program);
Command MakeDecodeCommand(CLI::App& program);
Command MakeKeygenCommand(CLI::App& program);

// Writes "veldrep: what: why" to stderr. Threads: any; a line is written in one piece.
void Complain(const std::string& line);

// Everything from a file, or from stdin for "-". Throws Failure.
std::string ReadWhole(const std::string& path);

}  // namespace veld_report::app
