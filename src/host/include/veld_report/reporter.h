// Reporter: records from an application to its report servers, at least once, through a store on disk.
//
//   veld_report::Reporter reporter({.store = "/var/lib/app/telemetry",
//                                   .endpoints = {{.url = "https://stats.example.com/v1"}}});
//   reporter.Send(AppStarted{"4.2.0", 312, true});
//
// A record goes into memory at once, within a second into the store, and from there to the servers until they
// answer 200, across restarts and outages. It differs from a log or a queue of messages in that nobody waits
// for it and nothing is read back. Not for data whose loss within that second matters
// (FlushToStore ends it), and not for large ones: a record stands in memory several times on its way.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "host/queue/queue_ledger.h"
#include "host/services/finished_request.h"
#include "types/result_code.h"
#include "veld_report/record.h"
#include "veld_report/record_builder.h"

namespace veld_report {

using host::FinishedRequest;
using host::ItemCount;
using host::QueueLedger;

// What went wrong, as a sentence that says what, where and what to do, and as a code.
class ReporterError : public std::runtime_error {
 public:
  ReporterError(zel::ResultCode code, const std::string& what) : std::runtime_error(what), code_(code) {}
  zel::ResultCode Code() const { return code_; }

 private:
  zel::ResultCode code_;
};

// One report server. Two with the same url share a queue and get what is for both of them twice.
struct Endpoint {
  std::string url{};       // http:// or https://, UTF-8. Another url is another queue.
  std::string consumer{};  // records that are sent to a consumer go to its endpoints, others to all
  // CA certificates as PEM texts, or pins of the server's key as "sha256//BASE64". With any given, only they
  // count for this url (host/http/http_client.h).
  std::vector<std::string> certificates{};
};

// What can be changed at run time.
struct Settings {
  std::vector<Endpoint> endpoints{};
  std::uint32_t packetLimit = 100;        // most records in one request; 0: no limit
  std::uint32_t queueLimitKb = 10 << 10;  // of each endpoint's queue; a full one drops its oldest records
  std::chrono::seconds retryAfter{30};    // from a cycle that left records undelivered to the next one
};

// Called for each request that has ended, on a thread of the HTTP client; it should return soon, what it
// throws is dropped, and it must not close or destroy the reporter.
using Listener = std::function<void(const FinishedRequest&)>;

struct ReporterOptions {
  std::string store{};  // the folder of the store, made if it isn't there; required
  std::vector<Endpoint> endpoints{};
  std::uint32_t packetLimit = 100;
  std::uint32_t queueLimitKb = 10 << 10;
  std::chrono::seconds retryAfter{30};
  // How long the destructor waits for what is still undelivered, as Close does.
  std::chrono::milliseconds closeDeadline{2000};

  std::string signingKeyFile{};  // Ed25519 private key, PEM; empty: unsigned
  Listener listener{};
  bool sendingAllowed = true;  // see AllowSending

  // Most records in memory, on their way to the store; when there are more, Send refuses. It keeps a producer
  // that is faster than the disk from filling the memory. Once it is half full, cycles follow one another
  // without a pause; but while a cycle sends, nothing leaves memory.
  std::uint64_t memoryLimitRecords = 100000;
  std::chrono::milliseconds maxAge{0};  // of a record in the store; 0: no limit
  std::uint64_t storeLimitBytes = 0;    // of all queues together; 0: no limit
  bool commitEveryRecord = false;       // see host/queue/queue_service_options.h for both
  bool syncEveryCommit = false;
  bool shared = false;  // several processes may use the store, all with this set

  std::optional<std::string> proxy{};  // none: from the environment; empty: no proxy
  std::string caFile{};                // trusted certificates in place of the system's
  std::string traceFile{};             // empty: stderr
  std::uint32_t traceLevel = 0;        // 0 nothing, 300 failures, 700 everything
  std::string modulePath{};            // of libveld_report.so; empty: where it is usually found
};

// One endpoint's side of the statistics.
struct EndpointStatistics {
  std::string url{};  // without user and password
  std::string consumer{};
  QueueLedger ledger{};  // of its queue
  // Requests are held back until then, because the server asked for it or keeps failing.
  std::optional<std::chrono::system_clock::time_point> waitsUntil{};
  std::uint16_t lastStatus = 0;  // 0: no answer yet
  std::string lastError{};       // empty after a good answer
};

struct Statistics {
  std::uint64_t submitted = 0;  // records that Send took, in this process
  std::uint64_t refused = 0;    // records that Send refused
  std::uint64_t inMemory = 0;   // of `submitted`, at most so many haven't reached the store yet
  std::vector<EndpointStatistics> endpoints{};
  // All queues of the store, those of former endpoints included, over its whole life. A record that goes to
  // two endpoints counts twice.
  QueueLedger total{};
};

// Life: open (from the constructor on) -> closing (Close has been called) -> closed.
//
// Threads: any, for all operations but the destructor, also while Close runs. In the last two states sending
// answers 0x8000006b "Not initialized". One process has one reporter on a store, unless both are `shared`.
class Reporter {
 public:
  // Opens the store and starts. Throws ReporterError, and then nothing is left behind.
  explicit Reporter(ReporterOptions options);
  // The same without an exception: null, with the sentence in `*error` (which may be null).
  static std::unique_ptr<Reporter> TryOpen(ReporterOptions options, std::string* error = nullptr) noexcept;
  Reporter(const Reporter&) = delete;
  Reporter& operator=(const Reporter&) = delete;
  // Close(closeDeadline), if that hasn't been done. Throws nothing. Nobody may be inside another operation.
  ~Reporter();

