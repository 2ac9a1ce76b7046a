// In place of veldrep serve and drain, where the report server isn't built.
#include "apps/veldrep/command.h"

namespace veld_report::app {
namespace {

Command MakeAbsent(CLI::App& program, const std::string& name) {
  const std::string why = "isn't part of veldrep for this system; run it on Linux";
  CLI::App* const command = program.add_subcommand(name, why);
  command->allow_extras();
  return {command, [name, why]() -> int { throw Failure(name, why); }};
}

}  // namespace

Command MakeServeCommand(CLI::App& program) { return MakeAbsent(program, "serve"); }
Command MakeDrainCommand(CLI::App& program) { return MakeAbsent(program, "drain"); }

}  // namespace veld_report::app
