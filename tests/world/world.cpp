#include "tests/world/world.h"

#include <algorithm>
#include <cstdlib>

#include "tests/world/client.h"
#include "tests/world/helper.h"
#include "tests/world/model.h"
#include "tests/world/sender.h"
#include "tests/world/services.h"

extern "C" zel::ResultCode zelCanUnloadModule();

namespace veld_report::world {
namespace {

// A sendTimeout of 0 and a closed gate fire for ever.
constexpr int mostFirings = 20;
constexpr std::uint32_t settleLimitKb = 1000;

class World {
 public:
  explicit World(std::string* course = nullptr) : model_(host_), sender_(host_, model_) {
    host_.enter = [this](const Step& step) { EnterFromOutside(step); };
    host_.park = [this] { helper_.Park(); };
    host_.course = course;
  }
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  Outcome Run(const Script& script) {
    for (const Step& step : script) {
      if (host_.Failed()) break;
      if (host_.course) *host_.course += courseMark + ToText({step});
      Do(step);
    }
    host_.Failed() ? Abandon() : End();
    return {.failure = host_.failure, .cycles = cycles_, .troubles = host_.troubles};
  }

 private:
  using Kind = Step::Kind;

  void Do(const Step& step) {
    switch (step.kind) {
      case Kind::restart:
        return Restart(step);
      case Kind::submit:
        for (int i = 0; i < step.a; ++i) Submit(step.c, step.b);
        return;
      case Kind::settings:
        if (sender_.Exists()) sender_.SetSettings(step.settings);
        return Check();
      case Kind::advance:
        return Advance(static_cast<std::uint64_t>(step.a));
      case Kind::gate:
        host_.gateClosed = step.a != 0;
        return;
      case Kind::answer:
        host_.answers.push_back(step);
        return;
      case Kind::fault:
      case Kind::enter:
        host_.plans.push_back(step);
        return;
      case Kind::memory:
        // Without a timer nothing shows whether a submission came through.
        if (host_.missing & noTimer) return;
        return step.a == 0 ? static_cast<void>(host_.failBlock = step.b) : FailHeap(step.b);
      case Kind::foreign:
        return PutForeign(step);
      case Kind::settle:
        return Settle();
    }
  }

  void Submit(int consumer, int size) {
    if (!sender_.Exists() || host_.Failed()) return;
    sender_.Submit(consumer, size);
    Check();
  }

  void FailHeap(int nth) {
    Heap::FailNth(nth, [this] {
      ++host_.troubles;
      host_.Excuse();
    });
  }
  void ClearFaults() {
    host_.plans.clear();
    host_.answers.clear();
    host_.gateClosed = false;
    host_.failBlock = 0;
    FailHeap(0);
  }

  // Judges the calls since the last time.
  void Check() {
    host_.CheckLedger();
    // One item has no place for its token if no callback can be made, and only the trace shows that.
    if (host_.trace && host_.unsettled > (host_.withoutCallback || host_.lineLost ? 1u : 0u))
      host_.Fail(invariant::balance, "an item was neither acknowledged nor given back");
    if (!host_.Failed() && !host_.unjudged) model_.Follow();
    host_.unsettled = 0;
    host_.withoutCallback = host_.lineLost = false;
    host_.recording.clear();
    host_.enumerated.clear();
  }

  void EnterFromOutside(const Step& step) {
    const Outside outside;
    if (!sender_.Exists() || host_.constructing || entered_ || helper_.Parked()) return;
    const auto entry = static_cast<Entry>(step.a);
    if (entry == Entry::release && !host_.running) return;
    entered_ = true;
    ++Host::seen[static_cast<std::size_t>(step.op)].entered;
    helper_.Do([&] {
      if (entry == Entry::submit) sender_.Submit(step.b % 4, step.c);
      if (entry == Entry::settings) sender_.SetSettings(step.settings);
      if (entry == Entry::release) sender_.Release();
    });
    entered_ = false;
  }

  void Fire() {
    ++cycles_;
    auto* sink = static_cast<zel::IRunnable*>(host_.sink);
    host_.timerDueMs = never;
    host_.running = true;
    sender_.Run(sink);
    host_.running = false;
    if (helper_.Parked()) helper_.Resume();
    Check();
  }

