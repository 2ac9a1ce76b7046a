#include "tests/fakes/fake_world.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace veld_report::fakes {
namespace {

// The operation that this thread has entered last answers 1 when it is done.
thread_local bool answersPositive = false;

}  // namespace

void EventLog::Add(std::string event) {
  std::lock_guard guard(lock_);
  events_.push_back(std::move(event));
}

std::vector<std::string> EventLog::Take() {
  std::lock_guard guard(lock_);
  return std::exchange(events_, {});
}

std::vector<std::string> EventLog::TakeOnly(const std::vector<std::string>& prefixes) {
  std::vector<std::string> events = Take();
  std::erase_if(events, [&](const std::string& event) {
    return std::none_of(prefixes.begin(), prefixes.end(),
                        [&](const std::string& prefix) { return event.starts_with(prefix); });
  });
  return events;
}

void Script::Do(std::string_view operation, Action action, int nth, int times) {
  std::lock_guard guard(lock_);
  idle_ = false;
  entries_[std::string(operation)].push_back({std::move(action), nth - 1, times});
}

void Script::Fail(std::string_view operation, zel::ResultCode code, int nth, int times) {
  Do(
      operation, [code] { return code; }, nth, times);
}

void Script::Throw(std::string_view operation, int nth) {
  Do(
      operation, []() -> zel::ResultCode { throw std::runtime_error("scripted"); }, nth);
}

void Script::Clear() {
  std::lock_guard guard(lock_);
  entries_.clear();
  failAt_ = 0;
  idle_ = true;
}

void Script::FailCall(int nth, Failure failure, bool onwards) {
  std::lock_guard guard(lock_);
  failure_ = failure;
  failAt_ = nth;
  onwards_ = onwards;
  failed_.clear();
  idle_ = false;
}

void Script::StopFailing() {
  std::lock_guard guard(lock_);
  failAt_ = 0;
}

std::string Script::FailedOperation() {
  std::lock_guard guard(lock_);
  return failed_;
}

bool Script::FailsNow(std::string_view operation) {
  std::lock_guard guard(lock_);
  if (failAt_ == 0 || HostsOwn::depth > 0 || (failAt_ > 1 && --failAt_ > 0)) return false;
  if (failed_.empty()) failed_ = operation;
  if (!onwards_) failAt_ = 0;
  return true;
}

zel::ResultCode Script::Done() {
  return HostsOwn::depth == 0 && std::exchange(answersPositive, false) ? 1 : zel::sOk;
}

zel::ResultCode Script::Enter(std::string_view operation) {
  if (HostsOwn::depth == 0) answersPositive = false;
  if (idle_) return zel::sOk;
  const zel::ResultCode code = RunActions(operation);
  if (code != zel::sOk || !FailsNow(operation)) return code;
  if (failure_ == Failure::throwing) throw std::runtime_error("scripted");
  if (failure_ == Failure::negative) return negativeCode;
  if (operation == "Read" || operation == "AcquireBuffer" || operation == "IsBackgroundDisabled") return 1;
  answersPositive = true;
  return zel::sOk;
}

zel::ResultCode Script::RunActions(std::string_view operation) {
  std::vector<Action> due;
  {
    std::lock_guard guard(lock_);
    const auto found = entries_.find(operation);
    if (found == entries_.end()) return zel::sOk;
    for (Entry& entry : found->second) {
      if (entry.skip > 0) {
        --entry.skip;
      } else if (entry.left != 0) {
        if (entry.left > 0) --entry.left;
        due.push_back(entry.action);
      }
    }
  }
  zel::ResultCode code = zel::sOk;
  for (const Action& action : due) {
    if (const zel::ResultCode result = action()) code = result;
  }
  return code;
}

zel::ResultCode FakeWorld::Answer(std::string_view operation, std::string_view detail) {
  const zel::ResultCode code = Enter(operation, detail);
  return code != zel::sOk ? code : Done();
}

void Ledger::Adopt(std::unique_ptr<LedgerEntry> entry) {
  std::lock_guard guard(lock_);
  entries_.push_back(std::move(entry));
}

std::vector<std::string> Ledger::Alive() const {
  std::lock_guard guard(lock_);
  std::vector<std::string> alive;
  for (const auto& entry : entries_) {
    if (entry->References() == 0) continue;
    alive.push_back(entry->Name() + " x" + std::to_string(entry->References()));
  }
  return alive;
}

zel::ResultCode FakeWorld::Enter(std::string_view operation, std::string_view detail) {
  std::string event(operation);
  if (!detail.empty()) event.append(" ").append(detail);
  log.Add(std::move(event));
  return script.Enter(operation);
}

void Fault(const std::string& what) { ADD_FAILURE() << what; }

}  // namespace veld_report::fakes
