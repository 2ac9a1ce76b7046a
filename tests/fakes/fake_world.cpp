#include "tests/fakes/fake_world.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace veld_report::fakes {

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
}

zel::ResultCode Script::Enter(std::string_view operation) {
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
