// What a program of the command line needs of its console: arguments and texts in UTF-8, the terminal's
// width, and Ctrl-C. For programs only: a library in somebody else's process leaves all of it alone.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace veld_report::host {

// The program's arguments without its name, in UTF-8. From now on the console takes UTF-8. Call it once, at
// the start of main.
std::vector<std::string> BeginConsole(int count, const char* const* arguments);

// The number of columns of the terminal that stderr is, 80 if it doesn't say; nothing if stderr isn't a
// terminal that understands escape sequences.
std::optional<unsigned> ErrorColumns() noexcept;

// From now on the first Ctrl-C, SIGTERM or SIGHUP is only noted, and the second ends the program at once. One
// that the program was started to ignore, as by nohup, stays ignored. On Windows the end of the console, of
// the session and of the machine are noted too.
void NoteInterrupts() noexcept;
bool IsInterrupted() noexcept;

}  // namespace veld_report::host
