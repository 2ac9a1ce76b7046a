// The persistent queues of the contract in SQLite: one file for each domain, in a folder that the user
// chooses.
//
// It differs from a plain table with a lock in three ways. Changes are grouped into transactions of up to 512
// (QueueServiceOptions), so a Push costs a copy in memory. A crash of the process can then lose up to 10
// milliseconds of items for which Push has returned 0, unless commitEveryPush is set. A reader holds its
// items as claims in memory: no other reader gets an item until the claim is given back, or the reader or the
// process is gone. And a token is never reused, not even after restarts or in emptied queues.
//
// Producers and readers may outlive the service: the file is closed with the last of them.
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

// What the calling thread's readers have handed out since its last call of this function or the opening of a
// reader, apart from readers that make room. So a thread that reads a packet and then sends it learns what is
// in the packet.
ItemCount TakePacketTally() noexcept;

// The domain that the module uses.
inline constexpr char defaultDomain[] = "veld_rep";

// Threads: any for everything. Operations of the contract return 0x80000046 for a domain name that isn't 1 to
// 64 letters, digits, '_' or '-'. For a domain whose store can't be opened, they trace that and return a
// failure. The other operations throw StoreError, whose text is for people, and std::exception for the rest.
class QueueService final : public HostObject<orvel::IQueueFactory> {
 public:
  // Opens the folder and every store in it. Throws StoreError with a sentence that says what to do: no
  // permission to write, a folder that another process is using, a store of a later layout.
  static zel::Ref<QueueService> Open(const QueueServiceOptions& options);

  // A reader on a queue that doesn't exist finds no items and doesn't create the queue.
  zel::ResultCode CreateAckConsumer(const zel::string& domain, const zel::string& queueName,
                                    orvel::IAckConsumer** out) override;
  zel::ResultCode CreateProducer(const zel::string& domain, const zel::string& queueName,
                                 std::uint32_t sizeLimitBytes, orvel::IQueueProducer** out) override;
  // If RemoveQueue is called while producers and readers of the queue exist, their claims become void: Ack
  // and ReturnItem of removed items return 0x8000004c and do nothing. A later Push creates the queue again.
  zel::ResultCode CreateQueueManager(const zel::string& domain, orvel::IQueueManager** out) override;

  // The waiting items, in the order of the queue names. None of these claims or changes an item.
  std::vector<QueueInfo> ListQueues(const std::string& domain = defaultDomain);
  // The oldest `count` items of a queue, including claimed ones.
  std::vector<PeekedItem> PeekItems(const std::string& queueName, std::size_t count,
                                    const std::string& domain = defaultDomain);
  // For each queue name ever used the token of the last item that was written to the file. After a Commit
  // that returned true, what was accepted before in a queue has a token up to this one, and what comes after
  // it a greater one.
  std::map<std::string, std::uint64_t> LastTokens(const std::string& domain = defaultDomain);
  ItemCount TotalWaiting(const std::string& domain = defaultDomain);
  // The ledger of every queue name ever used (queue_ledger.h).
  std::map<std::string, QueueLedger> Ledgers(const std::string& domain = defaultDomain);

  // Removes a queue and its items, from the log too. Returns true if there was one.
  bool ClearQueue(const std::string& queueName, const std::string& domain = defaultDomain);
  // Removes all queues and leaves nothing readable of any item: the file is rewritten, the log emptied, and
  // all files that were moved aside from this domain are deleted. The ledger's figures stay. Throws if that
  // isn't possible now; what was removed stays removed.
  void Forget(const std::string& domain = defaultDomain);
  // Writes the buffer. Returns true if everything accepted is in the file.
  bool Commit(const std::string& domain = defaultDomain);

  // With pushesWait: why a Push is waiting; empty if none is.
  std::string WhyPushWaits(const std::string& domain = defaultDomain);
  // From now on pushes don't wait.
  void StopWaiting();
  // Writes the buffer. What can't be written is taken back, as if it had never been offered, and so is every
  // later Push: it returns 0x80000063. So LastTokens then says what is stored for good. Returns true if
  // everything accepted before is.
  bool EndPushes(const std::string& domain = defaultDomain);

  QueueService(const QueueServiceOptions& options, std::shared_ptr<FileLock> folderLock);

 private:
  // Throws StoreError.
  std::shared_ptr<QueueStore> Store(const std::string& domain);
  // Runs `body` with the domain's store. Traces a failure and returns its code.
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
