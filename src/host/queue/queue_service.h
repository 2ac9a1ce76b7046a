// The persistent queues of the contract, kept in SQLite: one file a domain, in a folder of the user's choice.
//
// It differs from a plain table with a lock around it in three ways. Changes are grouped into transactions of
// up to 512 (QueueServiceOptions), so a Push costs a copy in memory; what is answered 0 can be lost within
// those 10 milliseconds if the process crashes, unless commitEveryPush is set. What a reader holds is a claim
// in memory: another reader doesn't get the item until the claim is given back, or the reader or the process
// is gone. And a token is never used again, also across restarts and emptied queues.
//
// A producer or reader outlives the service: the file closes when the last of them is gone.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "contract/queue.h"
#include "host/base/host_object.h"
#include "host/queue/queue_service_options.h"
#include "host/queue/queue_store.h"

namespace veld_report::host {

using veld_report::ItemCount;
using veld_report::QueueLedger;

// The domain that the module uses.
inline constexpr char defaultDomain[] = "veld_rep";

// Threads: any for everything. Operations of the contract answer 0x80000046 for a domain name that isn't 1 to
// 64 letters, digits, '_' or '-', and a failure for a domain whose store can't be opened, with a trace line.
// The other operations throw StoreError, whose text is for people, and std::exception for the rest.
class QueueService final : public HostObject<orvel::IQueueFactory> {
 public:
  // Opens the folder and every store in it. Throws StoreError with a sentence that says what to do: no right
  // to write, a folder that another process uses, a store of a later layout.
  static zel::Ref<QueueService> Open(const QueueServiceOptions& options);

  // A reader on a queue that doesn't exist finds no items; it doesn't make the queue.
  zel::ResultCode CreateAckConsumer(const zel::string& domain, const zel::string& queueName,
                                    orvel::IAckConsumer** out) override;
  zel::ResultCode CreateProducer(const zel::string& domain, const zel::string& queueName,
                                 std::uint32_t sizeLimitBytes, orvel::IQueueProducer** out) override;
  // RemoveQueue while producers and readers of the queue exist: their claims are void, Ack and ReturnItem of
  // removed items answer 0x8000004c and do nothing, and a later Push makes the queue anew.
  zel::ResultCode CreateQueueManager(const zel::string& domain, orvel::IQueueManager** out) override;

  // What waits, in the order of the names. None of these claims an item or changes one.
  std::vector<QueueInfo> ListQueues(const std::string& domain = defaultDomain);
  // The oldest `count` items of a queue, claimed ones included.
  std::vector<PeekedItem> PeekItems(const std::string& queueName, std::size_t count,
                                    const std::string& domain = defaultDomain);
  // The token of the youngest item that was ever written to the file, 0 if there was none. Behind a Commit
  // that answered true it covers all that was accepted before: what has a greater token came later.
  std::uint64_t LastToken(const std::string& domain = defaultDomain);
  ItemCount TotalWaiting(const std::string& domain = defaultDomain);
  // The ledger of every queue name that has ever been used (queue_ledger.h).
  std::map<std::string, QueueLedger> Ledgers(const std::string& domain = defaultDomain);

  // Removes a queue and its items, also from the log. Returns whether there was one.
  bool ClearQueue(const std::string& queueName, const std::string& domain = defaultDomain);
  // Removes all queues and leaves nothing readable of any item behind: the file is written anew, the log
  // emptied, and what was ever moved aside of the domain is deleted. The ledger's figures stay. Throws if
  // that can't be done now; then what was removed stays removed.
  void Forget(const std::string& domain = defaultDomain);
  // Writes what is buffered. Returns whether everything that was accepted stands in the file.
  bool Commit(const std::string& domain = defaultDomain);

  QueueService(const QueueServiceOptions& options, std::shared_ptr<FileLock> folderLock);

 private:
  // Throws StoreError.
  std::shared_ptr<QueueStore> Store(const std::string& domain);
  // Runs `body` with the domain's store; failures become a trace line and a code.
  template <class Body>
  zel::ResultCode WithStore(const zel::string& domain, bool needsWriting, Body&& body);
  void RequireWritable() const;
  static void Compact(QueueStore& store, bool rebuild);

  const QueueServiceOptions options_;
  const std::shared_ptr<FileLock> folderLock_;
  std::mutex mutex_;  // guards stores_; held while a store is opened
  std::map<std::string, std::shared_ptr<QueueStore>> stores_;
};

}  // namespace veld_report::host
