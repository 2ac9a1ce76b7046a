// The signals that end serve and drain, or have them open their files anew. For the main thread.
#pragma once

#include <signal.h>

namespace veld_report::app {

// Made before any other thread starts, so that all inherit the mask and only Wait gets these. A broken
// connection or pipe is an error of its write from then on.
class EndingSignals {
 public:
  EndingSignals() {
    sigemptyset(&signals_);
    for (const int each : {SIGHUP, SIGTERM, SIGINT}) sigaddset(&signals_, each);
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    signal(SIGPIPE, SIG_IGN);
  }

  // Calls `reopen` at each SIGHUP. Returns at SIGTERM or SIGINT.
  template <class Reopen>
  void Wait(Reopen reopen) const {
    int received = SIGHUP;
    while (sigwait(&signals_, &received) == 0 && received == SIGHUP) reopen();
  }

 private:
  sigset_t signals_{};
};

}  // namespace veld_report::app
