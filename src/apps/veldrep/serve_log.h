// ServeLog: the log of veldrep serve, on stderr.
//
// It differs from Complain in that whoever logs never waits for the reader of stderr: lines go into a bounded
// queue, and what finds no room is counted. A sentence that comes again within ten seconds is counted too and
// written once more with its number, so that one broken client doesn't fill the log.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace veld_report::app {

// Life: writes on a thread of its own from the constructor to the destructor, which waits for up to a second
// until all is written. Threads: any for Write.
class ServeLog {
 public:
  explicit ServeLog(int descriptor);
  ~ServeLog();
  ServeLog(const ServeLog&) = delete;
  ServeLog& operator=(const ServeLog&) = delete;

  // "2026-03-31T09:41:07.123Z veldrep: " and the sentence, cut at 3,500 bytes.
  void Write(const std::string& sentence);

 private:
  using Clock = std::chrono::steady_clock;
  using Lock = std::unique_lock<std::mutex>;
  struct Repeated {
    Clock::time_point first;
    std::uint64_t more = 0;
  };

  void Run();
  void Enqueue(const std::string& sentence);
  // Writes the numbers of the sentences that are older than `before`.
  void EndRepeated(Clock::time_point before);
  // False if nobody reads until the end.
  bool Put(const std::string& line);
  bool IsOver();

  const int descriptor_;
  std::mutex mutex_;  // guards the members below; held for moments
  std::condition_variable changed_;
  std::deque<std::string> lines_;
  std::uint64_t dropped_ = 0;
  std::map<std::string, Repeated> recent_;
  bool ended_ = false;
  Clock::time_point patienceEnds_{};
  std::thread thread_;
};

}  // namespace veld_report::app
