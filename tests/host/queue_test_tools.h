// What the tests of the store share: a store in a folder of its own.
#pragma once

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "host/queue/queue_service.h"
#include "host/queue/store_maintenance.h"
#include "host/services/line_tracer.h"
#include "tests/common/files.h"
#include "tests/common/temporary_folder.h"
#include "tests/common/waiting.h"
#include "tests/host/queue_items.h"

namespace veld_report {

// The figures that aren't 0, as items/bytes.
inline void PrintTo(const QueueLedger& ledger, std::ostream* out) {
  constexpr const char* names[] = {"accepted", "delivered", "evicted", "rejected", "removed",
                                   "waiting",  "returned",  "expired", "damaged"};
  const char* separator = "";
  for (std::size_t i = 0; i < QueueLedger::figures; ++i) {
    const ItemCount& figure = *ledger.All()[i];
    if (figure == ItemCount()) continue;
    *out << separator << names[i] << " " << figure.items << "/" << figure.bytes;
    separator = ", ";
  }
}

}  // namespace veld_report

namespace veld_report::tests {

inline std::int64_t FromEnvironment(const char* name, std::int64_t otherwise) {
  const char* const text = std::getenv(name);
  return text ? std::atoll(text) : otherwise;
}

// A machine whose clocks stand still until a test moves them.
struct ManualMachine final : host::MachineClock {
  std::string_view Boot() const override { return boot; }
  std::int64_t UptimeMs() const override { return uptimeMs; }
  std::int64_t AwakeMs() const override { return uptimeMs; }
  std::int64_t CalendarMs() const override { return calendarMs; }
  void Pass(std::int64_t ms) {
    uptimeMs += ms;
    calendarMs += ms;
  }

  std::string boot = "first";
  // Read by the store's thread, too.
  std::atomic<std::int64_t> uptimeMs = 500'000;
  std::atomic<std::int64_t> calendarMs = 1'700'000'000'000;
};

// What is traced, from any thread.
class TracedLines {
  std::mutex mutex_;
  Strings lines_;

 public:
  Strings Take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
  }

  const zel::Ref<zel::ITracer> tracer = host::MakeObject<host::LineTracer>(
      host::LineTracerOptions{.level = 700, .sink = [this](std::string_view line) {
                                const std::lock_guard lock(mutex_);
                                lines_.emplace_back(line);
                              }});
};

class StoreTest : public testing::Test, protected virtual QueueOperations {
 protected:
  orvel::IQueueFactory& Factory() override { return *service; }

  // Ends the service, if there is one, before it opens the next. Producers and readers must be gone.
  void Open() {
    service.Reset();
    service = host::QueueService::Open(options);
  }
  std::filesystem::path StorePath() const { return host::StoreFilePath(options.folder, "veld_rep"); }
  QueueLedger Ledger(const std::string& queue = "q") {
    const QueueLedger ledger = service->Ledgers()[queue];
    EXPECT_TRUE(ledger.IsBalanced()) << queue << ": " << testing::PrintToString(ledger);
    return ledger;
  }
  // What a check for people finds; ends the service first.
  Strings Findings() {
    service.Reset();
    return host::CheckStore(options.folder)[0].findings;
  }

  TemporaryFolder folder;
  host::QueueServiceOptions options{.folder = folder.Path()};
  zel::Ref<host::QueueService> service;
};

}  // namespace veld_report::tests
