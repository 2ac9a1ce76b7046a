#include "host/platform/console.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>

namespace veld_report::host {
namespace {

// Written by a signal handler on any thread; publishes nothing but itself.
constinit std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free);

// A file that is opened in place of a closed stdout would get what is printed. What takes its place here
// can't be written, nor that of stdin read, so whoever needs them fails.
void KeepStandardDescriptors() {
  for (;;) {
    const bool stdinIsOpen = fcntl(STDIN_FILENO, F_GETFD) != -1;
    const int handle = open("/dev/null", stdinIsOpen ? O_RDONLY : O_WRONLY);
    if (handle <= STDERR_FILENO && handle >= 0) continue;
    if (handle >= 0) close(handle);
    return;
  }
}

}  // namespace

std::vector<std::string> BeginConsole(int count, const char* const* arguments) {
  KeepStandardDescriptors();
  return {arguments + (count > 0 ? 1 : 0), arguments + count};
}

std::optional<unsigned> ErrorColumns() noexcept {
  if (isatty(STDERR_FILENO) != 1) return std::nullopt;
  winsize size{};
  const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
  return known ? size.ws_col : 80u;
}

void NoteInterrupts() noexcept {
  struct sigaction action {};
  action.sa_handler = [](int) { interrupted.store(true, std::memory_order_relaxed); };
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int each : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction before {};
    if (sigaction(each, nullptr, &before) == 0 && before.sa_handler == SIG_IGN) continue;
    sigaction(each, &action, nullptr);
  }
  signal(SIGPIPE, SIG_IGN);
}

bool IsInterrupted() noexcept { return interrupted.load(std::memory_order_relaxed); }

}  // namespace veld_report::host
