// Reporter: records from an application to its report servers, at least once, through a store on disk.
//
//   veld_report::Reporter reporter({.store = "/var/lib/app/telemetry",
//                                   .endpoints = {{.url = "https://stats.example.com/v1"}}});
//   reporter.Send(AppStarted{"4.2.0", 312, true});
//
// A record goes to memory at once, within a second to the store, and from there to the servers until they
// answer 200, across restarts and outages. It differs from a log or a message queue in that nobody waits for
// it and nothing is read back. Not for data whose loss within that second matters (FlushToStore ends it), and
// not for large data: a record is in memory several times on its way.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "types/result_code.h"
#include "veld_report/code_text.h"
#include "veld_report/finished_request.h"
#include "veld_report/loss.h"
#include "veld_report/queue_ledger.h"
#include "veld_report/record.h"
#include "veld_report/record_builder.h"
#include "veld_report/version.h"

namespace veld_report {

// A std::vector as the library was built with. In libstdc++'s debug mode std::vector has another layout; the
// two convert into each other.
#if defined(_GLIBCXX_DEBUG)
template <class T>
using PlainVector = std::_GLIBCXX_STD_C::vector<T>;
#else
template <class T>
using PlainVector = std::vector<T>;
#endif

// An error, as a code and as a sentence that says what, where and what to do.
class ReporterError : public std::runtime_error {
 public:
  ReporterError(zel::ResultCode code, const std::string& what) : std::runtime_error(what), code_(code) {}
  zel::ResultCode Code() const { return code_; }

 private:
  zel::ResultCode code_;
};

// One report server. Two endpoints with the same url share a queue, which gets what is for both of them
// twice.
struct Endpoint {
  std::string url{};       // http:// or https://, UTF-8. Another url is another queue.
  std::string consumer{};  // gets the records for this consumer, and those for all
  // CA certificates as PEM texts, or pins of the server's key as "sha256//BASE64". With any given, only they
  // count for this url. With pins alone a self-signed certificate will do; with both, both must hold.
  PlainVector<std::string> certificates{};
  // How requests are compressed: "none", "gzip" or "zstd". A server that answers 415 gets plain ones until
  // the reporter is closed. Not for a server that doesn't know the coding and answers something else.
  std::string compress = "none";
};

// A member that is added to every record: a name, and a text in UTF-8 that becomes a JSON string.
struct CommonMember {
  std::string name{};
  std::string value{};
};

// The settings that can be changed at run time.
struct Settings {
  PlainVector<Endpoint> endpoints{};
  std::uint32_t packetLimit = 100;        // maximum records in a request; 0: no limit
  std::uint32_t queueLimitKb = 10 << 10;  // of each endpoint's queue; a full one drops its oldest records
  std::chrono::seconds retryAfter{30};    // delay after a cycle that left records undelivered
  // Maximum size of a request's records; a larger record is sent alone. 0: no limit.
  std::uint32_t packetLimitKb = 256;
  // Minimum time between requests to a url; Flush and Close don't wait for it.
  std::chrono::seconds sendEvery{0};
  // Allows http:// urls to other machines than this one. Without TLS anyone on the way can read the records,
  // and any 200, such as that of a hotel's login page, deletes them.
  bool allowHttp = false;
  // Added to every record that is a JSON object, after its own members, when it is sent. The names differ
  // from each other, and from the two of `ReporterOptions::stamp`.
  PlainVector<CommonMember> common{};
  // Ed25519 private key, PEM, from the next request on; so a key can be replaced while the program runs. The
  // file is read once. None, which is also what CurrentSettings returns: the present key stays. Empty:
  // unsigned.
  std::optional<std::string> signingKeyFile{};
};

// Called for each completed request, but not for one that was held back and never sent, on a thread of the
// HTTP client. It should return soon and must not close or destroy the reporter. Its exceptions are dropped.
using Listener = std::function<void(const FinishedRequest&)>;

// Called for each trace line with its level (300 failures, 700 everything else) and its text in UTF-8,
// without time and line end. One call at a time, on whatever thread traces, which may be one in Send. It
// should return soon, must not use the reporter, and must not wait for a lock that is held around a call of
// the reporter. If it throws, the line is dropped.
using Log = std::function<void(std::uint32_t level, std::string_view text)>;

// Paths are UTF-8, on Windows too, where they may be longer than MAX_PATH.
struct ReporterOptions {
  std::string store{};  // the folder of the store, created if it doesn't exist; required
  PlainVector<Endpoint> endpoints{};
  std::uint32_t packetLimit = 100;
  std::uint32_t queueLimitKb = 10 << 10;
  std::chrono::seconds retryAfter{30};
  std::uint32_t packetLimitKb = 256;
  std::chrono::seconds sendEvery{0};
  bool allowHttp = false;
  PlainVector<CommonMember> common{};
  // Adds two members to the end of every record that is a JSON object, at Send: "recordId", a UUID of version
  // 7 (RFC 9562), each greater than those before it in this process, and "recordTime", such as
  // "2026-03-31T09:41:07.250Z". A record that is delivered twice has the same ones both times, so a server
  // can recognise it. A record that has a member of one of these names, or of a name in `common`, keeps its
  // own. A field of a structure counts as such a member even if it is an empty optional.
  bool stamp = false;
  // How long the destructor waits for undelivered records, like Close.
  std::chrono::milliseconds closeDeadline{2000};

