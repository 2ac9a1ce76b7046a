// Starts a service's thread inside somebody else's process.
#pragma once

#include <functional>
#include <thread>

namespace veld_report::host {

// A thread with all signals blocked except those of faults. So the application's handlers run on its own
// threads, a broken connection raises no SIGPIPE here, and a crash here reaches the crash handler. `name`: 15
// characters at most, for debuggers. Throws std::system_error.
std::thread StartServiceThread(const char* name, std::function<void()> body);

}  // namespace veld_report::host
