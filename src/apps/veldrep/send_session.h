// SendSession: the module with a host around it, as much as veldrep send needs of them.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "apps/veldrep/pacer.h"
#include "apps/veldrep/send_options.h"
#include "host/kit/host_kit.h"

namespace veld_report::app {

// Life: open -> closed. Threads: one at a time.
class SendSession {
 public:
  // Loads the module, opens the store and constructs the sender. Nothing is sent before the first Submit or
  // TriggerCycle. Throws std::exception: what can't be had and why.
  explicit SendSession(const SendOptions& options);

  // One JSON object as a record. Returns why the sender didn't take it, or an empty text.
  std::string Submit(std::string_view json);
  // Starts a cycle by itself, for what an earlier run left behind and for a chain of cycles that has ended.
  void TriggerCycle();
  // Begins at once with the cycle that a submission has asked for; without it that takes up to a second.
  void RunSoon();
  // Also after Close.
  Ledgers CurrentLedgers() { return queues_->Ledgers(); }
  // Ends the sending and moves what was submitted into the queues. A second call does nothing.
  void Close() { kit_->Close(); }

  struct Failures {
    std::uint64_t requests = 0;
    std::string last;  // "URL: what came of it"
  };
  Failures RequestFailures() const;

 private:
  host::HostKitOptions KitOptions(const SendOptions& options);
  void OnRequestFinished(const host::FinishedRequest& request);

  const std::string to_;
  mutable std::mutex mutex_;  // guards failures_, which the HTTP client's thread writes
  Failures failures_;
  // Behind what its callbacks use, so that it goes first.
  std::unique_ptr<host::HostKit> kit_;
  zel::Ref<host::QueueService> queues_;
};

}  // namespace veld_report::app
