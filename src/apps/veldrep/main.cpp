// veldrep: the command line program for the module and the report server.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>
#include <vector>

#include "apps/veldrep/command.h"
#include "apps/veldrep/option_checks.h"
#include "apps/veldrep/suggestion.h"
#include "host/platform/console.h"
#include "veld_report/version.h"

namespace veld_report::app {
namespace {

int Refuse(const CLI::App& command, const WrongCommandLine& error) {
  Complain(std::string(error.what()) + " (see veldrep " + command.get_name() + " --help)");
  return exitWrongCommandLine;
}

int Run(const Command& command) {
  try {
    return command.run();
  } catch (const WrongCommandLine& error) {
    return Refuse(*command.options, error);
  } catch (const std::exception& error) {
    Complain(error.what());
    return exitFailed;
  }
}

std::vector<std::string> CommandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
    names.push_back(command->get_name());
  return names;
}

// "give a command: check, salvage, compact"
std::string WantedCommand(const CLI::App& app) {
  std::string text;
  for (const std::string& name : CommandNames(app)) text += (text.empty() ? "give a command: " : ", ") + name;
  return text;
}

// What could have stood where the first argument that wasn't understood stands.
std::string SuggestionFor(const CLI::App& app, const std::string& given) {
  std::vector<std::string> names;
  if (given.starts_with("-")) {
    for (const CLI::Option* option : app.get_options()) {
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    }
  } else {
    names = CommandNames(app);
  }
  return Suggestion(given.substr(0, given.find('=')), names);
}

// The parser's own words for what is wrong with the values of an option, in this program's.
std::string Plain(const CLI::ParseError& error) {
  std::string text = error.what();
  const std::string name = text.substr(0, text.find(": "));
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&error))
    return name + (text.find(" missing") == std::string::npos ? ": give it only once" : ": give it a value");
  // Values of options are checked before they are converted, so this is that of a flag.
  if (name == "Could not convert") {
    const std::size_t begin = name.size() + 2;
    return text.substr(begin, text.find(" = ") - begin) + ": takes no value";
  }
  return text;
}

// Prints CLI11's errors in this program's form, with its exit codes.
int Explain(const CLI::App& program, const std::string& firstArgument, const CLI::ParseError& error) {
  if (error.get_exit_code() == 0) return program.exit(error);
  const auto commands =
      program.get_subcommands([&](const CLI::App* each) { return each->get_name() == firstArgument; });
  const CLI::App* const chosen = commands.empty() ? nullptr : commands.front();
  const std::string name = chosen ? "veldrep " + firstArgument : "veldrep";
  const CLI::App& app = chosen ? *chosen : program;
  // CLI11 only says that a command is missing.
  const auto rest = program.remaining(true);
  std::string what = Plain(error);
  if (rest.empty() && what == CLI::RequiredError::Subcommand(1).what()) {
    what = WantedCommand(app);
  } else if (!chosen && !rest.empty() && !rest[0].starts_with("-")) {
    what = "there is no command " + rest[0] + SuggestionFor(program, rest[0]);
  } else if (!rest.empty()) {
    what = rest[0].starts_with("-") && rest[0] != "-" ? "there is no option " + rest[0]
                                                      : "unexpected: " + rest[0];
    what += SuggestionFor(app, rest[0]);
  }
  Complain("command line: " + what + " (see " + name + " --help)");
  return exitWrongCommandLine;
}

int Main(std::vector<std::string> arguments) {
  CLI::App program{"Sends records to report servers, receives them, and inspects stores and messages."};
  program.name("veldrep");
  program.set_version_flag("--version", "veldrep " VELD_REPORT_VERSION, "print the version");
  program.require_subcommand(1);
  program.footer(
      "veldrep COMMAND --help shows the options of a command.\n"
      "Exit codes: 0 done, 1 failed, 2 wrong command line, 3 done, but lines were refused.");
  const std::vector<Command> commands = {MakeServeCommand(program),  MakeDrainCommand(program),
                                         MakeSendCommand(program),   MakeQueuesCommand(program),
                                         MakeStoreCommand(program),  MakeDecodeCommand(program),
                                         MakeKeygenCommand(program), MakePinCommand(program)};
  RefuseEmptyValues(program);
  const std::string first = arguments.empty() ? "" : arguments.front();
  try {
    RequireValues(program, arguments);
    // CLI11 takes them from the end.
    std::ranges::reverse(arguments);
    program.parse(std::move(arguments));
  } catch (const CLI::ParseError& error) {
    return Explain(program, first, error);
  } catch (const WrongCommandLine& error) {  // of a file with options
    return Refuse(*program.get_subcommands().front(), error);
  }
  for (const Command& command : commands) {
    if (command.options->parsed()) return Run(command);
  }
  return exitWrongCommandLine;
}

// What was printed must have arrived, or the exit code says otherwise.
int FinishOutput(int exitCode) {
  errno = 0;
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return exitCode;
  const std::string why = errno == 0 ? "" : ": " + std::generic_category().message(errno);
  Complain(errno == EBADF ? "stdout is closed, so nothing could be printed"
                          : "stdout can't be written" + why);
  return exitCode == exitOk ? exitFailed : exitCode;
}

}  // namespace
}  // namespace veld_report::app

int main(int argumentCount, char** arguments) {
  try {
    return veld_report::app::FinishOutput(
        veld_report::app::Main(veld_report::host::BeginConsole(argumentCount, arguments)));
  } catch (const std::exception& error) {
    veld_report::app::Complain(error.what());
    return veld_report::app::exitFailed;
  }
}
