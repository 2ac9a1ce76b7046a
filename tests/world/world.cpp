#include "tests/world/world.h"

#include <algorithm>
#include <cstdlib>

#include "contract/exports.h"
#include "contract/sender.h"
#include "tests/world/client.h"
#include "tests/world/helper.h"
#include "tests/world/model.h"
#include "tests/world/services.h"

extern "C" zel::ResultCode zelGetObjectFactory(zel::IServiceLocator* locator, std::uint32_t classId,
                                               zel::IObject** out);
extern "C" zel::ResultCode zelCanUnloadModule();

namespace veld_report::world {
namespace {

using orvel::veld_report::IVeldReportSender;
using orvel::veld_report::IVeldReportSenderConstruct;
using orvel::veld_report::IVeldReportSenderSettings;
using orvel::veld_report::SenderSettings;

// A sendTimeout of 0 and a closed gate fire for ever.
constexpr int mostFirings = 20;
constexpr const char* consumerNames[] = {"", "x", "y", "nobody"};
constexpr std::uint32_t settleLimitKb = 1000;

SenderSettings ForModule(const Settings& settings) {
  SenderSettings made;
  made.packetLimit = settings.packetLimit;
  made.queueLimit = settings.queueLimitKb;
  made.sendTimeout = settings.sendTimeoutS;
  const bool named = settings.HasConsumers();
  const char* certificate = certificates;
  for (const Row& row : settings.rows) {
    orvel::veld_report::UrlEntry entry;
    entry.url = zel::wstring(std::u16string_view(Url(row.url)));
    entry.certificates.first = reinterpret_cast<const orvel::veld_report::OpaqueCertificate*>(certificate);
    entry.certificates.last = reinterpret_cast<const orvel::veld_report::OpaqueCertificate*>(++certificate);
    made.urls.push_back(entry);
    if (named) made.consumers.push_back(zel::string(std::string_view(consumerNames[row.consumer])));
  }
  if (settings.mismatch) made.consumers.push_back(zel::string());
  return made;
}

class World {
 public:
  explicit World(Lie lie) : host_(lie), model_(host_) {
    host_.enter = [this](const Step& step) { EnterFromOutside(step); };
    host_.park = [] { Helper::Get().Park(); };
  }
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  Outcome Run(const Script& script) {
    Outcome outcome;
    for (; outcome.step < script.size() && !host_.Failed(); ++outcome.step) Do(script[outcome.step]);
    if (!host_.Failed()) {
      End();
    } else {
      --outcome.step;
      Abandon();
    }
    outcome.failure = host_.failure;
    outcome.cycles = cycles_;
    return outcome;
  }

 private:
  using Kind = Step::Kind;

  void Do(const Step& step) {
    switch (step.kind) {
      case Kind::restart:
        return Restart(step);
      case Kind::submit:
        for (int i = 0; i < step.a && sender_ && !host_.Failed(); ++i) {
          Submit(step.c, step.b);
          Check();
        }
        return;
      case Kind::settings:
        if (sender_) SetSettings(step.settings);
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
        // Without a timer nothing tells whether a submission came through.
        if (host_.missing & noTimer) return;
        return step.a == 0 ? static_cast<void>(host_.failBlock = step.b) : FailHeap(step.b);
      case Kind::foreign:
        return PutForeign(step);
      case Kind::settle:
        return Settle();
    }
  }

  void FailHeap(int nth) {
    Heap::FailNth(
        nth, [](void* host) { static_cast<Host*>(host)->Excuse(); }, &host_);
  }
  void ClearFaults() {
    host_.plans.clear();
    host_.answers.clear();
    host_.gateClosed = false;
    host_.failBlock = 0;
    FailHeap(0);
  }

  // One call of the module's, on any thread.
  template <class Operation>
  void Perform(Entry entry, Operation&& operation) {
    host_.Append({.op = Op::enter, .a = static_cast<std::uint64_t>(entry)});
    Record end{.op = Op::returned};
    try {
      const Inside inside;
      end.result = operation();
    } catch (...) {
      end.threw = true;
    }
    host_.Append(end);
  }

  // Judges what the calls since the last time have told.
  void Check() {
    host_.CheckLedger();
    if (!host_.Failed()) model_.Follow();
    host_.recording.clear();
    host_.enumerated.clear();
  }

  void Submit(int consumer, int size) {
    std::string json = "{\"n\":" + std::to_string(++submitted_) + ",\"p\":\"";
    json.append(static_cast<std::size_t>(size), static_cast<char>('a' + submitted_ % 26));
    json.resize(static_cast<std::size_t>(size));
    model_.Expect(consumer, Print(json), json.size());
    TextRecord record{zel::string(std::string_view(json))};
    const zel::string name{std::string_view(consumerNames[consumer])};
    const zel::AnyPtr data(&record, &textRecord);
    Perform(Entry::submit, [&] {
      return consumer == 0 ? sender_->SendStatistic(data) : sender_->SendStatistic(name, data);
    });
  }

  void SetSettings(const Settings& settings) {
    const SenderSettings given = ForModule(settings);
    const Settings* outer = std::exchange(host_.settings, &settings);
    model_.Expect(settings);
    Perform(Entry::settings, [&] { return settings_->SetSettings(given); });
    host_.settings = outer;
  }

  void Release() {
    const Inside inside;
    construct_.Reset();
    settings_.Reset();
    zel::Ref<IVeldReportSender> last = std::move(sender_);
    Perform(Entry::release, [&] {
      last.Reset();
      return zel::sOk;
    });
  }