  // Takes a record. It is turned into JSON on this thread and done with on return; no network and no disk is
  // waited for. `consumer`: which endpoints get it; empty: all. Throws ReporterError: 0x80000046 "Invalid
  // argument" for what isn't JSON, with the field; 0x8000004c "Not found" if no endpoint has this consumer
  // (or there is no endpoint at all); 0x80000062 "Out of space" while memoryLimitRecords are in memory;
  // 0x80000041 "Out of memory".
  template <DescribedRecord T>
  void Send(const T& record, std::string_view consumer = {}) {
    SendRecord(AnyOf(record), consumer);
  }
  void Send(const RecordBuilder& record, std::string_view consumer = {});
  // `json`: one JSON value, UTF-8. Line breaks between its tokens are left out, nothing else is changed.
  void SendJson(std::string_view json, std::string_view consumer = {});

  // The same, with the code as the result.
  template <DescribedRecord T>
  zel::ResultCode TrySend(const T& record, std::string_view consumer = {}) noexcept {
    return TrySendRecord(AnyOf(record), consumer, nullptr);
  }
  zel::ResultCode TrySend(const RecordBuilder& record, std::string_view consumer = {}) noexcept;
  zel::ResultCode TrySendJson(std::string_view json, std::string_view consumer = {},
                              std::string* error = nullptr) noexcept;

  // Starts a send cycle now and waits. Returns true only if everything that was accepted before the call, in
  // this process or an earlier one, has been answered 200 or was dropped by a rule that the ledger tells of
  // (no room, too old, its endpoint taken out of the settings). False: not by the deadline, or Close was
  // called. Tries again, at growing intervals, as long as there is time.
  bool Flush(std::chrono::milliseconds deadline) noexcept;

  // Starts a send cycle now and waits. Returns true only if everything that was accepted before the call is
  // in the store's file, where a crash of the process doesn't reach it (nor one of the machine, with
  // syncEveryCommit), has been answered 200, or was dropped by a rule that the ledger tells of. It doesn't
  // wait for what its own cycle sends, but the cycle that may be in progress has to end first, and that takes
  // longer where servers answer slowly. False: not by the deadline, or Close was called.
  bool FlushToStore(std::chrono::milliseconds deadline) noexcept;

  // Takes no more records, flushes as long as `deadline`, and stops: a request in flight is ended, and what
  // is undelivered stays in the store. Returns what that flush returned, also to a second caller, who waits
  // for the first. Takes at most the deadline plus 5 seconds, whatever servers and resolvers do.
  bool Close(std::chrono::milliseconds deadline) noexcept;

  // Replaces the settings as one step; in force from the next cycle on. The queue of a url that is no longer
  // there goes with its records. Throws ReporterError with nothing changed; TrySetSettings gives the code.
  void SetSettings(const Settings& settings);
  zel::ResultCode TrySetSettings(const Settings& settings, std::string* error = nullptr) noexcept;
  Settings CurrentSettings() const;

  // Replaces the listener. A call of the former one may still be running on return. Throws std::bad_alloc.
  void SetListener(Listener listener);
  // With false no request starts any more from the return on, also while Close or Forget runs, and one in
  // flight is cut; records are still taken and stored. What is said last holds.
  void AllowSending(bool allowed) noexcept;
  // Throws ReporterError if the store can't be read, or the reporter is closed.
  Statistics Stats();
  // Removes everything that waits, in memory and in the store, and leaves nothing of it readable on the disk.
  // Nothing is sent meanwhile; afterwards AllowSending's last word holds, also if this throws. Two calls at
  // once go one after the other. Throws ReporterError.
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

  const std::unique_ptr<Core> core_;
};

}  // namespace veld_report
