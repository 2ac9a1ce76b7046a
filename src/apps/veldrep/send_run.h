// SendRun: one run of veldrep send, from the first line of the input to the summary on stdout.
//
// Life of a record: read -> checked (or refused, with its line number and the reason) -> held until there is
// room -> submitted -> in its queues -> delivered. What isn't delivered in time stays in the store.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "apps/veldrep/line_reader.h"
#include "apps/veldrep/progress.h"
#include "apps/veldrep/queue_room.h"
#include "apps/veldrep/send_options.h"
#include "apps/veldrep/send_session.h"
#include "host/json/json_check.h"

namespace veld_report::app {

class SendRun {
 public:
  // Throws like SendSession. Throws Failure if the store holds items for a url that isn't given: the module
  // removes the queues of urls that it doesn't know.
  explicit SendRun(const SendOptions& options);

  // Returns the exit code. Throws Failure if the input can't be read; then what was submitted is in the
  // store.
  int Run();

 private:
  using Clock = std::chrono::steady_clock;

  void RefuseForeignQueues() const;
  void ReadInput();
  void TakeLine(std::string_view line);
  bool CheckLine(std::string_view line);
  void RefuseLine(const std::string& reason);
  // False if there was no room in time or the user interrupted.
  bool WaitForRoom(std::int64_t bytes);
  void WaitForDelivery();
  // Reads the ledgers, shows the progress and triggers a cycle if nothing has moved for a while.
  void Look();
  int Conclude();

  const SendOptions options_;
  const Clock::time_point started_;
  SendSession session_;
  const Ledgers before_;
  QueueRoom room_;
  Progress progress_;
  host::JsonCheck jsonCheck_;

  SendFigures figures_;
  QueueLedger sum_;  // of all queues, from the last Look
  Clock::time_point lastChange_, lastLook_, lastTrigger_;
  std::uint64_t lineNumber_ = 0;
  bool stopped_ = false;  // before the end of the input
};

}  // namespace veld_report::app