  std::string signingKeyFile{};  // Ed25519 private key, PEM; empty: unsigned
  Listener listener{};
  LossListener lossListener{};
  bool sendingAllowed = true;  // see AllowSending

  // The maximum of what is in memory, on its way to the store; beyond it Send refuses. It keeps a producer
  // that is faster than the disk from filling the memory. Once it is half full, what is there is moved
  // without a pause. Bytes are those of the records as JSON. 0: no limit.
  std::uint64_t memoryLimitRecords = 100000;
  std::uint64_t memoryLimitBytes = 64 << 20;
  std::chrono::milliseconds maxAge{0};  // of a record in the store; 0: no limit
  std::uint64_t storeLimitBytes = 0;    // of all queues together; 0: no limit
  // Records go into the store in groups, which a crash of the process can lose for up to 10 ms. With this
  // each is written by itself.
  bool commitEveryRecord = false;
  // How soon a record goes from memory into the store's file, where a crash of the process can't lose it. 0:
  // with the cycle that sends it, a second after the first record. 20 ms cost little; sending keeps its pace.
  // Whatever this is, a crash loses no more than memory may hold by the limits above, and a group.
  std::chrono::milliseconds storeWithin{0};
  bool syncEveryCommit = false;  // what is written survives a crash of the machine, at the price of a sync
  // Records that have left the store are overwritten in its file. Otherwise they may stay there until their
  // place is used again; Forget leaves none in either case.
  bool secureDelete = false;
  bool shared = false;  // several processes may use the store, all with this set

  std::optional<std::string> proxy{};  // none: from the environment; empty: no proxy
  PlainVector<std::string> headers{};  // of every request to every url, each "Name: value"
  std::string userAgent{};             // empty: no header User-Agent
  std::string caFile{};                // trusted certificates in place of the system's
  std::string traceFile{};             // empty: stderr
  Log log{};                           // gets the trace in place of the file
  std::uint32_t traceLevel = 0;        // 0 nothing, 300 failures, 700 everything
  std::string modulePath{};            // of libveld_report.so; empty: it is looked for, see docs/api.md
};

// The statistics of one endpoint.
struct EndpointStatistics {
  std::string url{};  // without user and password
  std::string consumer{};
  QueueLedger ledger{};  // of its queue
  // If requests are held back, because the server asked for it or keeps failing: until when.
  std::optional<std::chrono::system_clock::time_point> waitsUntil{};
  std::uint16_t lastStatus = 0;  // 0: no answer yet
  std::string lastError{};       // empty after a good answer
};

struct Statistics {
  std::uint64_t submitted = 0;  // records that Send accepted, in this process
  std::uint64_t refused = 0;    // records that Send refused
  std::uint64_t inMemory = 0;   // upper bound: of `submitted`, those not in the store yet
  PlainVector<EndpointStatistics> endpoints{};
  // All queues of the store over its whole life, including those of former endpoints. A record for two
  // endpoints counts twice.
  QueueLedger total{};
};

// Life: open (from the constructor on) -> closing (Close was called) -> closed.
//
// Threads: any, for all operations except the destructor, even while Close runs. In the last two states
// sending returns 0x8000006b "Not initialized". A process has one reporter on a store, unless they are all
// `shared`. Until it is closed, the store's folder stays locked, and opening another reporter on it fails.
//
// fork: a reporter belongs to the process that opened it. In a child every operation returns at once, with
// 0x8000006a "Invalid state" or false, and nothing touches the store, not even the destructor. A child may
// open a reporter of its own on another store.
class Reporter {
 public:
  // Opens the store and starts. Throws ReporterError. Then nothing runs, and unless the store itself is what
  // failed, no file was made.
  explicit Reporter(ReporterOptions options);
  // The same without an exception: returns null, with the sentence in `*error` (which may be null).
  static std::unique_ptr<Reporter> TryOpen(ReporterOptions options, std::string* error = nullptr) noexcept;
  Reporter(const Reporter&) = delete;
  Reporter& operator=(const Reporter&) = delete;
  // Calls Close(closeDeadline), unless Close was called before. Throws nothing. No other operation may be
  // running. It stops waiting as Close does, and what holds up the end doesn't hold up the exit of the
  // process either. To unload a library that contains the listener's code, wait for IsClosed first.
  ~Reporter();

