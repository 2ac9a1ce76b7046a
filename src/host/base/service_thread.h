// Starts the thread of a service inside a process that isn't ours.
#pragma once

#include <functional>
#include <thread>

namespace veld_report::host {

// A thread with all signals blocked, so that the application's handlers run on its own threads and a broken
// connection raises no SIGPIPE here. `name`: at most 15 characters, for debuggers. Throws std::system_error.
std::thread StartServiceThread(const char* name, std::function<void()> body);

}  // namespace veld_report::host
