// SendRun: one run of veldrep send, from the first line of the input to the summary on stdout.
//
// Life of a record: read -> checked (or refused, with its line number and the reason) -> held until there is
// room -> submitted -> in its queues -> delivered. What isn't delivered in time stays in the store.
//
// If it ends before the end of the input, it names the first line that isn't stored: those before it are (or
// were refused), and none from it on is. So the next run goes on with that line.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "apps/veldrep/line_reader.h"
#include "apps/veldrep/progress.h"
#include "apps/veldrep/queue_room.h"
#include "apps/veldrep/send_options.h"
#include "apps/veldrep/send_session.h"
#include "apps/veldrep/submitted_lines.h"
#include "host/json/json_check.h"

namespace veld_report::app {

class SendRun {
 public:
  // Throws like SendSession and LineReader. Throws Failure if the store holds items for a url that isn't
  // given: the module removes the queues of urls that it doesn't know. Then the store is as it was.
  explicit SendRun(const SendOptions& options);

  // Returns the exit code.
  int Run();

 private:
  using Clock = std::chrono::steady_clock;

  void ReadInput();
  void ReadLines();
  void TakeLine(std::string_view line);
  // Before the line that was read last.
  void StopBefore(const std::string& why);
  bool CheckLine(std::string_view line);
  void RefuseLine(const std::string& reason);
  // False if there was no room in time or the user interrupted.
  bool WaitForRoom(std::int64_t bytes);
  void WaitForDelivery();
  // Waits until all records are in the store's file, or gives up those that aren't.
  void StoreAll();
  void GiveUpStoring();
  // Of each record in each of its queues: how many of the first records are in the store's file.
  std::uint64_t StoredRecords();
  void ShowStoreTrouble();
  // Reads the ledgers, shows the progress and triggers a cycle if nothing has moved for a while.
  void Look();
  // Names the line to go on with, if there is one.
  void ReportStop();
  int Conclude();

  const SendOptions options_;
  const Clock::time_point started_;
  std::optional<LineReader> reader_;  // none if there is no input
  SendSession session_;
  // The queues of each record, with how many times it goes there. Made of urls that the session has checked.
  const std::map<std::string, std::int64_t> targets_;
  const Ledgers before_;
  const std::map<std::string, std::uint64_t> storedBefore_;
  QueueRoom room_;
  Progress progress_;
  host::JsonCheck jsonCheck_;

  SendFigures figures_;
  QueueLedger sum_;  // of all queues, from the last Look
  Clock::time_point lastChange_, lastLook_, lastTrigger_;
  std::uint64_t lineNumber_ = 0;  // that was read last
  SubmittedLines lines_;

  std::string storeTrouble_;  // why records wait for the store; empty if none does
  Clock::time_point troubleSince_;
  Clock::time_point troubleLastShown_{};
  bool troubleShown_ = false;

  // Of an end before that of the input.
  std::string whyStopped_;      // empty if it wasn't stopped
  std::uint64_t nextLine_ = 0;  // the first that wasn't taken
  bool gaveUp_ = false;         // storing
  bool failed_ = false;
  std::string whyRecordsStandBack_;
};

}  // namespace veld_report::app
