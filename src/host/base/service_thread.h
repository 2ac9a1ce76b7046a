// Starts a service's thread inside somebody else's process.
#pragma once

#include <functional>
#include <thread>

namespace veld_report::host {

// A thread with all signals blocked. So the application's handlers run on its own threads, and a broken
// connection raises no SIGPIPE here. `name`: 15 characters at most, for debuggers. Throws std::system_error.
std::thread StartServiceThread(const char* name, std::function<void()> body);

}  // namespace veld_report::host
