// veldrep queues: what is waiting in a store, even while a sender is running.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <utility>

#include "apps/veldrep/command.h"
#include "apps/veldrep/option_checks.h"
#include "apps/veldrep/text.h"
#include "host/base/printable.h"
#include "host/kit/url_states.h"
#include "host/platform/file.h"
#include "host/queue/queue_service.h"
#include "host/queue/store_folder.h"
#include "host/services/queue_name.h"
#include "veld_report/loss.h"

namespace veld_report::app {
namespace {

struct QueuesOptions {
  std::string store;
  bool json = false;
  std::string queue;  // a url or a queue's name
  std::size_t count = 10;
  bool all = false;
};

zel::Ref<host::QueueService> OpenStore(const QueuesOptions& options, bool inspectOnly) {
  // The service would create a missing store; a command that only looks must not.
  const std::filesystem::path file = host::StoreFilePath(host::FromUtf8(options.store), host::defaultDomain);
  CheckStoreAccess(options.store);
  CheckStoreAccess(host::Utf8(file));
  if (!host::FileStatus::Of(file)) throw Failure(options.store, "there is no store in this folder");
  host::QueueServiceOptions service;
  service.folder = host::FromUtf8(options.store);
  service.inspectOnly = inspectOnly;
  return host::QueueService::Open(service);
}

std::string QueueName(const std::string& urlOrName) {
  return urlOrName.find("://") == std::string::npos ? urlOrName : host::QueueNameOfUrl(urlOrName);
}

// Finds the queue by name, so that a typo isn't mistaken for an empty queue.
host::QueueInfo Find(host::QueueService& service, const std::string& urlOrName) {
  const std::string name = QueueName(urlOrName);
  for (const host::QueueInfo& each : service.ListQueues()) {
    if (each.name == name) return each;
  }
  throw Failure(urlOrName, "the store has no such queue" + (name == urlOrName ? "" : " (" + name + ")") +
                               "; veldrep queues lists them");
}

// A queue and, if the sender has recorded it, its url and the state of sending there.
struct ListedQueue {
  host::QueueInfo queue;
  host::UrlState state;
  QueueLedger ledger;
};

// What a ledger counts as lost.
std::vector<std::pair<LossReason, ItemCount>> Losses(const QueueLedger& ledger) {
  ItemCount evicted = ledger.evicted, removed = ledger.removed;
  evicted += -ledger.expired;
  removed += -ledger.damaged;
  return {{LossReason::evicted, evicted},
          {LossReason::expired, ledger.expired},
          {LossReason::rejected, ledger.rejected},
          {LossReason::removed, removed},
          {LossReason::damaged, ledger.damaged}};
}

ItemCount TotalLoss(const QueueLedger& ledger) {
  ItemCount total = ledger.evicted;
  for (const ItemCount& part : {ledger.rejected, ledger.removed}) total += part;
  return total;
}

// Removed queues are listed too if something of them was lost.
std::vector<ListedQueue> ListedQueues(const QueuesOptions& options) {
  const auto states = host::UrlStateFile::Read(host::FromUtf8(options.store));
  const auto service = OpenStore(options, true);
  auto ledgers = service->Ledgers();
  std::vector<ListedQueue> listed;
  const auto add = [&](host::QueueInfo queue, const QueueLedger& ledger) {
    const auto state = std::ranges::find(states, queue.name, &host::UrlState::queueName);
    listed.push_back({std::move(queue), state == states.end() ? host::UrlState() : *state, ledger});
  };
  for (host::QueueInfo& queue : service->ListQueues()) {
    const auto ledger = ledgers.extract(queue.name);
    add(std::move(queue), ledger ? ledger.mapped() : QueueLedger());
  }
  for (const auto& [name, ledger] : ledgers) {
    if (TotalLoss(ledger).items != 0) add({.name = name, .oldestAgeMs = {}}, ledger);
  }
  return listed;
}

std::string LossesAsJson(const QueueLedger& ledger) {
  std::string text;
  for (const auto& [reason, lost] : Losses(ledger)) {
    text += (text.empty() ? "{\"" : ",\"") + std::string(LossReasonText(reason)) +
            "\":{\"items\":" + std::to_string(lost.items) + ",\"bytes\":" + std::to_string(lost.bytes) + '}';
  }
  return text + '}';
}

// How much longer the sender holds back requests to the url; 0 if it doesn't.
std::int64_t WaitsMs(const host::UrlState& state) {
  if (!state.http.waitsUntil) return 0;
  const auto left = *state.http.waitsUntil - std::chrono::system_clock::now();
  return std::max<std::int64_t>(0, std::chrono::duration_cast<std::chrono::milliseconds>(left).count());
}

std::string WhyItWaits(const host::UrlState& state) {
  std::string why = state.http.lastError;
  if (why.empty() && state.http.lastStatus != 0) why = "last answer " + std::to_string(state.http.lastStatus);
  const std::int64_t waitsMs = WaitsMs(state);
  if (waitsMs != 0) why = "backing off for " + Duration(waitsMs) + (why.empty() ? "" : ": " + why);
  return why.empty() ? "-" : why;
}

void PrintJson(const std::vector<ListedQueue>& listed) {
  std::string text = "[";
  for (const auto& [queue, state, ledger] : listed) {
    if (text.size() > 1) text += ',';
    text += "{\"name\":" + JsonString(queue.name) + ",\"items\":" + std::to_string(queue.items) +
            ",\"bytes\":" + std::to_string(queue.bytes) +
            ",\"oldest_age_ms\":" + (queue.oldestAgeMs ? std::to_string(*queue.oldestAgeMs) : "null") +
            ",\"lost\":" + LossesAsJson(ledger);
    if (!state.queueName.empty()) {
      text += ",\"url\":" + JsonString(state.http.url) + ",\"waits_ms\":" + std::to_string(WaitsMs(state)) +
              ",\"failures\":" + std::to_string(state.http.failures) +
              ",\"last_status\":" + std::to_string(state.http.lastStatus) +
              ",\"last_error\":" + JsonString(state.http.lastError);
    }
    text += '}';
  }
  std::printf("%s]\n", text.c_str());
}

int List(const QueuesOptions& options) {
  const auto listed = ListedQueues(options);
  if (options.json) {
    PrintJson(listed);
    return exitOk;
  }
  std::printf("%-32s %10s %14s %10s %10s  %s\n", "QUEUE", "ITEMS", "BYTES", "OLDEST", "LOST",
              "URL AND STATE");
  QueueLedger sum;
  for (const auto& [queue, state, ledger] : listed) {
    const std::string url = state.queueName.empty() ? "-" : state.http.url + "  " + WhyItWaits(state);
    std::printf("%-32s %10lld %14lld %10s %10lld  %s\n", host::WithoutControls(queue.name).c_str(),
                static_cast<long long>(queue.items), static_cast<long long>(queue.bytes),
                queue.oldestAgeMs ? Duration(*queue.oldestAgeMs).c_str() : "-",
                static_cast<long long>(TotalLoss(ledger).items), host::WithoutControls(url).c_str());
    sum += ledger;
  }
  std::string lost;
  for (const auto& [reason, count] : Losses(sum)) {
    if (count.items == 0) continue;
    lost += (lost.empty() ? "" : ", ") + std::string(LossReasonText(reason)) + ' ' +
            std::to_string(count.items) + " items of " + std::to_string(count.bytes) + " bytes";
  }
  if (!lost.empty()) std::printf("lost in all: %s\n", lost.c_str());
  return exitOk;
}

int Peek(const QueuesOptions& options) {
  const auto service = OpenStore(options, true);
  const host::QueueInfo queue = Find(*service, options.queue);
  for (const host::PeekedItem& each : service->PeekItems(queue.name, options.count)) {
    if (options.json) {
      std::printf("{\"age_ms\":%lld,\"bytes\":%zu,\"item\":%s}\n", static_cast<long long>(each.ageMs),
                  each.bytes.size(), JsonString(each.bytes).c_str());
    } else {
      std::printf("%s\n", host::WithoutControls(each.bytes).c_str());
    }
  }
  return exitOk;
}

void PrintRemoved(const QueuesOptions& options, const ItemCount& removed) {
  const char* const form = options.json ? "{\"removed_items\":%lld,\"removed_bytes\":%lld}\n"
                                        : "removed %lld items of %lld bytes\n";
  std::printf(form, static_cast<long long>(removed.items), static_cast<long long>(removed.bytes));
}

int ClearAll(const QueuesOptions& options) {
  const auto service = OpenStore(options, false);
  const ItemCount waiting = service->TotalWaiting();
  service->Forget();
  PrintRemoved(options, waiting);
  return exitOk;
}

int Clear(const QueuesOptions& options) {
  if (options.all != options.queue.empty()) {
    throw WrongCommandLine("queues clear: give a url, a queue's name or --all");
  }
  if (options.all) return ClearAll(options);
  const auto service = OpenStore(options, false);
  const host::QueueInfo queue = Find(*service, options.queue);
  service->ClearQueue(queue.name);
  if (!service->Commit())
    throw Failure(options.store, "the removal can't be written; make room on the disk and try again");
  PrintRemoved(options, {queue.items, queue.bytes});
  return exitOk;
}

CLI::App* AddPart(CLI::App* command, const std::string& name, const char* description) {
  CLI::App* const part = command->add_subcommand(name, description);
  part->fallthrough();
  return part;
}

CLI::Option* AddQueue(CLI::App* part, QueuesOptions* options) {
  return part->add_option("QUEUE", options->queue, "url of the queue, or its name")->type_name("URL|NAME");
}

void AddList(CLI::App* command) {
  CLI::App* const part = AddPart(
      command, "list",
      "lists each queue: items, bytes, age of the oldest item, items lost, url and why it waits (default)");
  part->footer("Example: veldrep queues --store /var/lib/app/telemetry list --json");
}

const CLI::App* AddPeek(CLI::App* command, QueuesOptions* options) {
  CLI::App* const part =
      AddPart(command, "peek", "shows the oldest items of a queue, one per line; removes nothing");
  AddQueue(part, options)->required();
  part->add_option("-n", options->count, "number of items")
      ->type_name("N")
      ->check(NumberFrom(1, 1000000))
      ->capture_default_str();
  part->footer(
      "Example: veldrep queues --store /var/lib/app/telemetry peek https://stats.example.com/v1 -n 3");
  return part;
}

const CLI::App* AddClear(CLI::App* command, QueuesOptions* options) {
  CLI::App* const part = AddPart(command, "clear", "permanently removes a queue and its items");
  AddQueue(part, options);
  part->add_flag("--all", options->all,
                 "every queue and every trace of its items, including damaged stores that were set aside");
  part->footer("Example: veldrep queues --store /var/lib/app/telemetry clear https://stats.example.com/v1");
  return part;
}

}  // namespace

Command MakeQueuesCommand(CLI::App& program) {
  CLI::App* const command =
      program.add_subcommand("queues", "Lists, shows and clears the queues of a store.");
  const auto options = std::make_shared<QueuesOptions>();
  command->add_option("--store", options->store, "folder of the store")->type_name("DIR")->required();
  command->add_flag("--json", options->json, "print JSON with exact numbers, for scripts");
  command->require_subcommand(0, 1);
  AddList(command);
  const CLI::App* const peek = AddPeek(command, options.get());
  const CLI::App* const clear = AddClear(command, options.get());
  command->footer(
      "list and peek also work while a sender runs; clear needs exclusive use of the store.\n"
      "Example: veldrep queues --store /var/lib/app/telemetry\n"
      "         veldrep queues --store /var/lib/app/telemetry peek https://stats.example.com/v1 -n 3");
  return {command, [options, peek, clear] {
            if (peek->parsed()) return Peek(*options);
            if (clear->parsed()) return Clear(*options);
            return List(*options);
          }};
}

}  // namespace veld_report::app
