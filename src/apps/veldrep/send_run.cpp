#include "apps/veldrep/send_run.h"

#include <algorithm>
#include <cstdio>
#include <thread>
#include <utility>

#include "apps/veldrep/command.h"
#include "host/platform/console.h"
#include "host/services/queue_name.h"
#include "server/json_reader.h"

namespace veld_report::app {
namespace {

// The body of a single item of this size is within the default limit of a report server.
constexpr std::size_t lineLimitBytes = 8 << 20;
constexpr std::chrono::milliseconds lookEvery{50};
constexpr std::chrono::milliseconds pause{5};
// The module empties its memory in every cycle. Even if no server answers, a cycle is shorter than this, so a
// longer wait means that something is broken.
constexpr std::chrono::seconds memoryPatience{60};
// A cycle waits five seconds at most for one answer. If nothing has moved for longer, a cycle is triggered.
constexpr std::chrono::seconds maxCycleWait{6};
// A store that can't be written for a shorter time isn't worth a sentence. On a disk that is nearly full that
// comes and goes, so there is a minimum between two sentences too.
constexpr std::chrono::milliseconds troubleAfter{500};
constexpr std::chrono::seconds troubleEvery{10};

bool IsServed(const SendOptions& options, std::size_t row) {
  if (options.to.empty()) return true;
  return row < options.consumers.size() && options.consumers[row] == options.to;
}

std::map<std::string, std::int64_t> Targets(const SendOptions& options) {
  std::map<std::string, std::int64_t> targets;
  for (std::size_t i = 0; i < options.urls.size(); ++i) {
    if (IsServed(options, i)) ++targets[host::QueueNameOfUrl(options.urls[i])];
  }
  return targets;
}

QueueLedger Sum(const Ledgers& ledgers) {
  QueueLedger sum;
  for (const auto& [queue, ledger] : ledgers) sum += ledger;
  return sum;
}

void RefuseForeignQueues(const SendOptions& options, const Ledgers& ledgers) {
  for (const auto& [queue, ledger] : ledgers) {
    const bool known =
        std::any_of(options.urls.begin(), options.urls.end(),
                    [&name = queue](const std::string& url) { return host::QueueNameOfUrl(url) == name; });
    if (known || ledger.waiting.items == 0) continue;
    throw Failure(options.store,
                  std::to_string(ledger.waiting.items) +
                      " items wait for a url that isn't given and would be removed; give its --url "
                      "too, or remove them with veldrep queues --store " +
                      options.store + " clear " + queue);
  }
}

std::optional<LineReader> OpenInput(const SendOptions& options) {
  if (options.file.empty()) return std::nullopt;
  return std::optional<LineReader>(std::in_place, options.file, lineLimitBytes);
}

std::string_view WithoutBlanks(std::string_view line) {
  constexpr const char* blanks = " \t\r";
  const std::size_t begin = line.find_first_not_of(blanks);
  if (begin == std::string_view::npos) return {};
  return line.substr(begin, line.find_last_not_of(blanks) - begin + 1);
}

bool IsUtf16(std::string_view line) { return line.starts_with("\xff\xfe") || line.starts_with("\xfe\xff"); }

}  // namespace

// Signals are noted from here on, as an open store has to be closed.
SendRun::SendRun(const SendOptions& options)
    : options_(options),
      started_((host::NoteInterrupts(), Clock::now())),
      reader_(OpenInput(options)),
      session_(options, [&options](const Ledgers& ledgers) { RefuseForeignQueues(options, ledgers); }),
      targets_(Targets(options)),
      before_(session_.CurrentLedgers()),
      storedBefore_(session_.StoredItems()),
      room_(std::int64_t{options.queueLimitKb} << 10, targets_, before_),
      lastChange_(started_),
      lastLook_(started_),
      lastTrigger_(started_),
      troubleSince_(started_) {}

int SendRun::Run() {
  Look();
  if (figures_.waiting > 0) session_.TriggerCycle();
  if (reader_) ReadInput();
  figures_.readShare = 1;
  WaitForDelivery();
  StoreAll();
  whyRecordsStandBack_ = session_.WhyRecordsStandBack();
  session_.Close();
  Look();
  progress_.Clear();
  return Conclude();
}

void SendRun::ReadInput() {
  nextLine_ = options_.fromLine;
  try {
    ReadLines();
  } catch (const Failure& error) {
    progress_.Clear();
    Complain(error.what());
    whyStopped_ = "it can't be read";
  }
}

void SendRun::ReadLines() {
  while (whyStopped_.empty()) {
    if (host::IsInterrupted()) {
      whyStopped_ = "a signal ended the run";
      return;
    }
    std::string_view line;
    const LineReader::Result result = reader_->Next(lookEvery, &line);
    if (result == LineReader::Result::end) break;
    // Reading the clock is cheaper than a record, but not free.
    const bool mayBeTime = result == LineReader::Result::nothing || lineNumber_ % 64 == 0;
    if (mayBeTime && Clock::now() - lastLook_ >= lookEvery) Look();
    if (result == LineReader::Result::nothing) continue;
    lineNumber_ = reader_->LineNumber();
    if (lineNumber_ < options_.fromLine) continue;
    if (reader_->SizeBytes() != 0) {
      figures_.readShare =
          static_cast<double>(reader_->BytesRead()) / static_cast<double>(reader_->SizeBytes());
    }
    nextLine_ = lineNumber_ + 1;
    if (result == LineReader::Result::line) TakeLine(line);
    if (result == LineReader::Result::tooLong) RefuseLine("it is longer than 8 MiB");
  }
  // The line after the last is what a run names that was stopped there.
  if (lineNumber_ + 1 >= options_.fromLine || !whyStopped_.empty()) return;
  failed_ = true;
  Complain(reader_->Name() + ": ends with line " + std::to_string(lineNumber_) + ", so there is no line " +
           std::to_string(options_.fromLine) + " to begin with (--from-line)");
}

void SendRun::TakeLine(std::string_view line) {
  constexpr std::string_view byteOrderMark = "\xef\xbb\xbf";
  if (lineNumber_ == 1 && line.starts_with(byteOrderMark)) line.remove_prefix(byteOrderMark.size());
  line = WithoutBlanks(line);
  // A blank line is neither a record nor an error.
  if (line.empty() || !CheckLine(line)) return;
  const std::size_t added = options_.stamp ? host::RecordStamp::stampBytes : 0;
  const auto bytes = static_cast<std::int64_t>(line.size() + added);
  if (!room_.CanEverFit(bytes)) return RefuseLine("it is larger than --queue-limit allows");
  if (!WaitForRoom(bytes)) {
    return StopBefore(host::IsInterrupted() ? "a signal ended the run"
                      : !storeTrouble_.empty()
                          ? "the store couldn't be written in time: " + storeTrouble_
                          : "the queues had no room in time; raise --queue-limit or --wait");
  }
  const std::string refusal = session_.Submit(line);
  if (!refusal.empty()) return RefuseLine(refusal);
  room_.Submitted(bytes);
  lines_.Add(lineNumber_);
  ++figures_.submitted;
}

void SendRun::StopBefore(const std::string& why) {
  whyStopped_ = why;
  nextLine_ = lineNumber_;
}

bool SendRun::CheckLine(std::string_view line) {
  std::string why;
  if (line.front() == '{' && jsonCheck_.IsOneValue(line, &why)) return true;
  if (IsUtf16(line)) {
    RefuseLine("it is UTF-16; convert the file to UTF-8");
    return false;
  }
  try {
    server::CheckJsonObject(line, host::JsonCheck::depthLimit);
    RefuseLine(why);
  } catch (const server::JsonError& error) {
    RefuseLine(std::string("it ") + error.what());
  }
  return false;
}

void SendRun::RefuseLine(const std::string& reason) {
  progress_.Clear();
  Complain(reader_->Name() + " line " + std::to_string(lineNumber_) + ": refused: " + reason);
  ++figures_.refusedLines;
}

bool SendRun::WaitForRoom(std::int64_t bytes) {
  const auto hasRoom = [&] { return storeTrouble_.empty() && room_.Has(bytes) && session_.HasRoom(); };
  if (hasRoom()) return true;
  const Clock::time_point begun = Clock::now();
  session_.RunSoon();
  for (Look(); !hasRoom(); Look()) {
    const bool isMemoryFull = storeTrouble_.empty() && room_.Has(bytes);
    const auto patience = isMemoryFull ? memoryPatience : std::chrono::seconds(options_.waitSeconds);
    if (host::IsInterrupted() || Clock::now() - std::max(begun, lastChange_) >= patience) return false;
    std::this_thread::sleep_for(pause);
  }
  return true;
}

void SendRun::WaitForDelivery() {
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(options_.waitSeconds);
  session_.RunSoon();
  for (Look(); figures_.waiting > 0 && !host::IsInterrupted() && Clock::now() < deadline; Look()) {
    std::this_thread::sleep_for(pause);
  }
}

void SendRun::StoreAll() {
  Clock::time_point begun = Clock::now();
  for (Look(); room_.ItemsInMemory() > 0 || !session_.Commit(); Look()) {
    std::chrono::seconds patience = memoryPatience;
    // A commit fails before any record has to wait.
    if (!storeTrouble_.empty() || room_.ItemsInMemory() == 0) {
      patience = std::chrono::seconds(host::IsInterrupted() ? 0 : options_.waitSeconds);
      begun = std::min(begun, troubleSince_);
    }
    if (Clock::now() - std::max(begun, lastChange_) >= patience) return GiveUpStoring();
    std::this_thread::sleep_for(pause);
  }
}

void SendRun::GiveUpStoring() {
  gaveUp_ = true;
  session_.EndStoring();
  figures_.submitted = StoredRecords();
  if (figures_.submitted < lines_.Count()) {
    if (whyStopped_.empty())
      whyStopped_ =
          "the store couldn't be written in time" + (storeTrouble_.empty() ? "" : ": " + storeTrouble_);
  } else if (!session_.Commit()) {
    failed_ = true;
    progress_.Clear();
    Complain(options_.store + ": the store's file was removed, and what waits in it is lost with this run");
  }
}

std::uint64_t SendRun::StoredRecords() {
  std::uint64_t records = lines_.Count();
  const auto stored = session_.StoredItems();
  const auto in = [](const auto& items, const std::string& queue) {
    const auto found = items.find(queue);
    return found == items.end() ? std::uint64_t{0} : found->second;
  };
  for (const auto& [queue, times] : targets_) {
    const std::uint64_t items = in(stored, queue) - in(storedBefore_, queue);
    records = std::min(records, items / static_cast<std::uint64_t>(times));
  }
  return records;
}

void SendRun::ShowStoreTrouble() {
  const Clock::time_point now = Clock::now();
  storeTrouble_ = session_.WhyStoreWaits();
  if (storeTrouble_.empty()) {
    troubleSince_ = now;
    if (!std::exchange(troubleShown_, false) || gaveUp_) return;
    progress_.Clear();
    Complain(options_.store + ": the store can be written again; going on");
  } else if (!troubleShown_ && now - troubleSince_ >= troubleAfter &&
             (troubleLastShown_ == Clock::time_point() || now - troubleLastShown_ >= troubleEvery)) {
    troubleShown_ = true;
    troubleLastShown_ = now;
    progress_.Clear();
    Complain(options_.store + ": the store can't be written (" + storeTrouble_ +
             "); waiting until it can, and reading nothing more");
  }
}

void SendRun::Look() {
  const Ledgers ledgers = session_.CurrentLedgers();
  const Clock::time_point now = Clock::now();
  lastLook_ = now;
  room_.Refresh(ledgers);
  const QueueLedger sum = Sum(ledgers);
  if (!(sum.accepted == sum_.accepted && sum.delivered == sum_.delivered)) lastChange_ = now;
  sum_ = sum;
  figures_.delivered = sum.delivered.items - Sum(before_).delivered.items;
  figures_.waiting = sum.waiting.items + (gaveUp_ ? 0 : room_.ItemsInMemory());
  ShowStoreTrouble();
  if (lines_.IsLong()) lines_.Forget(StoredRecords());
  progress_.Show(figures_, [this] { return session_.RequestFailures().last; });
  const auto triggerAfter = maxCycleWait + std::chrono::seconds(options_.sendTimeoutSeconds);
  if (figures_.waiting > 0 && now - std::max(lastChange_, lastTrigger_) > triggerAfter) {
    // The chain of cycles may have ended with items waiting. If it hasn't, this changes nothing.
    session_.TriggerCycle();
    lastTrigger_ = now;
  }
  // The sender that takes records starts the one that delivers, but not while it waits for the store.
  if (!storeTrouble_.empty() && now - lastTrigger_ > std::chrono::seconds(options_.sendTimeoutSeconds)) {
    session_.BeginCycle();
    lastTrigger_ = now;
  }
}

void SendRun::ReportStop() {
  if (!reader_) return;
  if (whyStopped_.empty()) {
    if (host::IsInterrupted() && figures_.waiting > 0)
      Complain(reader_->Name() +
               ": a signal ended the run, but all lines are stored; to send what still "
               "waits, run it again without FILE");
    return;
  }
  const std::uint64_t line =
      figures_.submitted < lines_.Count() ? lines_.LineOf(figures_.submitted) : nextLine_;
  const std::string number = std::to_string(line);
  Complain(reader_->Name() + " line " + number + ": stopped before this line: " + whyStopped_ +
           "; to go on with it, run the command again with --from-line " + number);
}

int SendRun::Conclude() {
  const QueueLedger old = Sum(before_);
  const std::int64_t evicted = sum_.evicted.items - old.evicted.items;
  const std::int64_t rejected = sum_.rejected.items - old.rejected.items;
  if (evicted + rejected > 0) {
    Complain(options_.store + ": " + std::to_string(evicted) + " items were dropped to make room and " +
             std::to_string(rejected) + " couldn't be stored");
  }
  const bool vanished = !gaveUp_ && room_.ItemsInMemory() > 0;
  if (vanished) {
    Complain(options_.store + ": " + std::to_string(room_.ItemsInMemory()) +
             " items never reached their queue; run with --trace to see why");
  }
  ReportStop();
  const SendSession::Failures failures = session_.RequestFailures();
  if (figures_.waiting > 0 && !failures.last.empty()) {
    const std::string count = std::to_string(failures.answered);
    Complain((failures.answered == 0   ? "no server answered"
              : failures.answered == 1 ? count + " request was refused"
                                       : count + " requests were refused") +
             "; the last failure: " + failures.last);
  } else if (figures_.waiting > 0 && !whyRecordsStandBack_.empty()) {
    Complain(whyRecordsStandBack_);
  }
  const std::chrono::duration<double> seconds = Clock::now() - started_;
  std::printf("submitted %llu, delivered %lld, refused lines %llu, still waiting %lld, %.1f seconds\n",
              static_cast<unsigned long long>(figures_.submitted), static_cast<long long>(figures_.delivered),
              static_cast<unsigned long long>(figures_.refusedLines),
              static_cast<long long>(figures_.waiting), seconds.count());
  const bool lost = evicted + rejected > 0 || vanished;
  if (!whyStopped_.empty() || host::IsInterrupted() || lost || failed_) return exitFailed;
  return figures_.refusedLines > 0 ? exitRefusedLines : exitOk;
}

}  // namespace veld_report::app
