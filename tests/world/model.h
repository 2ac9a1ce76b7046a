// The model: what a sender does by its rules, and what each queue holds after it. It walks over a recording,
// takes the outcome of each call from it, and fails where the rules want another call.
//
// It states the rules a second time on purpose, shares no code with the module, and prefers the plain form:
// no locks, no references, lists that are searched from the front.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/world/host.h"

namespace veld_report::world {

class Model {
 public:
  explicit Model(Host& host) : host_(host) {}

  // Goes over the host's recording, clears it, and compares the queues. Fails the host.
  void Follow();
  // What submissions and settings of the recording were given: the next `submit` is `print` and so on.
  void Expect(int consumer, std::uint64_t print, std::uint64_t size) {
    submissions_.push_back({consumer, print, size});
  }
  void Expect(const Settings& settings) { settings_.push_back(settings); }
  void PutForeign(int name);

 private:
  struct Mismatch {};
  // A step of the module's that ended early: by what a call threw, or by what an excuse stands for.
  struct Stopped {
    zel::ResultCode code = 0;  // 0: none that is known
  };
  struct Excused : Stopped {};
  struct Thrown : Stopped {};
  struct Item {
    std::uint64_t token, print, size;
    std::uint64_t reader = 0;  // that holds it
  };
  struct Queue {
    bool exists = false;
    std::deque<Item> items;
  };
  struct Pending {
    int consumer;
    std::uint64_t print, size;
  };
  struct TableRow {
    int name;
    int consumer;
  };
  struct Snapshot {
    std::vector<TableRow> rows;  // sorted by the names
    std::uint32_t packetLimit = 1, queueLimitBytes = 10 << 10, sendTimeoutMs = 1000;
  };
  struct ReaderState {
    int name;
    std::uint64_t position;
  };
  struct RequestState {
    std::uint64_t reader = 0;  // 0 once the items are acknowledged
    std::vector<std::uint64_t> tokens;
    std::uint32_t needToSend = 0, sent = 0;
    zel::ResultCode result = zel::eNotInitialized;
    bool walkHolds = true, clientHolds = false, notify = false, lastUncertain = false;
  };
  static constexpr std::uint64_t any = UINT64_MAX;

  // The recording. Take: the next record has to be this one. Call: the same, with what happens inside the
  // call; throws what the call threw.
  const Record* Peek();
  const Record& Take(Op op, std::uint64_t a = any, std::uint64_t b = any, std::uint64_t c = any);
  const Record& Call(Op op, std::uint64_t a = any, std::uint64_t b = any, std::uint64_t c = any);
  static void Require(const Record& call);
  // The rules want `expected`. An excuse makes it an exception of the module's, else it is a failure.
  [[noreturn]] void Refute(const std::string& expected);
  void Fail(const char* name, const std::string& text);
  // What others do while a call lasts: completions, and another thread's entries.
  void Inner();
  void Enter(Entry entry);
  void Return(zel::ResultCode expected, bool threw);

  // The sender.
  void Construct();
  void Submit();
  zel::ResultCode SetSettings();
  zel::ResultCode ReplaceSettings(const Settings& settings);
  void Arm(std::uint32_t delayMs);
  void Release();
  void FinishRelease();
  void Cycle();
  void GuardedCycle(const Snapshot& snapshot, std::uint32_t flags);
  void UpdateQueues(const Snapshot& snapshot, std::uint32_t flags);
  void Drain(const Snapshot& snapshot);
  void QueueItem(const Snapshot& snapshot, int name, const Pending& element);
  std::uint64_t NewProducer(int name, std::uint32_t limit);
  std::uint64_t NewReader(int name);
  bool GateClosed();
  void Walk(const Snapshot& snapshot);
  bool Visit(const Snapshot& snapshot, int name);
  bool VisitItems(const Snapshot& snapshot, int name, std::uint64_t reader,
                  std::shared_ptr<RequestState>& request);
  bool Send(const std::shared_ptr<RequestState>& request, int name);
  void Complete(const Record& record);
  void GiveBack(RequestState& request);

  // The queues.
  Queue& QueueOf(int name) { return queues_[static_cast<std::size_t>(name)]; }
  // True if the queue is full.
  bool Push(int name, const Pending& element);
  const Item* Read(std::uint64_t reader);
  // Those that are in the host's recording of an enumeration.
  std::vector<int> NamesOf(const Record& list) const;
  // Ack or ReturnItem; the second form for tokens of a request, whose outcome isn't looked at.
  void Settle(Op op, std::uint64_t reader, std::uint64_t token);
  void SettleQuietly(Op op, std::uint64_t reader, std::uint64_t token);
  void EndReader(std::uint64_t reader);
  void Compare();

  Host& host_;
  std::size_t place_ = 0;
  int excuses_ = 0;
  std::deque<Pending> submissions_;
  std::deque<Settings> settings_;

  std::array<Queue, nameCount> queues_;
  std::map<std::uint64_t, ReaderState> readers_;
  std::map<std::uint64_t, std::shared_ptr<RequestState>> requests_;  // in flight

  // The sender that stands.
  struct SenderState {
    bool constructed = false, bound = false, stopping = false, armed = false, running = false;
    bool mode = false, signature = false, notification = false;
    Snapshot live;
    std::uint32_t updateFlags = 0, queueLimitKb = 10;
    std::deque<Pending> pending;
    struct ProducerState {
      std::uint64_t id;
      std::uint32_t limit;
    };
    std::map<int, ProducerState> producers;
    bool listed = false;
    std::multiset<int> list;    // names that the walk hasn't passed
    std::uint64_t current = 0;  // the request that is waited for
    std::uint32_t needToSend = 0, sent = 0;
  };
  SenderState sender_;
};

}  // namespace veld_report::world
