// The option --config of serve: a TOML file with the other options.
//
// The option parser has a reader of such files too. It isn't used, since it cuts values at a "#" within
// quotes, skips what it doesn't understand, and doesn't know in which line a mistake is.
#pragma once

#include <CLI/CLI.hpp>

namespace veld_report::app {

// Adds it to the command. Call it before other options are added: the file is read when the parser comes to
// this one, and what it says is checked with the others. Options that the command line has win. Names are
// those of options that are configurable().
//
// What is wrong with the file ends the parsing: Failure if it can't be read, otherwise WrongCommandLine with
// a sentence for each mistake.
void AddConfigOption(CLI::App* command);

}  // namespace veld_report::app
