#include "tests/world/host.h"

#include <algorithm>
#include <cstdio>

#include "tests/world/client.h"
#include "tests/world/queues.h"
#include "tests/world/services.h"

namespace veld_report::world {
namespace {

// A module that doesn't end is stopped by exceptions from every call.
constexpr std::size_t mostRecords = 20'000;

bool OfTrace(Op op) { return op == Op::acquireBuffer || op == Op::commitBuffer; }
bool Silent(Op op) { return op == Op::lookUp || op == Op::createStorage || op == Op::flush; }
bool Detail(Op op) {
  return Silent(op) || op == Op::serialize || (op >= Op::createCalculator && op <= Op::finish);
}

bool Meant(const Step& plan, Op op) {
  return plan.kind == Step::Kind::fault && plan.b > 0 && (plan.op == op || plan.op == anyOp);
}

std::string HexText(std::uint64_t number) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(number));
  return text;
}

std::string ResultText(zel::ResultCode result) {
  if (result == throws) return "an exception";
  return result < 0 ? HexText(static_cast<std::uint32_t>(result)) : std::to_string(result);
}

// What a reader of a course wants to know of a call; names of queues are the letters of their urls.
std::string CallText(Op op, std::uint64_t a, std::uint64_t b, std::uint64_t c) {
  const std::string queue = {' ', static_cast<char>('a' + a)};
  const auto number = [](std::uint64_t value) { return " " + std::to_string(value); };
  const auto arguments = [&]() -> std::string {
    switch (op) {
      case Op::createProducer:
      case Op::makeRequest:
        return queue + number(b);
      case Op::createAckConsumer:
      case Op::removeQueue:
        return queue;
      case Op::push:
        return number(a) + number(c);
      case Op::read:
      case Op::cancel:
      case Op::armTimer:
        return number(a);
      case Op::ack:
      case Op::returnItem:
      case Op::wait:
        return number(a) + number(b);
      case Op::onRequestFinished:
        return " " + ResultText(static_cast<zel::ResultCode>(a));
      case Op::lookUp:
        return " " + HexText(a);
      default:
        return "";
    }
  };
  return Name(op) + arguments();
}

}  // namespace

const std::u16string& Url(int url) {
  static const std::u16string urls[urlCount] = {u"http://a", u"http://b", u"http://c",
                                                u"https://a.longer.example/\u00e4?q=d"};
  return urls[url];
}

std::array<std::uint8_t, 16> Digest(int url) {
  std::array<std::uint8_t, 16> digest{0xc3, 0x07, 0xf9, 0x5a};
  std::swap(digest[0], digest[static_cast<std::size_t>(url)]);
  for (std::size_t i = 1; i < digest.size(); ++i) digest[i] = static_cast<std::uint8_t>(digest[i - 1] + 0x37);
  return digest;
}

const std::string& QueueName(int name) {
  static const auto names = [] {
    std::array<std::string, nameCount> all;
    for (int url = 0; url < urlCount; ++url) {
      for (const std::uint8_t byte : Digest(url)) {
        for (const int shift : {4, 0})
          all[static_cast<std::size_t>(url)] += "0123456789abcdef"[byte >> shift & 15];
      }
    }
    all[4] = "\xe9t\xe9";
    all[5] = all[3].substr(0, 4);
    all[6] = "zzz of an earlier run";
    all[7] = all[0] + "c3";
    return all;
  }();
  return names[static_cast<std::size_t>(name)];
}

int NameIndex(std::string_view name) {
  int found = nameCount - 1;
  while (found >= 0 && QueueName(found) != name) --found;
  return found;
}

decltype(Host::seen) Host::seen;

Host::Host() {
  recording.reserve(256);
  AddServices(*this);
}

void Host::Fail(const char* invariantName, const std::string& text) {
  const Outside outside;
  if (!Failed()) failure = {invariantName, text};
}

