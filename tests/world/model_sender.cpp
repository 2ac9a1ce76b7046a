// The rules of the sender: its life, submissions, settings, and the cycle up to the walk.
#include <algorithm>

#include "tests/world/model.h"

namespace veld_report::world {
namespace {

constexpr std::uint32_t submissionDelayMs = 1000;

// Bytes as signed characters.
bool Less(int left, int right) {
  return std::ranges::lexicographical_compare(QueueName(left), QueueName(right), [](char one, char other) {
    return static_cast<signed char>(one) < static_cast<signed char>(other);
  });
}

}  // namespace

void Model::Construct() {
  zel::ResultCode failure = 0;
  bool failed = false;
  sender_ = SenderState();
  const auto has = [&](int service) { return (host_.missing & service) == 0; };
  try {
    if (!has(noQueues) || !has(noHttp)) {
      settings_.pop_front();
      throw Thrown{{zel::eNotFound}};
    }
    Require(Call(Op::createClient));
    sender_.mode = has(noMode);
    sender_.signature = has(noSignature);
    sender_.notification = has(noNotification);
    sender_.constructed = true;
    const zel::ResultCode result = SetSettings();
    if (result < 0) throw Thrown{{result}};
    sender_.bound = has(noTimer);
  } catch (const Stopped& stopped) {
    failed = true;
    failure = stopped.code;
  }
  settings_.clear();
  const Record* end = Peek();
  // A look-up that throws shows nowhere but in the end.
  if (excuses_ > 0 && end && end->result < 0) failed = true;
  if (failed) sender_.constructed = sender_.bound = false;
  // What a host's own exception becomes isn't fixed here, but it is a failure.
  if (failed && failure == 0 && end && end->result < 0) failure = end->result;
  Return(failure, false);
}

void Model::Submit() {
  const Pending element = submissions_.front();
  submissions_.pop_front();
  if (!sender_.constructed) return Return(zel::eNotInitialized, false);
  try {
    Require(Call(Op::serialize, 0));
    const Record* next = Peek();
    if (sender_.bound && (!next || next->op != Op::armTimer)) Refute("ArmTimer 1000");
    sender_.pending.push_back(element);
    sender_.armed = true;
    if (sender_.bound) Call(Op::armTimer, submissionDelayMs);
  } catch (const Stopped&) {
    // The caller never learns of it.
  }
  Return(0, false);
}

zel::ResultCode Model::SetSettings() {
  const Settings settings = settings_.front();
  settings_.pop_front();
  if (!sender_.constructed) return zel::eNotInitialized;
  try {
    return ReplaceSettings(settings);
  } catch (const Thrown&) {
    return zel::eUnspecifiedError;
  }
}

zel::ResultCode Model::ReplaceSettings(const Settings& settings) {
  Snapshot made;
  for (const Row& row : settings.rows) {
    for (const Op op : {Op::createCalculator, Op::queryCalculator, Op::update, Op::finish}) {
      const Record& call = Call(op);
      if (call.result < 0) return call.result;
    }
    made.rows.push_back({row.url, row.consumer});
  }
  if (settings.mismatch) return zel::eInvalidArgument;
  if (Call(Op::queryCertificates).result < 0) return zel::eUnspecifiedError;
  if (Call(Op::setCertificates).result < 0) return zel::eUnspecifiedError;

  std::ranges::stable_sort(made.rows, Less, &TableRow::name);
  made.packetLimit = settings.packetLimit;
  made.queueLimitBytes = settings.queueLimitKb << 10;
  made.sendTimeoutMs = settings.sendTimeoutS * 1000;
  sender_.updateFlags = settings.queueLimitKb != sender_.queueLimitKb ? 3 : 2;
  sender_.queueLimitKb = settings.queueLimitKb;
  sender_.live = made;
  try {
    Arm(submissionDelayMs);
  } catch (const Thrown&) {
    // They are in force.
  }
  return 0;
}

void Model::Arm(std::uint32_t delayMs) {
  if (sender_.stopping || sender_.armed) return;
  sender_.armed = true;
  if (sender_.bound) Call(Op::armTimer, delayMs);
}

void Model::Release() {
  sender_.stopping = true;
  try {
    if (sender_.current != 0) Call(Op::cancel, sender_.current);
  } catch (const Thrown&) {
    // No step of a teardown keeps a later one from running.
  }
  sender_.armed = false;
  if (sender_.bound) {
    Call(Op::cancelTimer);
    if (sender_.running) return;  // it waits for the end of the cycle
    Take(Op::enter, static_cast<std::uint64_t>(Entry::drain));
  }
  FinishRelease();
}

void Model::FinishRelease() {
  Drain(sender_.live);
  sender_ = SenderState();
  Return(0, false);
}

void Model::Cycle() {
  sender_.armed = false;
  if (sender_.bound) Call(Op::disarmTimer);
  // Memory for the copy of the settings is asked for outside the guard, and before anything has changed.
  const Record* next = Peek();
  if (excuses_ > 0 && next && next->op == Op::returned && next->threw) throw Excused{};
  const Snapshot snapshot = sender_.live;
  const std::uint32_t flags = std::exchange(sender_.updateFlags, 0);
  sender_.needToSend = sender_.sent = 0;
  try {
    GuardedCycle(snapshot, flags);
  } catch (const Stopped&) {
    // The cycle ends with the totals as they stand.
  }
  if (sender_.stopping) return;
  const std::uint32_t need = sender_.needToSend;
  const Record* line = Peek();
  const bool lost = host_.lineLost && !(line && line->op == Op::totals);
  if (host_.trace && !lost) Take(Op::totals, need, need != 0 ? sender_.sent : any);
  // Even if arming throws, the list doesn't live to the next cycle.
  sender_.listed = false;
  sender_.list.clear();
  if (need != 0) Arm(snapshot.sendTimeoutMs);
}

void Model::GuardedCycle(const Snapshot& snapshot, std::uint32_t flags) {
  if (flags != 0) UpdateQueues(snapshot, flags);
  Drain(snapshot);
  if (GateClosed()) {
    sender_.needToSend = 1;
  } else {
    Walk(snapshot);
  }
}

void Model::UpdateQueues(const Snapshot& snapshot, std::uint32_t flags) {
  if (flags & 1) {
    for (const TableRow& row : snapshot.rows) {
      const auto producer = sender_.producers.find(row.name);
      if (producer == sender_.producers.end()) continue;
      producer->second = {NewProducer(row.name, snapshot.queueLimitBytes), snapshot.queueLimitBytes};
    }
  }
  if ((flags & 2) == 0) return;
  std::vector<int> names;
  if (Call(Op::createQueueManager).result >= 0) names = NamesOf(Call(Op::enumerateQueues));
  std::sort(names.begin(), names.end(), Less);
  // Side by side, so that a name that is given twice meets its row only once.
  std::vector<int> removed;
  std::size_t row = 0;
  for (std::size_t name = 0; name < names.size();) {
    if (row == snapshot.rows.size() || Less(names[name], snapshot.rows[row].name)) {
      removed.push_back(names[name++]);
    } else {
      if (snapshot.rows[row].name == names[name]) ++name;
      ++row;
    }
  }
  for (const int name : removed) {
    if (Call(Op::removeQueue, static_cast<std::uint64_t>(name)).result == 0) QueueOf(name) = Queue();
  }
  for (const int name : removed) sender_.producers.erase(name);
}

void Model::Drain(const Snapshot& snapshot) {
  while (!sender_.pending.empty()) {
    const Pending element = sender_.pending.front();
    sender_.pending.pop_front();
    try {
      for (const TableRow& row : snapshot.rows) {
        if (element.consumer == 0 || element.consumer == row.consumer) QueueItem(snapshot, row.name, element);
      }
    } catch (const Stopped&) {
      // Costs the element its remaining rows.
    }
  }
}

std::uint64_t Model::NewProducer(int name, std::uint32_t limit) {
  const Record& made = Call(Op::createProducer, static_cast<std::uint64_t>(name), limit);
  Require(made);
  QueueOf(name).exists = true;
  return made.c;
}

std::uint64_t Model::NewReader(int name) {
  const Record& made = Call(Op::createAckConsumer, static_cast<std::uint64_t>(name));
  Require(made);
  readers_[made.c] = {name, 0};
  return made.c;
}

void Model::QueueItem(const Snapshot& snapshot, int name, const Pending& element) {
  if (!sender_.producers.contains(name)) {
    const std::uint64_t id = NewProducer(name, snapshot.queueLimitBytes);
    // Without memory for its entry the producer is dropped again.
    const Record* next = Peek();
    if (!next || next->op != Op::push || next->a != id) Refute("Push through the new producer");
    sender_.producers[name] = {id, snapshot.queueLimitBytes};
  }
  if (!Push(name, element)) return;
  const std::uint64_t reader = NewReader(name);
  do {
    const Item* oldest = Read(reader);
    if (!oldest) return;
    Settle(Op::ack, reader, oldest->token);
  } while (Push(name, element));
}

bool Model::GateClosed() { return sender_.mode && Call(Op::isBackgroundDisabled).result != 0; }

}  // namespace veld_report::world
