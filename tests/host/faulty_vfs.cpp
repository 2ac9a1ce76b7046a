#include "tests/host/faulty_vfs.h"

#include <sqlite3.h>

#include <limits>
#include <map>
#include <mutex>

namespace veld_report::tests {
namespace {

using Operation = FaultyVfs::Operation;
std::atomic<std::int64_t> firstToFail{0};
std::atomic<std::int64_t> lastToFail{0};
std::atomic<std::int64_t> count{0};

bool Fails(Operation operation) {
  if (FaultyVfs::failing != operation) return false;
  const std::int64_t number = ++count;
  if (number < firstToFail || number > lastToFail) return false;
  ++FaultyVfs::failures;
  return true;
}

int Tell(int code, FaultyVfs::Event event, const sqlite3_file* file, std::int64_t offset,
         std::string_view text) {
  if (code == SQLITE_OK && FaultyVfs::observer) FaultyVfs::observer(event, file, offset, text);
  return code;
}

// The methods of one kind of file: those of the default VFS with the ones below put in.
struct Methods : sqlite3_io_methods {
  const sqlite3_io_methods* original;
};
const sqlite3_io_methods& Original(sqlite3_file* file) {
  return *static_cast<const Methods*>(file->pMethods)->original;
}

// Fails or hands on.
template <Operation operation, auto method, int error, class... Arguments>
int Call(sqlite3_file* file, Arguments... arguments) {
  return Fails(operation) ? error : (Original(file).*method)(file, arguments...);
}
int Write(sqlite3_file* file, const void* buffer, int bytes, sqlite3_int64 offset) {
  if (Fails(Operation::write)) {
    // As a full disk does it: a part is written.
    Original(file).xWrite(file, buffer, bytes / 2, offset);
    return SQLITE_FULL;
  }
  const std::string_view written(static_cast<const char*>(buffer), static_cast<std::size_t>(bytes));
  return Tell(Original(file).xWrite(file, buffer, bytes, offset), FaultyVfs::Event::write, file, offset,
              written);
}
int Truncate(sqlite3_file* file, sqlite3_int64 size) {
  if (Fails(Operation::truncate)) return SQLITE_IOERR_TRUNCATE;
  return Tell(Original(file).xTruncate(file, size), FaultyVfs::Event::truncate, file, size, {});
}
int Sync(sqlite3_file* file, int) {
  if (Fails(Operation::sync)) return SQLITE_IOERR_FSYNC;
  return Tell(SQLITE_OK, FaultyVfs::Event::sync, file, 0, {});
}
int ShmLock(sqlite3_file* file, int offset, int places, int flags) {
  // Giving a lock back can't fail.
  if ((flags & SQLITE_SHM_LOCK) != 0 && Fails(Operation::shmLock)) return SQLITE_IOERR_SHMLOCK;
  return Original(file).xShmLock(file, offset, places, flags);
}

sqlite3_vfs* original = nullptr;
sqlite3_vfs vfs;

const Methods* WithFaults(const sqlite3_io_methods* methods) {
  static std::mutex mutex;
  static std::map<const sqlite3_io_methods*, Methods> known;
  const std::lock_guard lock(mutex);
  const auto [entry, isNew] = known.try_emplace(methods, Methods{*methods, methods});
  if (isNew) {
    using File = sqlite3_io_methods;
    Methods& faulty = entry->second;
    faulty.xRead = Call<Operation::read, &File::xRead, SQLITE_IOERR_READ>;
    faulty.xWrite = Write;
    faulty.xTruncate = Truncate;
    faulty.xSync = Sync;
    faulty.xFileSize = Call<Operation::size, &File::xFileSize, SQLITE_IOERR_FSTAT>;
    faulty.xLock = Call<Operation::lock, &File::xLock, SQLITE_IOERR_LOCK>;
    if (faulty.iVersion >= 2) {
      // The memory that the connections of a store share beside its log.
      faulty.xShmMap = Call<Operation::map, &File::xShmMap, SQLITE_IOERR_SHMMAP>;
      faulty.xShmLock = ShmLock;
    }
  }
  return &entry->second;
}

int Open(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
  if (Fails(Operation::open)) {
    file->pMethods = nullptr;
    return SQLITE_CANTOPEN;
  }
  const int code = original->xOpen(original, name, file, flags, outFlags);
  if (file->pMethods) file->pMethods = WithFaults(file->pMethods);
  return Tell(code, FaultyVfs::Event::open, file, 0, name ? name : "");
}
int Delete(sqlite3_vfs*, const char* name, int) {
  if (Fails(Operation::remove)) return SQLITE_IOERR_DELETE;
  Tell(SQLITE_OK, FaultyVfs::Event::remove, nullptr, 0, name);
  return original->xDelete(original, name, 0);
}
int Access(sqlite3_vfs*, const char* name, int flags, int* result) {
  return Fails(Operation::access) ? SQLITE_IOERR_ACCESS : original->xAccess(original, name, flags, result);
}

}  // namespace

void FaultyVfs::Register() {
  if (original) return;
  original = sqlite3_vfs_find(nullptr);
  vfs = *original;
  vfs.zName = name;
  vfs.pNext = nullptr;
  vfs.xOpen = Open;
  vfs.xDelete = Delete;
  vfs.xAccess = Access;
  sqlite3_vfs_register(&vfs, 0);
}

void FaultyVfs::SetDefault(bool isDefault) {
  Register();
  sqlite3_vfs_register(isDefault ? &vfs : original, 1);
}

void FaultyVfs::FailAt(Operation operation, std::int64_t at, bool onwards) {
  Heal();
  firstToFail = at;
  lastToFail = onwards ? std::numeric_limits<std::int64_t>::max() : at;
  count = 0;
  failures = 0;
  failing = operation;
}

}  // namespace veld_report::tests
