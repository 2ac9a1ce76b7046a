// StoreTime: the time of a store, by which its items get their age. Setting the machine's clock doesn't
// change it.
//
// It begins with the calendar. While the machine is up it goes on with the machine's uptime, whatever the
// calendar shows and however often the store is closed. A note next to the store (DOMAIN.queue.time) carries
// it over to the next process. Only how long the machine was down must come from the calendar. That counts as
// nothing if it is negative, and at most as half of the maximum age. So a clock that is wrong once expires no
// item of the younger half, and one that was wrong in the future keeps no item for ever.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>

#include "host/platform/machine_clock.h"

namespace veld_report::host {

// Threads: NowMs on any; the others on one at a time.
class StoreTime {
 public:
  // `store`: its file. `maxAge` 0: no limit, and any time counts in full. `youngestMs`: the time of the
  // youngest item in the store, asked for if there is no note. Reads the note.
  StoreTime(const std::filesystem::path& store, std::chrono::milliseconds maxAge,
            const std::function<std::optional<std::int64_t>()>& youngestMs,
            std::shared_ptr<const MachineClock> machine);

  // Milliseconds, since 1970 if every clock was always right. Never less than in an earlier process that
  // wrote its note.
  std::int64_t NowMs() const { return base_ + machine_->UptimeMs(); }
  // False if there was no note: the times of the items may then be those of any calendar, even ahead.
  bool IsContinued() const { return continued_; }

  // Writes the first note, once the times of the items are in order.
  void BeginNotes() noexcept;
  // Writes the note. If that isn't possible, the next process may count a little more or less. Does nothing
  // before BeginNotes.
  void WriteNote() noexcept;
  // The same, but at most once a minute.
  void WriteNoteIfDue() noexcept;

 private:
  const std::filesystem::path file_;
  const std::shared_ptr<const MachineClock> machine_;
  std::int64_t base_ = 0;  // the time at the start of the machine
  bool continued_ = false;
  bool noting_ = false;
  std::int64_t notedMs_ = 0;  // when the note was written, as uptime
};

}  // namespace veld_report::host