void Host::ShowRecord(const Record& record) {
  const auto entry = static_cast<Entry>(record.a);
  if (record.op == Op::enter && entry != Entry::drain) {
    Show(Name(entry), true);
    ++depth;
  } else if (record.op == Op::complete) {
    Show("answer " + (record.result != 0 ? ResultText(record.result) : std::to_string(record.b)), false);
  } else if (record.op == Op::returned) {
    --depth;
    const zel::ResultCode result = record.threw ? throws : record.result;
    if (!brief || result != 0) Show(std::string(Name(entry)) + " returns " + ResultText(result), result == 0);
  }
}

Record& Host::Append(const Record& record) {
  if (course) ShowRecord(record);
  recording.push_back(record);
  return recording.back();
}

zel::ResultCode Host::Planned(Op op) {
  zel::ResultCode result = 0;
  // Without a timer nothing shows whether a submission whose serialisation failed came through.
  if (Silent(op) && (missing & noTimer)) return 0;
  for (Step& plan : plans) {
    if (!Meant(plan, op) || --plan.b > 0) continue;
    if (plan.a != 0) plan.b = 1;
    if (result == 0) result = plan.c;
  }
  troubles += result != 0;
  return result;
}

bool Host::WillFail(Op op) const {
  return std::ranges::any_of(plans, [&](const Step& plan) { return plan.b == 1 && Meant(plan, op); });
}

void Host::EnterIfDue(Op op) {
  for (Step& plan : plans) {
    if (plan.kind != Step::Kind::enter || plan.op != op || plan.b == 0 || --plan.b > 0) continue;
    const Step due = plan;
    return enter(due);
  }
}

StoredItem* Host::Next(StoredQueue& queue, std::uint64_t position) {
  auto item = std::ranges::upper_bound(queue.items, position, {}, &StoredItem::token);
  while (item != queue.items.end() && item->holder) ++item;
  return item == queue.items.end() ? nullptr : &*item;
}

std::deque<StoredItem>::iterator Host::Find(StoredQueue& queue, std::uint64_t token) {
  const auto item = std::ranges::lower_bound(queue.items, token, {}, &StoredItem::token);
  return item == queue.items.end() || item->token == token ? item : queue.items.end();
}

void Host::Put(StoredQueue& queue, std::string bytes) {
  queue.exists = true;
  queue.bytes += bytes.size();
  const std::uint64_t print = Print(bytes);
  queue.items.push_back({++lastToken, std::move(bytes), print, nullptr});
  ++pushed;
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

Call::Call(Host& host, Op op, int locks, std::uint64_t a, std::uint64_t b, std::uint64_t c)
    : host_(host), index_(host.recording.size()) {
  const int held = Locks::Held();
  if (ModuleIsLinked() && held != locks) {
    host.Fail(invariant::locks, std::string(Name(op)) + " with " + std::to_string(held) + " locks held");
  }
  if (Locks::TakeTwoAtOnce()) host.Fail(invariant::locks, std::string("two at once, at ") + Name(op));
  if (index_ > mostRecords) {
    host.Fail(invariant::calls, "no end of calls");
    throw Scripted();
  }
  planned_ = host.Planned(op);
  // A CancelTimer throws once it has waited: otherwise the module could only crash.
  const bool throwsNow = planned_ == throws && op != Op::cancelTimer;
  const bool detail = OfTrace(op) || (host.brief && Detail(op));
  if (host.course && (!detail || planned_ != 0))
    host.Show(CallText(op, a, b, c) + (planned_ == 0 ? "" : " gives " + ResultText(planned_)), planned_ == 0);
  Host::Seen& seen = Host::seen[static_cast<std::size_t>(op)];
  ++(planned_ == 0        ? seen.plain
     : planned_ < 0       ? seen.negative
     : planned_ == throws ? seen.thrown
                          : seen.positive);
  if (OfTrace(op)) {
    host.lineLost |= planned_ != 0;
    host.unjudged |= throwsNow;
  } else if (Silent(op)) {
    host.withoutCallback |= planned_ != 0;
    if (planned_ < 0 || planned_ == throws) host.Excuse();
  } else {
    host.Append({.op = op, .faulted = planned_ != 0, .threw = throwsNow, .a = a, .b = b, .c = c});
    host.EnterIfDue(op);
  }
  if (throwsNow) throw Scripted();
}

}  // namespace veld_report::world
