#include "tests/world/host.h"

#include <algorithm>

#include "tests/world/client.h"
#include "tests/world/queues.h"
#include "tests/world/services.h"

namespace veld_report::world {
namespace {

// A module that doesn't end is stopped by exceptions from every call.
constexpr std::size_t mostRecords = 20'000;

bool Silent(Op op) { return op == Op::lookUp || op == Op::createStorage || op == Op::flush; }
// A CancelTimer that throws hasn't waited, and the module could only crash.
bool MayThrow(Op op) { return op != Op::cancelTimer; }

}  // namespace

const std::u16string& Url(int url) {
  static const std::u16string urls[urlCount] = {u"http://a", u"http://b", u"http://c",
                                                u"https://a.longer.example/\u00e4?q=d"};
  return urls[url];
}

const std::string& QueueName(int name) {
  static const auto names = [] {
    std::array<std::string, nameCount> all;
    const char* digits[urlCount] = {"c3", "07", "f9", "5a"};
    for (int url = 0; url < urlCount; ++url) {
      for (int i = 0; i < 16; ++i) all[static_cast<std::size_t>(url)] += digits[url];
    }
    all[4] = "\xe9t\xe9";
    all[5] = "5a5a";
    all[6] = "zzz of an earlier run";
    all[7] = "c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3";
    return all;
  }();
  return names[static_cast<std::size_t>(name)];
}

int NameIndex(std::string_view name) {
  for (int i = 0; i < nameCount; ++i) {
    if (QueueName(i) == name) return i;
  }
  return -1;
}

decltype(Host::seen) Host::seen;

Host::Host(Lie told) : lie(told) {
  recording.reserve(256);
  services = std::make_unique<Services>(*this);
}
Host::~Host() = default;

void Host::Fail(const char* invariantName, const std::string& text) {
  const Outside outside;
  if (!Failed()) failure = {invariantName, text};
}

Record& Host::Append(const Record& record) {
  recording.push_back(record);
  return recording.back();
}

zel::ResultCode Host::Planned(Op op) {
  zel::ResultCode result = 0;
  // Without a timer nothing tells whether a submission whose serialisation failed came through.
  if (Silent(op) && (missing & noTimer)) return 0;
  for (Step& plan : plans) {
    if (plan.kind != Step::Kind::fault || plan.op != op || plan.b == 0) continue;
    if (--plan.b == 0 && result == 0) result = plan.c;
  }
  return result;
}

void Host::EnterIfDue(Op op) {
  for (std::size_t i = 0; i < plans.size(); ++i) {
    Step& plan = plans[i];
    if (plan.kind != Step::Kind::enter || plan.op != op || plan.b == 0 || --plan.b > 0) continue;
    const Step due = plan;
    return enter(due);
  }
}

StoredItem* Host::Next(StoredQueue& queue, std::uint64_t position) {
  auto item = std::upper_bound(queue.items.begin(), queue.items.end(), position,
                               [](std::uint64_t token, const StoredItem& one) { return token < one.token; });
  while (item != queue.items.end() && item->holder) ++item;
  return item == queue.items.end() ? nullptr : &*item;
}

std::deque<StoredItem>::iterator Host::Find(StoredQueue& queue, std::uint64_t token) {
  const auto item =
      std::lower_bound(queue.items.begin(), queue.items.end(), token,
                       [](const StoredItem& one, std::uint64_t wanted) { return one.token < wanted; });
  return item == queue.items.end() || item->token == token ? item : queue.items.end();
}

void Host::Put(StoredQueue& queue, std::string bytes) {
  queue.exists = true;
  queue.bytes += bytes.size();
  const std::uint64_t print = Print(bytes);
  queue.items.push_back({++lastToken, std::move(bytes), print, nullptr});
  ++pushed;
  if (lie == Lie::item && lastToken % 7 == 0) queue.items.pop_back();
}

Request* Host::FirstDue() const {
  Request* first = nullptr;
  for (Request* request : open) {
    if (request != completing && (!first || request->dueMs < first->dueMs)) first = request;
  }
  return first;
}

void Host::AdvanceRequests(std::uint64_t untilMs) {
  for (Request* due = FirstDue(); due && due->dueMs <= untilMs; due = FirstDue()) {
    nowMs = std::max(nowMs, due->dueMs);
    Complete(*due);
  }
  nowMs = std::max(nowMs, untilMs);
}

void Host::Complete(Request& request) {
  Request* const outer = std::exchange(completing, &request);
  Append({.op = Op::complete, .result = request.failure, .a = request.id, .b = request.status});
  request.Report();
  completing = outer;
}

void Host::CheckLedger() {
  std::uint64_t waiting = 0;
  for (const StoredQueue& queue : queues) waiting += queue.items.size();
  if (pushed == delivered + evicted + removed + waiting) return;
  Fail(invariant::ledger, "pushed " + std::to_string(pushed) + ", delivered " + std::to_string(delivered) +
                              ", evicted " + std::to_string(evicted) + ", removed " +
                              std::to_string(removed) + ", waiting " + std::to_string(waiting));
}

Call::Call(Host& host, Op op, int locks, std::uint64_t a, std::uint64_t b, std::uint64_t c, std::uint64_t d)
    : host_(host), index_(host.recording.size()) {
  const int held = Locks::Held() + (host.lie == Lie::lock && op == Op::read ? 1 : 0);
  if (held != locks) {
    host.Fail(invariant::locks, std::string(Name(op)) + " with " + std::to_string(held) + " locks held");
  }
  if (Locks::TakeTwoAtOnce()) host.Fail(invariant::locks, std::string("two at once, at ") + Name(op));
  if (index_ > mostRecords) {
    host.Fail(invariant::calls, "no end of calls");
    throw Scripted();
  }
  planned_ = host.Planned(op);
  if (planned_ == throws && !MayThrow(op)) planned_ = -1;
  Host::Seen& seen = Host::seen[static_cast<std::size_t>(op)];
  ++(planned_ == 0        ? seen.plain
     : planned_ < 0       ? seen.negative
     : planned_ == throws ? seen.thrown
                          : seen.positive);
  if (Silent(op)) {
    if (planned_ < 0 || planned_ == throws) host.Excuse();
  } else {
    host.Append(
        {.op = op, .faulted = planned_ != 0, .threw = planned_ == throws, .a = a, .b = b, .c = c, .d = d});
    host.EnterIfDue(op);
  }
  if (planned_ == throws) throw Scripted();
}

}  // namespace veld_report::world
