#include "host/base/service_thread.h"

#include <pthread.h>
#include <signal.h>

#include <utility>

namespace veld_report::host {
namespace {

// A new thread inherits its creator's mask, so no signal can slip in between.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;
  ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

}  // namespace

std::thread StartServiceThread(const char* name, std::function<void()> body) {
  const AllSignalsBlocked blocked;
  std::thread thread(std::move(body));
  pthread_setname_np(thread.native_handle(), name);
  return thread;
}

}  // namespace veld_report::host
