// veldrep store: maintenance of a store that no process is using.
#include <cstdio>
#include <filesystem>
#include <memory>

#include "apps/veldrep/command.h"
#include "host/platform/file.h"
#include "host/queue/store_maintenance.h"

namespace veld_report::app {
namespace {

struct StoreOptions {
  std::string store;
};

void RequireStore(const StoreOptions& options) {
  CheckStoreAccess(options.store);
  if (!host::IsFolder(host::FromUtf8(options.store)) ||
      host::StoredDomains(host::FromUtf8(options.store)).empty())
    throw Failure(options.store, "there is no store in this folder");
}

// Damage is a failure of the command, so that a script only needs the exit code.
int Check(const StoreOptions& options) {
  RequireStore(options);
  bool good = true;
  for (const host::StoreCheck& each : host::CheckStore(host::FromUtf8(options.store))) {
    std::printf("%s.queue: %s, %lld items of %lld bytes waiting, %llu bytes on disk\n", each.domain.c_str(),
                each.IsGood() ? "good" : "DAMAGED", static_cast<long long>(each.waiting.items),
                static_cast<long long>(each.waiting.bytes), static_cast<unsigned long long>(each.fileBytes));
    for (const std::string& finding : each.findings) std::printf("  %s\n", finding.c_str());
    good = good && each.IsGood();
  }
  std::fflush(stdout);
  if (good) return exitOk;
  throw Failure(options.store, "the store is damaged; recover what can be read with veldrep store salvage");
}

int Salvage(const StoreOptions& options) {
  RequireStore(options);
  const auto reports = host::SalvageStore(host::FromUtf8(options.store));
  for (const host::SalvageReport& each : reports) std::printf("%s\n", host::Describe(each).c_str());
  if (reports.empty()) std::printf("nothing to salvage\n");
  return exitOk;
}

int Compact(const StoreOptions& options) {
  RequireStore(options);
  for (const host::StoreCompaction& each : host::CompactStore(host::FromUtf8(options.store))) {
    std::printf("%s.queue: %llu bytes before, %llu bytes after\n", each.domain.c_str(),
                static_cast<unsigned long long>(each.bytesBefore),
                static_cast<unsigned long long>(each.bytesAfter));
  }
  return exitOk;
}

const CLI::App* AddPart(CLI::App* command, const std::string& name, const char* description) {
  CLI::App* const part = command->add_subcommand(name, description);
  part->fallthrough();
  part->footer("Example: veldrep store " + name + " --store /var/lib/app/telemetry");
  return part;
}

}  // namespace

Command MakeStoreCommand(CLI::App& program) {
  CLI::App* const command = program.add_subcommand("store", "Checks, salvages and compacts a store.");
  const auto options = std::make_shared<StoreOptions>();
  command->add_option("--store", options->store, "folder of the store; no process may be using it")
      ->type_name("DIR")
      ->required();
  command->require_subcommand(1);
  const CLI::App* const check =
      AddPart(command, "check", "reads the whole store and changes nothing; exit code 1 if it is damaged");
  const CLI::App* const salvage =
      AddPart(command, "salvage", "sets a damaged file aside and recovers what can be read from it");
  AddPart(command, "compact", "returns free space in the files to the file system");
  command->footer("Example: veldrep store check --store /var/lib/app/telemetry");
  return {command, [options, check, salvage] {
            if (check->parsed()) return Check(*options);
            if (salvage->parsed()) return Salvage(*options);
            return Compact(*options);
          }};
}

}  // namespace veld_report::app
