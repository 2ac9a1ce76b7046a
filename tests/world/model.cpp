#include "tests/world/model.h"

#include <algorithm>

namespace veld_report::world {
namespace {

std::string Text(const Record& record) {
  std::string text = Name(record.op);
  if (record.op == Op::enter) text = std::string("entry ") + Name(static_cast<Entry>(record.a));
  return text + " " + std::to_string(record.a) + " " + std::to_string(record.b) + " " +
         std::to_string(record.c) + (record.threw ? " threw" : " gave " + std::to_string(record.result));
}

}  // namespace

void Model::Fail(const char* name, const std::string& text) {
  std::string before;
  for (std::size_t i = place_ > 6 ? place_ - 6 : 0; i < std::min(place_ + 2, host_.recording.size()); ++i) {
    before += (i == place_ ? "\n  > " : "\n    ") + Text(host_.recording[i]);
  }
  host_.Fail(name, text + before);
  throw Mismatch{};
}

const Record* Model::Peek() {
  for (; place_ < host_.recording.size(); ++place_) {
    const Record& record = host_.recording[place_];
    if (record.op == Op::excuse) {
      ++excuses_;
    } else if (record.op == Op::readerEnd) {
      EndReader(record.a);
    } else {
      return &record;
    }
  }
  return nullptr;
}

void Model::Refute(const std::string& expected) {
  if (excuses_ == 0) Fail(invariant::calls, "the rules want " + expected);
  --excuses_;
  throw Excused{};
}

const Record& Model::Take(Op op, std::uint64_t a, std::uint64_t b, std::uint64_t c) {
  const Record* next = Peek();
  const auto fits = [](std::uint64_t wanted, std::uint64_t is) { return wanted == any || wanted == is; };
  if (!next || next->op != op || !fits(a, next->a) || !fits(b, next->b) || !fits(c, next->c)) {
    std::string wanted = Name(op);
    for (const std::uint64_t value : {a, b, c}) wanted += value == any ? " *" : " " + std::to_string(value);
    Refute(wanted);
  }
  ++place_;
  return *next;
}

const Record& Model::Call(Op op, std::uint64_t a, std::uint64_t b, std::uint64_t c) {
  const Record& record = Take(op, a, b, c);
  Inner();
  if (record.threw) throw Thrown{};
  return record;
}

void Model::Require(const Record& call) {
  if (call.result < 0) throw Thrown{{call.result}};
}

void Model::Inner() {
  while (const Record* next = Peek()) {
    if (next->op == Op::complete) {
      ++place_;
      Complete(*next);
      continue;
    }
    const auto entry = static_cast<Entry>(next->a);
    if (next->op != Op::enter || entry == Entry::drain) return;
    ++place_;
    Enter(entry);
  }
}

void Model::Enter(Entry entry) {
  zel::ResultCode expected = 0;
  bool threw = false;
  try {
    switch (entry) {
      case Entry::create:
        break;  // is judged at once, and its recording dropped
      case Entry::construct:
        return Construct();
      case Entry::submit:
        return Submit();
      case Entry::release:
        return Release();
      case Entry::drain:
        return FinishRelease();
      case Entry::settings:
        expected = SetSettings();
        break;
      case Entry::run:
        sender_.running = true;
        Cycle();
        break;
    }
  } catch (const Stopped&) {
    threw = true;
  }
  if (entry == Entry::run) sender_.running = false;
  Return(expected, threw);
}

void Model::Return(zel::ResultCode expected, bool threw) {
  const Record* end = Peek();
  if (!end || end->op != Op::returned) Fail(invariant::calls, "the rules want no further call");
  if ((end->threw != threw || (!threw && end->result != expected)) && excuses_ == 0) {
    Fail(invariant::calls,
         threw ? "the rules want an exception" : "the rules want " + std::to_string(expected));
  }
  ++place_;
}

void Model::Follow() {
  place_ = 0;
  excuses_ = 0;
  try {
    while (const Record* next = Peek()) {
      if (next->op == Op::enter && static_cast<Entry>(next->a) == Entry::drain) {
        ++place_;
        FinishRelease();
      } else if (next->op == Op::enter || next->op == Op::complete) {
        Inner();
      } else {
        Fail(invariant::calls, "a call that nothing asks for");
      }
    }
    Compare();
  } catch (const Mismatch&) {
    // The host has noted it.
  } catch (const Excused&) {
    // At the end of the last release, where nobody is left to see an exception.
  }
  host_.recording.clear();
  host_.enumerated.clear();
}

// The queues.

bool Model::Push(int name, const Pending& element) {
  const auto& producer = sender_.producers.at(name);
  const Record& push = Call(Op::push, producer.id, element.print, element.size);
  Queue& queue = QueueOf(name);
  std::uint64_t bytes = element.size;
  for (const Item& item : queue.items) bytes += item.size;
  const bool fits = bytes <= producer.limit;
  if (push.result >= 0 ? !fits : !push.faulted && (fits || push.result != zel::eOutOfSpace)) {
    Fail(invariant::queues,
         "a push into " + std::to_string(bytes) + " bytes of " + std::to_string(producer.limit));
  }
  if (push.result >= 0) {
    queue.exists = true;
    queue.items.push_back({push.d, element.print, element.size});
  }
  return push.result == zel::eOutOfSpace;
}

const Model::Item* Model::Read(std::uint64_t reader) {
  // The reader may end right after the call, so the effect comes before what else was recorded.
  const Record& read = Take(Op::read, reader);
  ReaderState& state = readers_.at(reader);
  Queue& queue = QueueOf(state.name);
  const auto item = std::ranges::find_if(
      queue.items, [&](const Item& one) { return one.token > state.position && one.reader == 0; });
  const bool found = item != queue.items.end();
  if (read.result == 0 && !read.threw) {
    if (!found || item->token != read.b) Fail(invariant::order, "another item than the oldest");
    item->reader = reader;
    state.position = item->token;
    Inner();
    return &*item;
  }
  if (found && !read.faulted) Fail(invariant::queues, "no item, but one waits");
  Inner();
  if (read.threw) throw Thrown{};
  return nullptr;
}

void Model::Settle(Op op, std::uint64_t reader, std::uint64_t token) {
  const Record& call = Take(op, reader, token);
  Queue& queue = QueueOf(readers_.at(reader).name);
  const auto item = std::ranges::find_if(
      queue.items, [&](const Item& one) { return one.token == token && one.reader == reader; });
  if (item != queue.items.end() && !call.faulted) {
    item->reader = 0;
    if (op == Op::ack) queue.items.erase(item);
  }
  Inner();
  if (call.threw) throw Thrown{};
}

void Model::SettleQuietly(Op op, std::uint64_t reader, std::uint64_t token) {
  try {
    Settle(op, reader, token);
  } catch (const Thrown&) {
    // The other tokens have to be settled all the same.
  }
}

std::vector<int> Model::NamesOf(const Record& list) const {
  const auto first = host_.enumerated.begin() + static_cast<std::ptrdiff_t>(list.a);
  return {first, first + static_cast<std::ptrdiff_t>(list.b)};
}

void Model::EndReader(std::uint64_t reader) {
  const auto state = readers_.find(reader);
  if (state == readers_.end()) return;
  for (Item& item : QueueOf(state->second.name).items) {
    if (item.reader == reader) item.reader = 0;
  }
  readers_.erase(state);
}

void Model::PutForeign(int name) {
  const StoredQueue& stored = host_.QueueOf(name);
  Queue& queue = QueueOf(name);
  queue.exists = stored.exists;
  if (stored.items.empty()) return;
  const StoredItem& last = stored.items.back();
  if (queue.items.empty() || queue.items.back().token != last.token) {
    queue.items.push_back({last.token, last.print, last.bytes.size()});
  }
}

void Model::Compare() {
  for (int name = 0; name < nameCount; ++name) {
    const StoredQueue& stored = host_.QueueOf(name);
    const Queue& queue = QueueOf(name);
    const auto same = [](const StoredItem& is, const Item& wanted) {
      return is.token == wanted.token && is.print == wanted.print &&
             (is.holder != nullptr) == (wanted.reader != 0);
    };
    if (stored.exists != queue.exists || !std::ranges::equal(stored.items, queue.items, same)) {
      Fail(invariant::queues, "queue " + std::to_string(name) + " holds " +
                                  std::to_string(stored.items.size()) + " items, the model's " +
                                  std::to_string(queue.items.size()) + ", or other ones");
    }
  }
}

}  // namespace veld_report::world
