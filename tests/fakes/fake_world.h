// What all fakes of one test share: one log of calls, one script of failures, and the ledger of objects.
//
// Fakes police their caller: a release too many, a use after the end or a broken argument rule fails the
// running test at that spot, on whatever thread it happens. An object whose count reached 0 stays as a
// tombstone until the world goes, so that such a fault is a failed test and not a crash.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "types/result_code.h"

namespace veld_report::fakes {

// The calls that reached the host, in order. Threads: any.
class EventLog {
 public:
  void Add(std::string event);
  // All events since the last Take.
  std::vector<std::string> Take();
  // The same, but for those that begin with one of the prefixes; the rest is dropped too.
  std::vector<std::string> TakeOnly(const std::vector<std::string>& prefixes);

 private:
  std::mutex lock_;
  std::vector<std::string> events_;
};

// What is to happen at the nth call of an operation, counted from the moment of scripting. Threads: any.
//
// FailCall is for sweeps: it counts the calls of all operations together.
class Script {
 public:
  // A non-zero result becomes that of the operation, which then does nothing else.
  using Action = std::function<zel::ResultCode()>;
  static constexpr int always = -1;

  void Do(std::string_view operation, Action action, int nth = 1, int times = 1);
  void Fail(std::string_view operation, zel::ResultCode code, int nth = 1, int times = 1);
  void Throw(std::string_view operation, int nth = 1);  // a std::runtime_error with the text "scripted"
  void Clear();

  // How one call fails. positive: the operation does its work and answers 1, but for those to which any other
  // answer than 0 is a no; they answer 1 and do nothing.
  enum class Failure { negative, positive, throwing };
  static constexpr zel::ResultCode negativeCode = zel::MakeResultCode(0x80000045);
  // The nth call from here on, of whatever operation, fails; with `onwards` each one behind it too.
  void FailCall(int nth, Failure failure, bool onwards = false);
  void StopFailing();
  // The operation whose call has failed first since FailCall, empty if none has.
  std::string FailedOperation();

  // The fakes call it once for each call of an operation. Runs the actions of this call, outside the lock.
  zel::ResultCode Enter(std::string_view operation);
  // What an operation that has done its work answers, asked for on the thread that has entered it and before
  // it enters another one.
  zel::ResultCode Done();

  // While it stands, calls of this thread are the host's own, and FailCall doesn't count them.
  class HostsOwn {
   public:
    HostsOwn() { ++depth; }
    ~HostsOwn() { --depth; }
    HostsOwn(const HostsOwn&) = delete;
    HostsOwn& operator=(const HostsOwn&) = delete;
    static inline thread_local int depth = 0;
  };

 private:
  struct Entry {
    Action action;
    int skip;
    int left;
  };
  zel::ResultCode RunActions(std::string_view operation);
  // Whether this call is one of those that FailCall has asked for.
  bool FailsNow(std::string_view operation);

  std::atomic<bool> idle_{true};  // nothing is scripted, and nothing needs the lock
  std::mutex lock_;
  std::map<std::string, std::deque<Entry>, std::less<>> entries_;
  Failure failure_ = Failure::negative;
  int failAt_ = 0;  // counts down to 1, the call that fails; 0: none does
  bool onwards_ = false;
  std::string failed_;
};

// One object of a fake, alive or not.
class LedgerEntry {
 public:
  virtual ~LedgerEntry() = default;
  virtual const std::string& Name() const = 0;
  virtual std::uint32_t References() const = 0;
};

class Ledger {
 public:
  void Adopt(std::unique_ptr<LedgerEntry> entry);
  // "name xcount" of each object with references.
  std::vector<std::string> Alive() const;

 private:
  mutable std::mutex lock_;
  std::deque<std::unique_ptr<LedgerEntry>> entries_;
};

struct FakeWorld {
  EventLog log;
  Script script;
  Ledger ledger;

  // Logs the call and asks the script.
  zel::ResultCode Enter(std::string_view operation, std::string_view detail = {});
  zel::ResultCode Done() { return script.Done(); }
  // Both, for an operation that has done its work already.
  zel::ResultCode Answer(std::string_view operation, std::string_view detail = {});
};

// Fails the running test.
void Fault(const std::string& what);

}  // namespace veld_report::fakes
