// SendSession: what veldrep send needs of the module and its host.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

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
  // `onOpened`: called once with the ledgers of the store, before anything is changed; what it throws ends
  // the constructor.
  SendSession(const SendOptions& options, std::function<void(const Ledgers&)> onOpened);

  // Whether memory has room for another record. Room comes with each cycle, whatever the servers do.
  bool HasRoom() { return memory_.HasRoom(); }
  // Submits one JSON object as a record. Returns why the sender refused it, or an empty text.
  std::string Submit(std::string_view json);
  // Starts a cycle without a submission: for what an earlier run left, or after the chain of cycles has
  // ended.
  void TriggerCycle();
  // Starts the cycle that a submission has scheduled now rather than within a second.
  void RunSoon();
  // Starts a cycle of the sender that delivers, even while the other one waits for a disk.
  void BeginCycle() { kit_->BeginCycle(); }
  // Why a record that was submitted waits for its store; empty if none does. No submission is refused for
  // that, so it is the caller who must wait.
  std::string WhyStoreWaits() { return queues_->WhyPushWaits(); }
  // Whether everything that has left the sender's memory is in the store's file.
  bool Commit() { return queues_->Commit(); }
  // Ends the storing: what isn't in the store's file by now never will be.
  void EndStoring() { queues_->EndPushes(); }
  // How many records each queue of the file has ever had.
  std::map<std::string, std::uint64_t> StoredItems();
  // Also after Close.
  Ledgers CurrentLedgers() { return queues_->Ledgers(); }
  // Stops sending and moves what was submitted into the queues. A second call does nothing.
  void Close() { kit_->Close(); }

  struct Failures {
    std::uint64_t answered = 0;  // requests that a server answered with another status than 200
    std::string last;            // "URL: reason"; empty if the last request of each url was good
  };
  Failures RequestFailures() const;
  // "URL: why records stand back", of the first url whose server refuses some; empty if none does. Before
  // Close only.
  std::string WhyRecordsStandBack() const;

 private:
  host::HostKitOptions KitOptions(const SendOptions& options, std::function<void(const Ledgers&)> onOpened);
  void OnRequestFinished(const FinishedRequest& request);

  const std::string to_;
  const std::vector<std::string> urls_;
  mutable std::mutex mutex_;  // guards the two members below, written by the HTTP client's thread
  Failures failures_;
  std::string failingUrl_;  // of failures_.last
  // Declared after what its callbacks use, so that it is destroyed first.
  std::unique_ptr<host::HostKit> kit_;
  host::MemoryMeter memory_;
  zel::Ref<host::QueueService> queues_;
};

}  // namespace veld_report::app
