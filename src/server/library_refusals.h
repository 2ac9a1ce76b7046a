// LibraryRefusals: what the HTTP library refuses by itself, and which connection that was.
//
// The library answers a request that it can't read without asking. It writes a line to its log then, on the
// thread of the connection, and closes the connection soon after; only the closing says which one it is. So a
// refusal waits here until the next connection of its thread closes without an explanation. If two of them
// close in the same moment, their peers may be exchanged; each is told once in any case.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace veld_report::server {

struct LibraryRefusal {
  unsigned status = 0;  // 0: no answer
  bool isTls = false;   // no request was read, since there is no agreement on TLS
  std::string sentence{};
};

// Threads: any.
class LibraryRefusals {
 public:
  // Of what doesn't begin like a request; the library has closed it without an answer.
  static const LibraryRefusal noRequest;

  // A line of the library's log; what isn't about a refusal is ignored.
  void Note(const char* line);
  // The oldest of this thread, with this status if one is given. Nothing if there is none.
  std::optional<LibraryRefusal> Take(unsigned status = 0);
  // The oldest of any thread, for the end.
  std::optional<LibraryRefusal> TakeAny();

 private:
  std::mutex mutex_;  // guards the map
  std::map<std::thread::id, std::deque<LibraryRefusal>> waiting_;
  // Of all that wait; nearly always 0. Changed under the lock. A thread sees its own additions, and what is
  // subtracted was added before, so it never reads 0 while one of its own waits.
  std::atomic<std::size_t> count_{0};
};

}  // namespace veld_report::server
