#include "tests/host/faulty_vfs.h"

#include <sqlite3.h>

#include <atomic>
#include <cstring>

namespace veld_report::tests {
namespace {

struct Plan {
  std::atomic<FaultyVfs::Operation> operation{FaultyVfs::Operation::kNone};
  std::atomic<std::int64_t> number{0};
  std::atomic<bool> onwards{false};
  std::atomic<std::int64_t> count{0};
  std::atomic<std::int64_t> failures{0};
};
Plan plan;
sqlite3_vfs vfs;

bool Fails(FaultyVfs::Operation operation) {
  if (plan.operation != operation) return false;
  const std::int64_t count = ++plan.count;
  if (count != plan.number && !(plan.onwards && count > plan.number)) return false;
  ++plan.failures;
  return true;
}

struct File {
  sqlite3_file base;
  sqlite3_file* real;  // right behind this structure
};

sqlite3_file* Real(sqlite3_file* file) { return reinterpret_cast<File*>(file)->real; }

int Close(sqlite3_file* file) { return Real(file)->pMethods->xClose(Real(file)); }
int Read(sqlite3_file* file, void* buffer, int count, sqlite3_int64 offset) {
  if (Fails(FaultyVfs::Operation::kRead)) return SQLITE_IOERR_READ;
  return Real(file)->pMethods->xRead(Real(file), buffer, count, offset);
}
int Write(sqlite3_file* file, const void* buffer, int count, sqlite3_int64 offset) {
  if (Fails(FaultyVfs::Operation::kWrite)) {
    // As a full disk does it: a part is written.
    Real(file)->pMethods->xWrite(Real(file), buffer, count / 2, offset);
    return SQLITE_FULL;
  }
  return Real(file)->pMethods->xWrite(Real(file), buffer, count, offset);
}
int Truncate(sqlite3_file* file, sqlite3_int64 size) {
  if (Fails(FaultyVfs::Operation::kTruncate)) return SQLITE_IOERR_TRUNCATE;
  return Real(file)->pMethods->xTruncate(Real(file), size);
}
int Sync(sqlite3_file*, int) { return Fails(FaultyVfs::Operation::kSync) ? SQLITE_IOERR_FSYNC : SQLITE_OK; }
int FileSize(sqlite3_file* file, sqlite3_int64* size) {
  return Real(file)->pMethods->xFileSize(Real(file), size);
}
int Lock(sqlite3_file* file, int lock) { return Real(file)->pMethods->xLock(Real(file), lock); }
int Unlock(sqlite3_file* file, int lock) { return Real(file)->pMethods->xUnlock(Real(file), lock); }
int CheckReservedLock(sqlite3_file* file, int* out) {
  return Real(file)->pMethods->xCheckReservedLock(Real(file), out);
}
int FileControl(sqlite3_file* file, int operation, void* argument) {
  return Real(file)->pMethods->xFileControl(Real(file), operation, argument);
}
int SectorSize(sqlite3_file* file) { return Real(file)->pMethods->xSectorSize(Real(file)); }
int DeviceCharacteristics(sqlite3_file* file) {
  return Real(file)->pMethods->xDeviceCharacteristics(Real(file));
}
int ShmMap(sqlite3_file* file, int page, int size, int extend, void volatile** out) {
  return Real(file)->pMethods->xShmMap(Real(file), page, size, extend, out);
}
int ShmLock(sqlite3_file* file, int offset, int count, int flags) {
  return Real(file)->pMethods->xShmLock(Real(file), offset, count, flags);
}
void ShmBarrier(sqlite3_file* file) { Real(file)->pMethods->xShmBarrier(Real(file)); }
int ShmUnmap(sqlite3_file* file, int remove) { return Real(file)->pMethods->xShmUnmap(Real(file), remove); }

constexpr sqlite3_io_methods methods = {2,
                                        Close,
                                        Read,
                                        Write,
                                        Truncate,
                                        Sync,
                                        FileSize,
                                        Lock,
                                        Unlock,
                                        CheckReservedLock,
                                        FileControl,
                                        SectorSize,
                                        DeviceCharacteristics,
                                        ShmMap,
                                        ShmLock,
                                        ShmBarrier,
                                        ShmUnmap,
                                        nullptr,
                                        nullptr};

int Open(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
  auto* faulty = reinterpret_cast<File*>(file);
  std::memset(faulty, 0, sizeof *faulty);
  faulty->real = reinterpret_cast<sqlite3_file*>(faulty + 1);
  auto* original = static_cast<sqlite3_vfs*>(vfs.pAppData);
  const int code = original->xOpen(original, name, faulty->real, flags, outFlags);
  if (faulty->real->pMethods) faulty->base.pMethods = &methods;
  return code;
}

int Delete(sqlite3_vfs*, const char* name, int) {
  auto* original = static_cast<sqlite3_vfs*>(vfs.pAppData);
  return original->xDelete(original, name, 0);
}

}  // namespace

void FaultyVfs::Register() {
  if (sqlite3_vfs_find(name)) return;
  sqlite3_vfs* const original = sqlite3_vfs_find(nullptr);
  vfs = *original;
  vfs.zName = name;
  vfs.pNext = nullptr;
  vfs.pAppData = original;
  vfs.szOsFile = static_cast<int>(sizeof(File)) + original->szOsFile;
  vfs.xOpen = Open;
  vfs.xDelete = Delete;
  sqlite3_vfs_register(&vfs, 0);
}

void FaultyVfs::FailAt(Operation operation, std::int64_t number, bool onwards) {
  plan.operation = Operation::kNone;
  plan.number = number;
  plan.onwards = onwards;
  plan.count = 0;
  plan.failures = 0;
  plan.operation = operation;
}

void FaultyVfs::Heal() { plan.operation = Operation::kNone; }

std::int64_t FaultyVfs::Failures() { return plan.failures; }

}  // namespace veld_report::tests
