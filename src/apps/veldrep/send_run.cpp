#include "apps/veldrep/send_run.h"

#include <algorithm>
#include <cstdio>
#include <thread>

#include "apps/veldrep/command.h"
#include "host/platform/console.h"
#include "host/services/queue_name.h"

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

std::string_view WithoutBlanks(std::string_view line) {
  constexpr const char* blanks = " \t\r";
  const std::size_t begin = line.find_first_not_of(blanks);
  if (begin == std::string_view::npos) return {};
  return line.substr(begin, line.find_last_not_of(blanks) - begin + 1);
}

}  // namespace

SendRun::SendRun(const SendOptions& options)
    : options_(options),
      started_(Clock::now()),
      session_(options),
      before_(session_.CurrentLedgers()),
      room_(std::int64_t{options.queueLimitKb} << 10, Targets(options), before_),
      lastChange_(started_),
      lastLook_(started_),
      lastTrigger_(started_) {
  RefuseForeignQueues();
}

void SendRun::RefuseForeignQueues() const {
  for (const auto& [queue, ledger] : before_) {
    const bool known =
        std::any_of(options_.urls.begin(), options_.urls.end(),
                    [&name = queue](const std::string& url) { return host::QueueNameOfUrl(url) == name; });
    if (known || ledger.waiting.items == 0) continue;
    throw Failure(options_.store,
                  std::to_string(ledger.waiting.items) +
                      " items wait for a url that isn't given and would be removed; give its --url "
                      "too, or remove them with veldrep queues --store " +
                      options_.store + " clear " + queue);
  }
}

int SendRun::Run() {
  host::NoteInterrupts();
  Look();
  if (figures_.waiting > 0) session_.TriggerCycle();
  if (!options_.file.empty()) ReadInput();
  figures_.readShare = 1;
  WaitForDelivery();
  session_.Close();
  Look();
  progress_.Clear();
  return Conclude();
}

void SendRun::ReadInput() {
  LineReader reader(options_.file, lineLimitBytes);
  while (!stopped_ && !host::IsInterrupted()) {
    std::string_view line;
    const LineReader::Result result = reader.Next(lookEvery, &line);
    if (result == LineReader::Result::end) return;
    lineNumber_ = reader.LineNumber();
    if (reader.SizeBytes() != 0) {
      figures_.readShare = static_cast<double>(reader.BytesRead()) / static_cast<double>(reader.SizeBytes());
    }
    if (result == LineReader::Result::line) TakeLine(WithoutBlanks(line));
    if (result == LineReader::Result::tooLong) RefuseLine("it is longer than 8 MiB");
    // Reading the clock is cheaper than a record, but not free.
    const bool mayBeTime = result == LineReader::Result::nothing || lineNumber_ % 64 == 0;
    if (mayBeTime && Clock::now() - lastLook_ >= lookEvery) Look();
  }
}

void SendRun::TakeLine(std::string_view line) {
  // A blank line is neither a record nor an error.
  if (line.empty() || !CheckLine(line)) return;
  const std::size_t added = options_.stamp ? host::RecordStamp::stampBytes : 0;
  const auto bytes = static_cast<std::int64_t>(line.size() + added);
  if (!room_.CanEverFit(bytes)) return RefuseLine("it is larger than --queue-limit allows");
  if (!WaitForRoom(bytes)) {
    stopped_ = true;
    progress_.Clear();
    if (!host::IsInterrupted()) {
      Complain(options_.file + " line " + std::to_string(lineNumber_) +
               ": stopped before this line: the queues had no room in time; raise --queue-limit or --wait");
    }
    return;
  }
  const std::string refusal = session_.Submit(line);
  if (!refusal.empty()) return RefuseLine(refusal);
  room_.Submitted(bytes);
  ++figures_.submitted;
}

bool SendRun::CheckLine(std::string_view line) {
  std::string why;
  if (line.front() != '{') {
    RefuseLine("it isn't a JSON object");
  } else if (!jsonCheck_.IsOneValue(line, &why)) {
    RefuseLine("it isn't a JSON object: " + why);
  } else {
    return true;
  }
  return false;
}

void SendRun::RefuseLine(const std::string& reason) {
  progress_.Clear();
  Complain(options_.file + " line " + std::to_string(lineNumber_) + ": refused: " + reason);
  ++figures_.refusedLines;
}

bool SendRun::WaitForRoom(std::int64_t bytes) {
  const auto hasRoom = [&] { return room_.Has(bytes) && session_.HasRoom(); };
  if (hasRoom()) return true;
  const Clock::time_point begun = Clock::now();
  session_.RunSoon();
  for (Look(); !hasRoom(); Look()) {
    const auto patience = room_.Has(bytes) ? memoryPatience : std::chrono::seconds(options_.waitSeconds);
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

void SendRun::Look() {
  const Ledgers ledgers = session_.CurrentLedgers();
  const Clock::time_point now = Clock::now();
  lastLook_ = now;
  room_.Refresh(ledgers);
  const QueueLedger sum = Sum(ledgers);
  if (!(sum.accepted == sum_.accepted && sum.delivered == sum_.delivered)) lastChange_ = now;
  sum_ = sum;
  figures_.delivered = sum.delivered.items - Sum(before_).delivered.items;
  figures_.waiting = sum.waiting.items + room_.ItemsInMemory();
  progress_.Show(figures_, [this] { return session_.RequestFailures().last; });
  const auto triggerAfter = maxCycleWait + std::chrono::seconds(options_.sendTimeoutSeconds);
  if (figures_.waiting > 0 && now - std::max(lastChange_, lastTrigger_) > triggerAfter) {
    // The chain of cycles may have ended with items waiting. If it hasn't, this changes nothing.
    session_.TriggerCycle();
    lastTrigger_ = now;
  }
}

int SendRun::Conclude() {
  const QueueLedger old = Sum(before_);
  const std::int64_t evicted = sum_.evicted.items - old.evicted.items;
  const std::int64_t rejected = sum_.rejected.items - old.rejected.items;
  if (evicted + rejected > 0) {
    Complain(options_.store + ": " + std::to_string(evicted) + " items were dropped to make room and " +
             std::to_string(rejected) + " couldn't be stored");
  }
  if (room_.ItemsInMemory() > 0) {
    Complain(options_.store + ": " + std::to_string(room_.ItemsInMemory()) +
             " items never reached their queue; run with --trace to see why");
  }
  const SendSession::Failures failures = session_.RequestFailures();
  if (figures_.waiting > 0 && !failures.last.empty()) {
    const std::string count = std::to_string(failures.answered);
    Complain((failures.answered == 0   ? "no server answered"
              : failures.answered == 1 ? count + " request was refused"
                                       : count + " requests were refused") +
             "; the last failure: " + failures.last);
  }
  const std::chrono::duration<double> seconds = Clock::now() - started_;
  std::printf("submitted %llu, delivered %lld, refused lines %llu, still waiting %lld, %.1f seconds\n",
              static_cast<unsigned long long>(figures_.submitted), static_cast<long long>(figures_.delivered),
              static_cast<unsigned long long>(figures_.refusedLines),
              static_cast<long long>(figures_.waiting), seconds.count());
  const bool lost = evicted + rejected > 0 || room_.ItemsInMemory() > 0;
  if (stopped_ || host::IsInterrupted() || lost) return exitFailed;
  return figures_.refusedLines > 0 ? exitRefusedLines : exitOk;
}

}  // namespace veld_report::app
