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

  // Pushes and acknowledgements are grouped into one transaction until there are so many of them, or the
  // first is so old. What a crash of the process can lose is what stands in such a group.
  std::size_t commitOperations = 64;
  std::chrono::milliseconds commitDelay{10};
  // Every Push is a transaction of its own: what it has answered 0 to survives a crash of the process.
  bool commitEveryPush = false;
  // Every transaction is synced: it survives a crash of the machine, at the price of a sync each.
  bool syncEveryCommit = false;

  // Gets failures, and what a person should know; may be null. Called on any thread, also while a lock of the
  // store is held.
  zel::Ref<zel::ITracer> tracer{};
  // Milliseconds since 1970; empty for the system's clock.
  std::function<std::int64_t()> nowMs{};
  // Name of a registered SQLite VFS; empty for the default one.
  std::string vfs{};
};

}  // namespace veld_report::host
