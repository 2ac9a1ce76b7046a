#include "host/platform/fork_guard.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace veld_report::host {
namespace {

struct LockFile {
  int descriptor;
  FileIdentity identity;
  pid_t process;
  bool inherited = false;
};

// Never destroyed: a static reporter would outlive it.
struct Registry {
  std::mutex mutex;
  std::vector<LockFile> files;

  static Registry& Instance() {
    static Registry& registry = *new Registry;
    return registry;
  }

 private:
  Registry() { pthread_atfork(Prepare, InParent, InChild); }
  static void Prepare() { Instance().mutex.lock(); }
  static void InParent() { Instance().mutex.unlock(); }
  static void InChild() {
    for (LockFile& file : Instance().files) {
      if (!file.inherited) close(file.descriptor);
      file.inherited = true;
    }
    Instance().mutex.unlock();
  }
};

}  // namespace

ForkGuard::ForkGuard() : lock_(Registry::Instance().mutex) {}

void ForkGuard::Add(const File& file) {
  Registry::Instance().files.push_back({file.NativeHandle(), file.Identity(), getpid()});
}

void ForkGuard::Remove(const File& file) noexcept {
  std::erase_if(Registry::Instance().files, [&](const LockFile& each) {
    return !each.inherited && each.descriptor == file.NativeHandle();
  });
}

std::optional<std::uint64_t> ForkGuard::InheritedFrom(const std::filesystem::path& file) const {
  const FileIdentity identity = FileIdentity::Of(file);
  if (identity == FileIdentity{}) return std::nullopt;
  for (const LockFile& each : Registry::Instance().files) {
    if (each.inherited && each.identity == identity) return static_cast<std::uint64_t>(each.process);
  }
  return std::nullopt;
}

}  // namespace veld_report::host
