// The options of a queue service.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "contract/tracer.h"
#include "host/platform/machine_clock.h"
#include "host/queue/delivery_pacer.h"
#include "types/ref.h"
#include "veld_report/loss.h"

namespace veld_report::host {

struct QueueServiceOptions {
  // The folder of the stores, one file for each domain. Created with mode 0700 if it doesn't exist.
  std::filesystem::path folder;

  // Pushes and acknowledgements are grouped into one transaction, until there are this many of them, or 256
  // KiB of items, or the first has waited this long. A crash of the process can lose what is in such a group.
  std::size_t commitOperations = 512;
  std::chrono::milliseconds commitDelay{10};
  // Every Push is a transaction of its own: what it returned 0 for survives a crash of the process.
  bool commitEveryPush = false;
  // While the file can't be written, a Push waits instead of being refused, until StopWaiting or EndPushes of
  // the service. For those whose source can wait, such as a program that reads a file.
  bool pushesWait = false;
  // Every transaction is synced: it survives a crash of the machine, at the cost of a sync each.
  bool syncEveryCommit = false;
  // What is delivered or dropped is overwritten in the file once its block is deleted, at the cost of writing
  // it once more. Otherwise it may stay on free pages until these are used again.
  bool secureDelete = false;

  // Older items are dropped when they are due to be read, and count as evicted and expired; 0: never.
  std::chrono::milliseconds maxAge{0};
  // Limit for the items of all queues of a domain together, in bytes; 0: no limit. For an item that doesn't
  // fit, the service drops the oldest items of the largest queue and counts them as evicted. So one failing
  // queue can't keep the others out. Push returns 0x80000062 if not even that makes room, and 0x80000046 for
  // an item that is larger than the limit.
  std::uint64_t storeLimitBytes = 0;

  // Several processes may open the folder, all of them with `shared` set. All may push. One at a time sends
  // what is waiting: a reader other than one that makes room finds nothing while readers of another process
  // are alive. The limits hold except for what the processes have in their groups. If it isn't set, a second
  // process gets an error.
  bool shared = false;
  // A reader that doesn't make room and has handed out 1024 items stops at the youngest item of that moment.
  // So one who reads a queue to its end, and then goes on to the next queue, gets there even if the queue
  // fills as fast as it is read.
  bool boundedVisits = false;
  // For inspection while another process is running: nothing is locked, created, repaired or written.
  // Pushing, reading and removing return 0x80000042.
  bool inspectOnly = false;
  // Checks a store's structure when it is opened, unless it is large and known to be good (clean_marker.h).
  // That reads the whole file.
  bool checkAtOpen = true;

  // Paces the readers that deliver; null: they hand out all they find. With one, a reader to which an item is
  // given back hands out nothing more: its packet wasn't accepted, so the next one wouldn't be either.
  // Nor does a reader while an earlier one of the queue has claims: its packet is still on the way. Readers
  // that make room aren't affected.
  std::shared_ptr<DeliveryPacer> pacer{};

  // Called for each loss that the ledger counts, and for items that can't be written at the end; may be
  // empty. An item that is refused while room is being made for it isn't lost yet. `queueName` is empty for
  // what a damaged store lost. On any thread, with a lock of the store held: it must return at once, and
  // throw nothing.
  std::function<void(const std::string& queueName, LossReason reason, ItemCount lost, const std::string& why)>
      onLoss{};

  // Receives failures and other messages for people; may be null. Called on any thread, also with a lock of
  // the store held.
  zel::Ref<zel::ITracer> tracer{};
  std::shared_ptr<const MachineClock> machine = MachineClock::System();
  // The name of a registered SQLite VFS; empty for the default.
  std::string vfs{};
};

}  // namespace veld_report::host