  void EnterFromOutside(const Step& step) {
    const Outside outside;
    if (!sender_ || host_.constructing || entered_ || Helper::Get().Parked()) return;
    const auto entry = static_cast<Entry>(step.a);
    if (entry == Entry::release && !host_.running) return;
    entered_ = true;
    ++Host::seen[static_cast<std::size_t>(step.op)].entered;
    Helper::Get().Do([&] {
      if (entry == Entry::submit) Submit(step.b % 4, step.c);
      if (entry == Entry::settings) SetSettings(step.settings);
      if (entry == Entry::release) Release();
    });
    entered_ = false;
  }

  void Fire() {
    ++cycles_;
    auto* sink = static_cast<zel::IRunnable*>(host_.sink);
    host_.timerDueMs = never;
    host_.running = true;
    Perform(Entry::run, [&] { return sink->Run(nullptr); });
    host_.running = false;
    if (Helper::Get().Parked()) Helper::Get().Resume();
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

  void EndSender() {
    if (!sender_) return;
    Release();
    Check();
  }

  void Restart(const Step& step) {
    EndSender();
    std::srand(static_cast<unsigned>(step.c));
    host_.missing = step.a;
    host_.trace = step.b != 0;
    host_.signed_ = false;
    host_.timerRestarts = (step.c & 1) != 0;
    if (host_.missing & noTimer) FailHeap(host_.failBlock = 0);
    host_.constructing = true;
    Create();
    if (!sender_ && !host_.Failed()) {
      ClearFaults();
      Create();
      if (!sender_) host_.Fail(invariant::calls, "no sender can be made");
    }
    if (!host_.Failed()) Construct(step.settings);
    host_.constructing = false;
    Check();
  }

  void Create() {
    zel::Ref<zel::IObject> first;
    zel::IServiceLocator* locator = &host_.services->locator;
    const Inside inside;
    if (zelGetObjectFactory(locator, orvel::veld_report::senderClassId, first.Out()) == 0) {
      static_cast<zel::IObjectFactory*>(first.Get())
          ->CreateInstance(locator, IVeldReportSender::iid, sender_.OutVoid());
    }
    const bool excused = std::any_of(host_.recording.begin(), host_.recording.end(),
                                     [](const Record& record) { return record.op == Op::excuse; });
    if (!sender_ && !excused) host_.Fail(invariant::calls, "no sender is made");
    host_.recording.clear();
    if (!sender_) return;
    sender_->QueryInterface(IVeldReportSenderConstruct::iid, construct_.OutVoid());
    sender_->QueryInterface(IVeldReportSenderSettings::iid, settings_.OutVoid());
  }

  void Construct(const Settings& settings) {
    const SenderSettings given = ForModule(settings);
    host_.settings = &settings;
    model_.Expect(settings);
    Perform(Entry::construct, [&] { return construct_->Construct(given); });
  }

  void PutForeign(const Step& step) {
    StoredQueue& queue = host_.queues[static_cast<std::size_t>(step.a)];
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
    while (Request* request = host_.FirstDue()) {
      host_.nowMs = std::max(host_.nowMs, request->dueMs);
      host_.Complete(*request);
      Check();
    }
    Step restart{.kind = Kind::restart, .b = 1};
    restart.settings = {
        .packetLimit = 2, .queueLimitKb = settleLimitKb, .rows = {{0, 0}, {1, 0}, {2, 0}, {3, 0}}};
    Restart(restart);
    if (host_.Failed()) return;
    Submit(0, 30);
    Check();
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
    while (Request* request = host_.FirstDue()) {
      host_.Complete(*request);
      Check();
    }
    if (zelCanUnloadModule() != 0) host_.Fail(invariant::balance, "objects of the module are left");
    if (host_.blocks != 0) host_.Fail(invariant::balance, std::to_string(host_.blocks) + " blocks are out");
    host_.services->CheckReferences(host_);
    const auto held = std::count_if(host_.tombs.begin(), host_.tombs.end(),
                                    [](const auto& tomb) { return tomb->references != 0; });
    if (held != 0)
      host_.Fail(invariant::balance, std::to_string(held) + " readers, producers or the like are held");
  }

  // After a failure: all goes as far as it can, unjudged.
  void Abandon() {
    ClearFaults();
    if (sender_) Release();
    while (Request* request = host_.FirstDue()) host_.Complete(*request);
  }

  Host host_;
  Model model_;
  zel::Ref<IVeldReportSender> sender_;
  zel::Ref<IVeldReportSenderConstruct> construct_;
  zel::Ref<IVeldReportSenderSettings> settings_;
  std::uint64_t submitted_ = 0;
  std::uint64_t cycles_ = 0;
  bool entered_ = false;
};

Outcome RunOnce(const Script& script, Lie lie) {
  World world(lie);
  return world.Run(script);
}

}  // namespace

Outcome RunScript(const Script& script, Lie lie) {
  // What is made once a process must not count as a leak of the first world.
  Helper::Get();
  static const bool warm = [] {
    RunOnce({{.kind = Step::Kind::restart, .settings = {.rows = {{0, 0}}}}}, Lie::none);
    return true;
  }();
  static_cast<void>(warm);
  const std::int64_t before = Heap::LiveBlocks();
  Outcome outcome = RunOnce(script, lie);
  if (outcome.Failed()) return outcome;
  if (lie == Lie::memory) static_cast<void>(::operator new(1));
  if (const std::int64_t left = Heap::LiveBlocks() - before; left != 0) {
    outcome.failure = {invariant::balance, std::to_string(left) + " blocks of the process heap are out"};
  }
  return outcome;
}

}  // namespace veld_report::world
