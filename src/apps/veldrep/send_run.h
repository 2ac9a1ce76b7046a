// SendRun: one run of veldrep send, from the first line of the input to the last word on stdout.
//
// Life of a record here: read -> checked (else refused, with its number and reason) -> held back until the
// pacer lets it go -> submitted -> in its queues -> delivered. What isn't delivered in time stays in the
// store.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "apps/veldrep/line_reader.h"
#include "apps/veldrep/pacer.h"
#include "apps/veldrep/progress.h"
#include "apps/veldrep/send_options.h"
#include "apps/veldrep/send_session.h"
#include "host/json/json_check.h"

namespace veld_report::app {

class SendRun {
 public:
  // Throws as SendSession; Failure if the store holds items for a url that isn't given, since the module
  // removes the queues of urls that it isn't told of.
  explicit SendRun(const SendOptions& options);

  // Returns the exit code. Throws Failure if the input can't be read; what was submitted is in the store
  // then.
  int Run();

 private:
  using Clock = std::chrono::steady_clock;

  void RefuseForeignQueues() const;
  void ReadInput();
  void TakeLine(std::string_view line);
  bool CheckLine(std::string_view line);
  void RefuseLine(const std::string& reason);
  // False: there was no room in time, or the user has had enough.
  bool WaitForRoom(std::int64_t bytes);
  void WaitForDelivery();
  // Looks at the ledgers, and after the progress and the triggers that hang on them.
  void Look();
  int Conclude();

  const SendOptions options_;
  const Clock::time_point started_;
  SendSession session_;
  const Ledgers before_;
  Pacer pacer_;
  Progress progress_;
  host::JsonCheck jsonCheck_;

  SendFigures figures_;
  host::QueueLedger sum_;  // of all queues, as Look saw it last
  Clock::time_point lastChange_, lastLook_, lastTrigger_;
  std::uint64_t lineNumber_ = 0;
  bool stopped_ = false;  // before the end of the input
};

}  // namespace veld_report::app