  void Advance(std::uint64_t ms) {
    const std::uint64_t until = host_.nowMs + ms;
    for (int firings = 0; !host_.Failed() && firings < mostFirings;) {
      const Request* request = host_.FirstDue();
      const std::uint64_t requestMs = request ? request->dueMs : never;
      if (std::min(requestMs, host_.timerDueMs) > until) break;
      if (requestMs <= host_.timerDueMs) {
        host_.AdvanceRequests(requestMs);
        Check();
      } else {
        host_.nowMs = std::max(host_.nowMs, host_.timerDueMs);
        ++firings;
        Fire();
      }
    }
    host_.nowMs = std::max(host_.nowMs, until);
  }

  void CompleteAll() {
    while (Request* request = host_.FirstDue()) {
      host_.nowMs = std::max(host_.nowMs, request->dueMs);
      host_.Complete(*request);
      Check();
    }
  }

  void EndSender() {
    if (!sender_.Exists()) return;
    sender_.Release();
    Check();
  }

  void Restart(const Step& step) {
    EndSender();
    std::srand(static_cast<unsigned>(step.c));
    host_.missing = step.a;
    host_.trace = step.b != 0;
    host_.brief = step.b == 2;
    host_.signed_ = false;
    host_.timerRestarts = (step.c & 1) != 0;
    host_.constructing = true;
    sender_.Create();
    if (!sender_.Exists() && !host_.Failed()) {
      ClearFaults();
      sender_.Create();
      if (!sender_.Exists()) host_.Fail(invariant::calls, "no sender can be made");
    }
    if (!host_.Failed()) sender_.Construct(step.settings);
    host_.constructing = false;
    if (host_.missing & noTimer) FailHeap(host_.failBlock = 0);
    Check();
  }

  void PutForeign(const Step& step) {
    StoredQueue& queue = host_.QueueOf(step.a);
    queue.exists = true;
    model_.PutForeign(step.a);
    for (int i = 0; i < step.b; ++i) {
      host_.Put(queue, "{\"foreign\":" + std::to_string(i) + "}");
      model_.PutForeign(step.a);
    }
  }

  // Whatever happened before, a host in health delivers all that waits, and within one cycle.
  void Settle() {
    ClearFaults();
    CompleteAll();
    Restart({.kind = Kind::restart,
             .b = 1,
             .settings = {.packetLimit = 2, .queueLimitKb = settleLimitKb, .rows = {{0}, {1}, {2}, {3}}}});
    if (host_.Failed()) return;
    Submit(0, 30);
    Advance(2000);
    if (host_.Failed()) return;
    for (const StoredQueue& queue : host_.queues) {
      if (!queue.items.empty())
        host_.Fail(invariant::delivery, std::to_string(queue.items.size()) + " items wait");
    }
    if (host_.timerDueMs != never) host_.Fail(invariant::delivery, "the timer is armed though nothing waits");
  }

  void End() {
    EndSender();
    if ((zelCanUnloadModule() == 0) != host_.open.empty())
      host_.Fail(invariant::balance, "zelCanUnloadModule");
    ClearFaults();
    CompleteAll();
    if (zelCanUnloadModule() != 0) host_.Fail(invariant::balance, "objects of the module are left");
    if (host_.blocks != 0) host_.Fail(invariant::balance, std::to_string(host_.blocks) + " blocks are out");
    host_.missing = 0;
    host_.locator->Release();
    for (const Host::Service& service : host_.services) service.object->Release();
    for (const auto& tomb : host_.tombs) {
      const Tomb& one = *tomb;
      if (one.references != 0) host_.Fail(invariant::balance, std::string(typeid(one).name()) + " is held");
    }
  }

  // After a failure: all goes as far as it can, unjudged.
  void Abandon() {
    ClearFaults();
    EndSender();
    CompleteAll();
  }

  Host host_;
  Model model_;
  Sender sender_;
  Helper helper_;
  std::uint64_t cycles_ = 0;
  bool entered_ = false;
};

}  // namespace

Outcome RunScript(const Script& script, std::string* course) {
  // What is made once a process must not count as a leak of the first world.
  QueueName(0);
  static const Outcome warm = World().Run({{.kind = Step::Kind::restart, .settings = {.rows = {{0, 0}}}}});
  static_cast<void>(warm);
  // Has its block before blocks are counted.
  if (course) course->reserve(1000);
  const std::int64_t before = Heap::LiveBlocks();
  Outcome outcome = World(course).Run(script);
  if (outcome.Failed()) return outcome;
  if (const std::int64_t left = Heap::LiveBlocks() - before; left != 0)
    outcome.failure = {invariant::balance, std::to_string(left) + " blocks of the process heap are out"};
  return outcome;
}

}  // namespace veld_report::world
