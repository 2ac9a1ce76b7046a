// The sender: the module's one creatable class, by its three interfaces, and the settings that it takes.
//
// Life: created (by the factory) -> constructed (Construct answered 0) -> stopping (the last Release). Before
// Construct, and after one that failed, everything answers 0x8000006b "Not initialized". The three interfaces
// share one reference count and are reached from one another by QueryInterface.
#pragma once

#include <cstddef>

#include "contract/descriptor.h"
#include "types/basic_string.h"
#include "types/object.h"
#include "types/vector.h"

namespace orvel::veld_report {

// The element type of `certificates` is the host's own: the module reads the two ends of the vector and hands
// them to the HTTP client. It never copies or destroys an entry.
struct OpaqueCertificate;

struct UrlEntry {
  zel::wstring url;  // used unchanged; also what the name of its queue comes from
  // The three words of a vector of the host's, and its allocator.
  struct {
    const OpaqueCertificate* first = nullptr;
    const OpaqueCertificate* last = nullptr;
    const OpaqueCertificate* end = nullptr;
    zel::IAllocator* allocator = nullptr;
  } certificates;
};
static_assert(sizeof(UrlEntry) == 80 && offsetof(UrlEntry, certificates) == 48);

// Values aren't checked for sense.
struct SenderSettings {
  zel::vector_t<UrlEntry> urls;          // one entry a report server's address
  std::uint32_t packetLimit = 1;         // most items in one packet; 0 means no limit
  std::uint32_t queueLimit = 10;         // size limit of each queue, in units of 1024 bytes
  std::uint32_t sendTimeout = 1;         // delay between cycles while data remains, in seconds
  zel::vector_t<zel::string> consumers;  // empty, or one name an entry of `urls`, by position
};
static_assert(sizeof(SenderSettings) == 80 && offsetof(SenderSettings, packetLimit) == 32);
static_assert(offsetof(SenderSettings, queueLimit) == 36 && offsetof(SenderSettings, sendTimeout) == 40);
static_assert(offsetof(SenderSettings, consumers) == 48);

// Submission. Threads: any, at any time after Construct has returned. A call never waits for the network or
// for the queues; it costs one serialisation on the caller's thread.
class IVeldReportSender : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0xcbf5f269;
  // `consumer`: which rows of the settings get the record; empty for all. `data`: its two pointers aren't
  // null. Returns 0 also where the attempt failed, which only the trace tells; 0x8000006b before Construct.
  virtual zel::ResultCode SendStatistic(const zel::string& consumer, zel::AnyPtr data) = 0;
  // The same for all consumers.
  virtual zel::ResultCode SendStatistic(zel::AnyPtr data) = 0;

 protected:
  ~IVeldReportSender() = default;
};

class IVeldReportSenderConstruct : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0xd8e3078f;
  // Looks up the services and puts the settings in force. Called once, before any other use and alone.
  virtual zel::ResultCode Construct(const SenderSettings& settings) = 0;

 protected:
  ~IVeldReportSenderConstruct() = default;
};

class IVeldReportSenderSettings : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0xfbec0393;
  // Replaces the settings as one step, or changes nothing: 0x80000046 "Invalid argument" if `consumers` has
  // neither no elements nor as many as `urls`, 0x8000004b if the HTTP client refuses the certificates or a
  // service throws. Lets std::bad_alloc pass, and nothing else. The next send cycle brings the queues in
  // line; queues of other urls are removed then. Threads: any, after Construct.
  virtual zel::ResultCode SetSettings(const SenderSettings& settings) = 0;
  // Answers 0x80000043 "Not implemented".
  virtual zel::ResultCode ReservedSettingsOperation() = 0;

 protected:
  ~IVeldReportSenderSettings() = default;
};

}  // namespace orvel::veld_report
