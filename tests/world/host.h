// The simulated host: a virtual clock, queues, a client, a timer and all other services, under the script's
// faults. It records each call, and judges what can be judged from the calls alone; the model judges the
// rest. Where it is wanted it also writes down, as text, all that it sees.
//
// There is no lock here, since the threads of a world take turns.
#pragma once

#include <array>
#include <deque>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "contract/byte_range.h"
#include "contract/service_locator.h"
#include "tests/world/heap.h"
#include "tests/world/script.h"
#include "types/allocator.h"
#include "types/basic_string.h"
#include "types/object.h"
#include "types/ref.h"

namespace veld_report::world {

// What no world may break. A failure names one of them.
namespace invariant {
inline constexpr char acknowledged[] = "acknowledged";  // only after a 200 that carried it, or to make room
inline constexpr char ledger[] = "ledger";              // pushed = delivered + evicted + removed + waiting
inline constexpr char order[] = "order";                // oldest first
inline constexpr char body[] = "body";                  // decodes to exactly the items
inline constexpr char calls[] = "calls";                // the calls of the rules, in their order
inline constexpr char queues[] = "queues";              // hold what the model's queues hold
inline constexpr char locks[] = "locks";                // none held where none may be
inline constexpr char balance[] = "balance";            // references, memory and bookkeeping go back to zero
inline constexpr char delivery[] = "delivery";          // all arrives once nothing is in the way
}  // namespace invariant

struct Failure {
  std::string invariant;
  std::string text;
};

struct Record {
  Op op{};
  zel::ResultCode result = 0;
  bool faulted = false;
  bool threw = false;
  std::uint64_t a = 0, b = 0, c = 0, d = 0;
};

struct Scripted : std::runtime_error {
  Scripted() : std::runtime_error("scripted") {}
};

inline constexpr std::uint64_t never = UINT64_MAX;
inline std::string_view TextOf(const zel::ByteRange& bytes) {
  return {reinterpret_cast<const char*>(bytes.begin), static_cast<std::size_t>(bytes.end - bytes.begin)};
}
inline std::uint64_t Print(std::string_view bytes) { return std::hash<std::string_view>()(bytes); }
const std::u16string& Url(int url);
std::array<std::uint8_t, 16> Digest(int url);
const std::string& QueueName(int name);  // the first urlCount are those of the urls
int NameIndex(std::string_view name);    // -1 for none

// Keeps its memory to the end of the world, so that a use after the end is a failure and no crash.
class Tomb {
 public:
  virtual ~Tomb() = default;
  std::uint32_t references = 1;
};

class Reader;
class Request;
template <class... Interfaces>
class Fake;

struct StoredItem {
  std::uint64_t token;
  std::string bytes;
  std::uint64_t print;
  const Reader* holder;
};
struct StoredQueue {
  bool exists = false;
  bool refused = false;  // a push was, and nobody has made room for it
  std::uint64_t bytes = 0;
  std::deque<StoredItem> items;
};

class Host {
 public:
  Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // The first one counts.
  void Fail(const char* invariantName, const std::string& text);
  bool Failed() const { return !failure.invariant.empty(); }
  Record& Append(const Record& record);
  void ShowRecord(const Record& record);
  void Excuse() { Append({.op = Op::excuse}); }
  // The result that the script has for this call, or 0.
  zel::ResultCode Planned(Op op);
  // Whether the next call of it is to fail.
  bool WillFail(Op op) const;
  void EnterIfDue(Op op);
  // A line of the course, if one is written. `plain`: a success like any other, which a brief course leaves
  // out of a sender's making.
  void Show(const std::string& line, bool plain) {
    if (course && !(plain && brief && constructing)) course->append(2 * depth, ' ').append(line).append("\n");
  }
  StoredQueue& QueueOf(int name) { return queues[static_cast<std::size_t>(name)]; }
  // The queue's oldest item after `position` that nobody holds, or null.
  static StoredItem* Next(StoredQueue& queue, std::uint64_t position);
  // Its end if there is no such item.
  static std::deque<StoredItem>::iterator Find(StoredQueue& queue, std::uint64_t token);
  void Put(StoredQueue& queue, std::string bytes);
  // Reports to the callback of a request whose time has come.
  void Complete(Request& request);
  // Moves the clock, and completes what is due on the way.
  void AdvanceRequests(std::uint64_t untilMs);
  // The request that is due first, or null.
  Request* FirstDue() const;
  void CheckLedger();
  template <class T, class... Arguments>
  T* Make(Arguments&&... arguments) {
    auto made = std::make_unique<T>(*this, std::forward<Arguments>(arguments)...);
    T* object = made.get();
    tombs.push_back(std::move(made));
    return object;
  }

