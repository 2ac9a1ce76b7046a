// The rules of the walk and of the completion of a request.
#include <algorithm>

#include "tests/world/model.h"

namespace veld_report::world {

void Model::Walk(const Snapshot& snapshot) {
  if (!sender_.listed) {
    Require(Call(Op::createQueueManager));
    const Record& list = Call(Op::enumerateQueues);
    Require(list);
    const std::vector<int> names = NamesOf(list);
    sender_.list = {names.begin(), names.end()};
    sender_.listed = true;
  }
  sender_.needToSend = sender_.sent = 0;
  const auto hasRow = [&](int name) {
    return std::ranges::find(snapshot.rows, name, &TableRow::name) != snapshot.rows.end();
  };
  while (!sender_.stopping) {
    auto& list = sender_.list;
    if (list.empty()) return;
    if (GateClosed()) {
      sender_.needToSend = 1;
      return;
    }
    // The order is the module's, so the next call tells which name it is; one without a row is passed
    // silently.
    const Record* next = Peek();
    auto name = next && next->op == Op::createAckConsumer ? list.find(static_cast<int>(next->a)) : list.end();
    if (name == list.end()) name = std::find_if_not(list.begin(), list.end(), hasRow);
    if (name == list.end()) Refute("CreateAckConsumer of a queue that the walk hasn't seen");
    const int passed = *name;
    if (hasRow(passed) && !Visit(snapshot, passed)) return;
    list.erase(list.find(passed));
  }
}

bool Model::Visit(const Snapshot& snapshot, int name) {
  const std::uint64_t reader = NewReader(name);
  std::shared_ptr<RequestState> request;
  const auto drop = [&](bool uncertain) {
    if (!request || !request->walkHolds) return;
    request->walkHolds = false;
    request->lastUncertain = uncertain;
    if (!request->clientHolds) GiveBack(*request);
  };
  try {
    const bool goOn = VisitItems(snapshot, name, reader, request);
    drop(false);
    return goOn;
  } catch (const Thrown&) {
    drop(false);
    throw;
  } catch (const Excused&) {
    drop(true);
    throw;
  }
}

bool Model::VisitItems(const Snapshot& snapshot, int name, std::uint64_t reader,
                       std::shared_ptr<RequestState>& request) {
  while (const Item* item = Read(reader)) {
    if (!request) {
      request = std::make_shared<RequestState>();
      request->reader = reader;
      request->notify = sender_.notification;
    }
    request->tokens.push_back(item->token);
    request->needToSend += static_cast<std::uint32_t>(item->size);
    if (request->tokens.size() != snapshot.packetLimit) continue;
    if (sender_.stopping) {
      // A full packet isn't sent. Whether memory ran out after its last item doesn't show in what follows.
      Peek();
      if (excuses_ > 0) throw Excused{};
      return false;
    }
    if (!Send(request, name)) return false;
    request.reset();
  }
  return !request || Send(request, name);
}

bool Model::Send(const std::shared_ptr<RequestState>& request, int name) {
  if (sender_.signature) Call(Op::sign);
  Require(Call(Op::serialize, 1));
  const Record& made = Take(Op::makeRequest, static_cast<std::uint64_t>(name));
  if (!made.threw && made.result >= 0) {
    request->clientHolds = true;
    requests_[made.b] = request;
  }
  Inner();
  if (made.threw) throw Thrown{};
  Require(made);

  sender_.current = made.b;
  const Record& wait = Take(Op::wait, made.b, 5000);
  Inner();
  sender_.current = 0;
  if (wait.threw) throw Thrown{};
  sender_.needToSend += request->needToSend;
  sender_.sent += request->sent;
  request->walkHolds = false;
  if (!request->clientHolds) GiveBack(*request);
  return wait.result >= 0 && request->result >= 0;
}

void Model::Complete(const Record& record) {
  const auto found = requests_.find(record.a);
  if (found == requests_.end()) Fail(invariant::calls, "the completion of no request");
  const std::shared_ptr<RequestState> request = found->second;
  requests_.erase(found);
  const auto notify = [&](zel::ResultCode code) {
    if (request->notify) Call(Op::onRequestFinished, static_cast<std::uint32_t>(code));
  };
  try {
    if (record.result != 0) request->result = record.result;
    if (record.result == 0 && record.b == 200) {
      for (const std::uint64_t token : request->tokens) SettleQuietly(Op::ack, request->reader, token);
      request->sent = std::exchange(request->needToSend, 0);
      request->reader = 0;
    }
    notify(record.result != 0 || record.b == 200 ? record.result : zel::eInvalidResult);
    if (record.result == 0) request->result = 0;
  } catch (const Stopped&) {
    // The client takes it; the request stays as far as it came.
  }
  request->clientHolds = false;
  if (!request->walkHolds) GiveBack(*request);
}

void Model::GiveBack(RequestState& request) {
  if (request.reader == 0) return;
  for (const std::uint64_t token : request.tokens) {
    const Record* next = Peek();
    const bool here = next && next->op == Op::returnItem && next->b == token;
    // Without memory for a request the token of its first item is left to the reader's end.
    if (!here && request.lastUncertain && token == request.tokens.back()) return;
    SettleQuietly(Op::returnItem, request.reader, token);
  }
}

}  // namespace veld_report::world
