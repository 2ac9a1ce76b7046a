#include "host/platform/service_thread.h"

#include <pthread.h>
#include <signal.h>

#include <utility>

namespace veld_report::host {
namespace {

// A new thread inherits its creator's mask, so no signal can slip in between.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    // A fault blocked on its own thread would end the process past the application's crash handler.
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
      sigdelset(&all, fault);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

}  // namespace

std::thread StartServiceThread(const char* name, std::function<void()> body) {
  const SignalsBlocked blocked;
  std::thread thread(std::move(body));
  pthread_setname_np(thread.native_handle(), name);
  return thread;
}

}  // namespace veld_report::host
