// What a queue service is opened with.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "contract/tracer.h"
#include "types/ref.h"

namespace veld_report::host {

struct QueueServiceOptions {
  // Where the stores lie, one file a domain. Made with mode 0700 if it doesn't exist.
  std::filesystem::path folder;

  // Pushes and acknowledgements are grouped into one transaction until there are so many of them, or 256 KiB
  // of items, or the first is so old. What a crash of the process can lose is what stands in such a group.
  std::size_t commitOperations = 512;
  std::chrono::milliseconds commitDelay{10};
  // Every Push is a transaction of its own: what it has answered 0 to survives a crash of the process.
  bool commitEveryPush = false;
  // Every transaction is synced: it survives a crash of the machine, at the price of a sync each.
  bool syncEveryCommit = false;

  // An item that is older is dropped when it comes up for reading, and counted as evicted and expired; 0:
  // never.
  std::chrono::milliseconds maxAge{0};
  // Room for the items of all queues of a domain together, in bytes; 0: no limit. An item for which there is
  // no room makes the service drop the oldest items of whichever queue is largest, and count them as evicted,
  // so one queue in trouble can't keep the others out. 0x80000062 if not even that makes room.
  std::uint64_t storeLimitBytes = 0;

  // Several processes may have the folder open, all of them with `shared` set. All may push. What is waiting
  // is sent by one at a time: a reader that doesn't make room finds nothing while readers of another process
  // are alive. The limits hold up to what the processes have in their groups.
  // Not set, a second process gets an error.
  bool shared = false;
  // For a look beside a running process: nothing is locked, made, repaired or written, and pushing, reading
  // and removing answer 0x80000042.
  bool inspectOnly = false;
  // Whether a store's structure is checked when it is opened, unless it is large and known to be sound
  // (clean_marker.h); costs a pass over the file.
  bool checkAtOpen = true;

  // Gets failures, and what a person should know; may be null. Called on any thread, also while a lock of the
  // store is held.
  zel::Ref<zel::ITracer> tracer{};
  // Milliseconds since 1970; empty for the system's clock.
  std::function<std::int64_t()> nowMs{};
  // Name of a registered SQLite VFS; empty for the default one.
  std::string vfs{};
};

}  // namespace veld_report::host
