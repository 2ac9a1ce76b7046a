// The CPU time of a thread, which other load on the machine hardly affects.
#pragma once

#include <ctime>

namespace veld_report::bench {

inline double CpuSecondsOf(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// Of the calling thread.
inline double ThreadCpuSeconds() { return CpuSecondsOf(CLOCK_THREAD_CPUTIME_ID); }
// Of all threads of the process.
inline double ProcessCpuSeconds() { return CpuSecondsOf(CLOCK_PROCESS_CPUTIME_ID); }

}  // namespace veld_report::bench
