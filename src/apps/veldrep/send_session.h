// SendSession: what veldrep send needs of the module and its host.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "apps/veldrep/queue_room.h"
#include "apps/veldrep/send_options.h"
#include "host/kit/host_kit.h"
#include "host/kit/memory_meter.h"

namespace veld_report::app {

// Life: open -> closed. Threads: one at a time.
class SendSession {
 public:
  // Loads the module, opens the store and constructs the sender. Sends nothing before the first Submit or
  // TriggerCycle. Throws std::exception with what is missing and why.
  explicit SendSession(const SendOptions& options);

  // Whether memory has room for another record. Room comes with each cycle, whatever the servers do.
  bool HasRoom() { return memory_.HasRoom(); }
  // Submits one JSON object as a record. Returns why the sender refused it, or an empty text.
  std::string Submit(std::string_view json);
  // Starts a cycle without a submission: for what an earlier run left, or after the chain of cycles has
  // ended.
  void TriggerCycle();
  // Starts the cycle that a submission has scheduled now rather than within a second.
  void RunSoon();
  // Also after Close.
  Ledgers CurrentLedgers() { return queues_->Ledgers(); }
  // Stops sending and moves what was submitted into the queues. A second call does nothing.
  void Close() { kit_->Close(); }

  struct Failures {
    std::uint64_t answered = 0;  // requests that a server answered with another status than 200
    std::string last;            // "URL: reason"; empty if the last request of each url was good
  };
  Failures RequestFailures() const;

 private:
  host::HostKitOptions KitOptions(const SendOptions& options);
  void OnRequestFinished(const FinishedRequest& request);

  const std::string to_;
  mutable std::mutex mutex_;  // guards the two members below, written by the HTTP client's thread
  Failures failures_;
  std::string failingUrl_;  // of failures_.last
  // Declared after what its callbacks use, so that it is destroyed first.
  std::unique_ptr<host::HostKit> kit_;
  host::MemoryMeter memory_;
  zel::Ref<host::QueueService> queues_;
};

}  // namespace veld_report::app
