// The sender: the module's one creatable class with its three interfaces, and its settings.
//
// Life: created (by the factory) -> constructed (Construct returned 0) -> stopping (the last Release). Before
// Construct, and after a Construct that failed, every operation returns 0x8000006b "Not initialized". The
// three interfaces share one reference count and are reached from one another by QueryInterface.
#pragma once

#include <cstddef>

#include "contract/descriptor.h"
#include "types/basic_string.h"
#include "types/object.h"
#include "types/vector.h"

namespace orvel::veld_report {

// The element type of `certificates` is the host's own. The module only reads the two ends of the vector and
// passes them to the HTTP client. It never copies or destroys an entry.
struct OpaqueCertificate;

struct UrlEntry {
  zel::wstring url;  // used unchanged; the name of its queue is derived from it
  // The three words of a vector of the host, and its allocator.
  struct {
    const OpaqueCertificate* first = nullptr;
    const OpaqueCertificate* last = nullptr;
    const OpaqueCertificate* end = nullptr;
    zel::IAllocator* allocator = nullptr;
  } certificates;
};
static_assert(sizeof(UrlEntry) == 80 && offsetof(UrlEntry, certificates) == 48);

// The values aren't checked for plausibility.
struct SenderSettings {
  zel::vector_t<UrlEntry> urls;          // one entry for each report server
  std::uint32_t packetLimit = 1;         // maximum number of items in a packet; 0 means no limit
  std::uint32_t queueLimit = 10;         // size limit of each queue, in units of 1024 bytes
  std::uint32_t sendTimeout = 1;         // delay between cycles while data remains, in seconds
  zel::vector_t<zel::string> consumers;  // empty, or one name for each entry of `urls`, by position
};
static_assert(sizeof(SenderSettings) == 80 && offsetof(SenderSettings, packetLimit) == 32);
static_assert(offsetof(SenderSettings, queueLimit) == 36 && offsetof(SenderSettings, sendTimeout) == 40);
static_assert(offsetof(SenderSettings, consumers) == 48);

// Submission. Threads: any, at any time after Construct has returned. A call never waits for the network or
// the queues; it costs one serialisation on the caller's thread.
class IVeldReportSender : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0xcbf5f269;
  // `consumer` selects the rows of the settings that get the record; empty means all. The two pointers of
  // `data` aren't null. Returns 0 even if the attempt failed, which only the trace shows; 0x8000006b before
  // Construct.
#if defined(_MSC_VER)
  // That compiler places overloads in reverse, and has the callee destroy an argument that is passed by
  // value. So these two take the slots and the arguments of the two below.
  virtual zel::ResultCode SendStatistic(const zel::AnyPtr& data) = 0;
  virtual zel::ResultCode SendStatistic(const zel::string& consumer, const zel::AnyPtr& data) = 0;
#else
  virtual zel::ResultCode SendStatistic(const zel::string& consumer, zel::AnyPtr data) = 0;
  // The same for all consumers.
  virtual zel::ResultCode SendStatistic(zel::AnyPtr data) = 0;
#endif

 protected:
  ~IVeldReportSender() = default;
};

class IVeldReportSenderConstruct : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0xd8e3078f;
  // Looks up the services and applies the settings. Called once, before and never concurrently with any other
  // use.
  virtual zel::ResultCode Construct(const SenderSettings& settings) = 0;

 protected:
  ~IVeldReportSenderConstruct() = default;
};

class IVeldReportSenderSettings : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0xfbec0393;
  // Replaces the settings as a whole or changes nothing. Returns 0x80000046 "Invalid argument" if `consumers`
  // is neither empty nor as long as `urls`, 0x8000004b if the HTTP client refuses the certificates or a
  // service throws. Lets std::bad_alloc pass and nothing else. The next send cycle updates the queues and
  // removes those whose url is gone. Threads: any, after Construct.
  virtual zel::ResultCode SetSettings(const SenderSettings& settings) = 0;
  // Returns 0x80000043 "Not implemented".
  virtual zel::ResultCode ReservedSettingsOperation() = 0;

 protected:
  ~IVeldReportSenderSettings() = default;
};

}  // namespace orvel::veld_report
