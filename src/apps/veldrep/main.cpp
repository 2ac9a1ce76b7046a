// veldrep: the command line program for the module and the report server.
#include <vector>

#include "apps/veldrep/command.h"
#include "veld_report/version.h"

namespace veld_report::app {
namespace {

int Run(const Command& command) {
  try {
    return command.run();
  } catch (const WrongCommandLine& error) {
    Complain(std::string(error.what()) + " (see veldrep " + command.options->get_name() + " --help)");
    return exitWrongCommandLine;
  } catch (const std::exception& error) {
    Complain(error.what());
    return exitFailed;
  }
}

// Prints CLI11's errors in this program's form, with its exit codes.
int Explain(const CLI::App& program, const CLI::ParseError& error) {
  if (error.get_exit_code() == 0) return program.exit(error);
  const auto chosen = program.get_subcommands();
  const std::string name = chosen.empty() ? "veldrep" : "veldrep " + chosen.front()->get_name();
  // CLI11 only says that a command is missing.
  const auto rest = program.remaining();
  const std::string what = chosen.empty() && !rest.empty() ? "there is no command " + rest[0] : error.what();
  Complain("command line: " + what + " (see " + name + " --help)");
  return exitWrongCommandLine;
}

int Main(int argumentCount, char** arguments) {
  CLI::App program{"Sends records to report servers, receives them, and inspects stores and messages."};
  program.name("veldrep");
  program.set_version_flag("--version", "veldrep " VELD_REPORT_VERSION, "print the version");
  program.require_subcommand(1);
  program.footer(
      "veldrep COMMAND --help shows the options of a command.\n"
      "Exit codes: 0 done, 1 failed, 2 wrong command line, 3 done, but lines were refused.");
  const std::vector<Command> commands = {MakeServeCommand(program),  MakeSendCommand(program),
                                         MakeQueuesCommand(program), MakeStoreCommand(program),
                                         MakeDecodeCommand(program), MakeKeygenCommand(program)};
  try {
    program.parse(argumentCount, arguments);
  } catch (const CLI::ParseError& error) {
    return Explain(program, error);
  }
  for (const Command& command : commands) {
    if (command.options->parsed()) return Run(command);
  }
  return exitWrongCommandLine;
}

}  // namespace
}  // namespace veld_report::app

int main(int argumentCount, char** arguments) {
  try {
    return veld_report::app::Main(argumentCount, arguments);
  } catch (const std::exception& error) {
    veld_report::app::Complain(error.what());
    return veld_report::app::exitFailed;
  }
}