  // How often each operation was called, in this process, and had each kind of result.
  struct Seen {
    std::uint64_t plain = 0, negative = 0, positive = 0, thrown = 0, entered = 0;
  };
  static std::array<Seen, static_cast<std::size_t>(Op::returned) + 1> seen;

  Failure failure;
  std::string* course = nullptr;  // what the host sees, a line each
  bool brief = false;             // the course leaves out details that succeed
  std::size_t depth = 0;          // of entries into the module that haven't returned
  std::vector<Record> recording;
  std::vector<int> enumerated;  // names that the records of enumerations point into
  std::vector<Step> plans;      // faults and entries that wait for their calls
  std::deque<Step> answers;
  std::function<void(const Step& step)> enter;  // lets another thread in

  // Of the sender that stands.
  int missing = 0;
  bool trace = false;
  bool timerRestarts = false;
  bool constructing = false;
  const Settings* settings = nullptr;  // of the call in progress

  std::uint64_t nowMs = 0;
  bool gateClosed = false;
  zel::IObject* sink = nullptr;
  std::uint64_t timerDueMs = never;
  bool running = false;
  std::function<void()> park;  // CancelTimer waits here for the end of Run

  std::array<StoredQueue, nameCount> queues;
  std::uint64_t lastToken = 0;
  std::uint64_t pushed = 0, delivered = 0, evicted = 0, removed = 0;
  std::vector<Request*> open;
  Request* completing = nullptr;
  Reader* walking = nullptr;  // the reader that was made last
  std::uint32_t producers = 0, readers = 0, requests = 0;
  std::uint64_t troubles = 0;  // faults of the script that were met
  std::size_t unsettled = 0;   // items that were neither acknowledged nor given back when their reader went
  bool withoutCallback =
      false;                 // a callback may not have been made, so that nobody knew the token of an item
  bool lineLost = false;     // the tracer refused one or threw
  bool unjudged = false;     // the tracer threw, which may end any step: the model can't follow any more
  std::uint64_t blocks = 0;  // of the allocator
  int failBlock = 0;
  bool signed_ = false;
  std::string signature;
  std::uint64_t signedPrint = 0;

  std::vector<std::unique_ptr<Tomb>> tombs;
  // With the bit of `missing` that hides it.
  struct Service {
    zel::IObject* object;
    int without = 0;
  };
  std::vector<Service> services;
  Fake<zel::IAllocator>* allocator = nullptr;
  Fake<zel::IServiceLocator>* locator = nullptr;
};

// One call of the module's, recorded. It throws what the script has for it.
class Call {
 public:
  // `locks`: how many locks of the module's are held, exactly.
  Call(Host& host, Op op, int locks, std::uint64_t a, std::uint64_t b, std::uint64_t c);
  bool Refused() const { return planned_ < 0; }
  zel::ResultCode Planned() const { return planned_; }
  Record& Own() { return host_.recording[index_]; }
  zel::ResultCode Done(zel::ResultCode result) { return Own().result = result; }
  zel::ResultCode Done() { return Done(planned_); }

 private:
  const Outside outside_;
  Host& host_;
  const std::size_t index_;
  zel::ResultCode planned_ = 0;
};

template <class... Interfaces>
class Fake : public Interfaces..., public Tomb {
 public:
  explicit Fake(Host& owner) : host(owner) {}
  std::uint32_t AddRef() override {
    Use();
    return ++references;
  }
  std::uint32_t Release() override {
    const Outside outside;
    Use();
    if (references == 0) return 0;
    if (--references == 0) OnEnd();
    if (host.missing & cleanUpThrows) throw Scripted();
    return references;
  }
  zel::ResultCode QueryInterface(zel::InterfaceId interfaceId, void** out) override {
    Use();
    *out = nullptr;
    if (interfaceId == 0) *out = static_cast<std::tuple_element_t<0, std::tuple<Interfaces...>>*>(this);
    (Offer<Interfaces>(interfaceId, out), ...);
    if (!*out) return zel::eInterfaceNotSupported;
    ++references;
    return zel::sOk;
  }

 protected:
  void Use() const {
    if (references == 0) host.Fail(invariant::balance, "a service is used after its last Release");
  }
  Call Begin(Op op, int locks, std::uint64_t a = 0, std::uint64_t b = 0, std::uint64_t c = 0) const {
    Use();
    return Call(host, op, locks, a, b, c);
  }
  zel::ResultCode Reserved() const {
    host.Fail(invariant::calls, "a reserved operation");
    return zel::eNotImplemented;
  }
  virtual void OnEnd() {}
  Host& host;

 private:
  template <class I>
  void Offer(zel::InterfaceId interfaceId, void** out) {
    if constexpr (requires { I::iid; }) {
      if (interfaceId == I::iid) *out = static_cast<I*>(this);
    }
  }
};

}  // namespace veld_report::world