  // Accepts a record. It is turned into JSON on this thread and isn't used after the return; this waits for
  // neither network nor disk. `consumer` selects the endpoints; empty means all. Throws ReporterError:
  // 0x80000046 "Invalid argument", with the field, for what isn't JSON, and for a record that is larger than
  // a queue; 0x8000004c "Not found" if no endpoint has this consumer (or there are no endpoints); 0x80000062
  // "Out of space" while memory is full; 0x80000041 "Out of memory".
  template <DescribedRecord T>
  void Send(const T& record, std::string_view consumer = {}) {
    SendRecord(AnyOf(record), consumer);
  }
  void Send(const RecordBuilder& record, std::string_view consumer = {});
  // `json`: one JSON object, UTF-8. Line breaks between its tokens are dropped, nothing else is changed.
  void SendJson(std::string_view json, std::string_view consumer = {});

  // The same, with a code as the result.
  template <DescribedRecord T>
  zel::ResultCode TrySend(const T& record, std::string_view consumer = {}) noexcept {
    return TrySendRecord(AnyOf(record), consumer, nullptr);
  }
  zel::ResultCode TrySend(const RecordBuilder& record, std::string_view consumer = {}) noexcept;
  zel::ResultCode TrySendJson(std::string_view json, std::string_view consumer = {},
                              std::string* error = nullptr) noexcept;

  // Starts a send cycle now and waits. Returns true only if everything that was accepted before the call, in
  // this process or an earlier one, was answered 200 or dropped by a rule that the ledger counts (no room,
  // too old, its endpoint removed from the settings). Returns false at the deadline or if Close was called.
  // Retries at growing intervals while there is time.
  bool Flush(std::chrono::milliseconds deadline) noexcept;

  // Starts a send cycle now and waits. Returns true only if everything that was accepted before the call is
  // in the store's file, was answered 200, or was dropped by a rule that the ledger counts. In the file it
  // survives a crash of the process and, with syncEveryCommit, of the machine. It waits for no server.
  // Returns false at the deadline or if Close was called. While the disk doesn't answer, this call and Flush
  // wait for it beyond their deadline; Close doesn't.
  bool FlushToStore(std::chrono::milliseconds deadline) noexcept;

  // Accepts no more records, flushes until `deadline`, and stops. A request in flight is cancelled;
  // undelivered records stay in the store. Returns the result of that flush, even to a second caller, who
  // waits for the first. Takes at most the deadline plus 5 seconds, whatever servers, resolvers, disks and
  // listeners do. Returns early if all requests are held back beyond the deadline, or sending isn't allowed.
  //
  // If a disk or a listener takes longer, the end goes on on a thread of its own, which loses nothing that
  // was accepted. If the process ends before it, that is a crash for the store. No further call of the
  // listener begins, but one may still be running, so what it refers to must last until IsClosed.
  bool Close(std::chrono::milliseconds deadline) noexcept;
  // True once everything has ended after a Close: the threads, the calls of the listener, and the lock on the
  // store's folder.
  bool IsClosed() const noexcept;

  // Replaces the settings as a whole, from the next cycle on. The queue of a url that is gone is removed with
  // its records. Throws ReporterError with nothing changed; TrySetSettings returns the code.
  void SetSettings(const Settings& settings);
  zel::ResultCode TrySetSettings(const Settings& settings, std::string* error = nullptr) noexcept;
  // Throws ReporterError in a forked child, and std::bad_alloc.
  Settings CurrentSettings() const;

  // Replaces the listener. The previous one may still be running after the return. Throws std::bad_alloc, and
  // ReporterError in a forked child.
  void SetListener(Listener listener);
  // Replaces the loss listener, which also gets what was lost since the reporter was opened and not reported
  // yet. Throws like SetListener, and std::system_error if no thread can be started.
  void SetLossListener(LossListener listener);
  // If false, no request starts after the return, even while Close or Forget runs, and one in flight is cut.
  // Records are still accepted and stored. The last call counts.
  void AllowSending(bool allowed) noexcept;
  // Doesn't wait for the disk. Throws ReporterError if the reporter is closed.
  Statistics Stats();
  // Removes everything that is waiting, in memory and in the store, and leaves none of it readable on the
  // disk. Nothing is sent meanwhile. Afterwards the last call of AllowSending counts again, even if this
  // throws. Concurrent calls run one after another. Throws ReporterError.
  void Forget();

 private:
  class Core;

  template <class T>
  static zel::AnyPtr AnyOf(const T& record) {
    // The serialiser only reads; the contract's pointer isn't const since other services write.
    return zel::AnyPtr(const_cast<T*>(&record), VeldRecordDescriptor(&record));
  }
  void SendRecord(const zel::AnyPtr& record, std::string_view consumer);
  zel::ResultCode TrySendRecord(const zel::AnyPtr& record, std::string_view consumer,
                                std::string* error) noexcept;

  std::shared_ptr<Core> core_;  // shared with the thread that ends it
};

}  // namespace veld_report
