// What the commands of veldrep share: declaration, exit codes and error messages.
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

// The command line parses but makes no sense. Ends the command with exit code 2.
class WrongCommandLine : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A command: its options, and what runs if it was chosen. `run` returns the exit code; it may throw any
// std::exception, which counts as a failure.
struct Command {
  CLI::App* options;
  std::function<int()> run;
};

// Each adds its command to the program. The options live as long as the returned `run`.
Command MakeServeCommand(CLI::App& program);
Command MakeDrainCommand(CLI::App& program);
Command MakeSendCommand(CLI::App& program);
Command MakeQueuesCommand(CLI::App& program);
Command MakeStoreCommand(CLI::App& program);
Command MakeDecodeCommand(CLI::App& program);
Command MakeKeygenCommand(CLI::App& program);
Command MakePinCommand(CLI::App& program);

// Writes "veldrep: what: why" to stderr. Threads: any; each line is written in one piece.
void Complain(const std::string& line);

// Throws Failure if this user may not read the store's folder or the file in it.
void CheckStoreAccess(const std::string& path);

// Throws Failure if `path`, of a file to be read, is a folder.
void RefuseFolder(const std::string& path);

// Reads a whole file, or stdin for "-". Throws Failure, also if it is larger than `limitBytes`.
std::string ReadWhole(const std::string& path, std::size_t limitBytes = std::size_t{16} << 20);

}  // namespace veld_report::app
