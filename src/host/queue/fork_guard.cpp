#include "host/queue/fork_guard.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace veld_report::host {
namespace {

struct LockFile {
  int descriptor;
  dev_t device;
  ino_t inode;
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

void ForkGuard::Add(int descriptor) {
  struct stat status {};
  fstat(descriptor, &status);
  Registry::Instance().files.push_back({descriptor, status.st_dev, status.st_ino, getpid()});
}

void ForkGuard::Remove(int descriptor) noexcept {
  std::erase_if(Registry::Instance().files,
                [&](const LockFile& file) { return !file.inherited && file.descriptor == descriptor; });
}

std::optional<pid_t> ForkGuard::InheritedFrom(const std::filesystem::path& file) const {
  struct stat status {};
  if (stat(file.c_str(), &status) != 0) return std::nullopt;
  for (const LockFile& each : Registry::Instance().files) {
    const bool isSame = each.device == status.st_dev && each.inode == status.st_ino;
    if (isSame && each.inherited) return each.process;
  }
  return std::nullopt;
}

}  // namespace veld_report::host
