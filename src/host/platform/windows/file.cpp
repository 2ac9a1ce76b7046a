#include "host/platform/file.h"

#include <aclapi.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <utility>

#include "host/platform/windows/wide.h"

namespace veld_report::host {
namespace {

// The lock is on one byte beyond any content, so that who can't lock the file can still read it.
constexpr DWORD lockOffsetHigh = 0x7fffffff;

void Set(std::error_code* error, std::error_code value) noexcept {
  if (error) *error = value;
}

struct Freed {
  void operator()(void* memory) const { LocalFree(memory); }
};
template <class Type>
using Local = std::unique_ptr<Type, Freed>;

// Access for this user and the system alone, which nothing inherits from its folder.
class OwnerOnly {
 public:
  OwnerOnly() {
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return;
    const bool known = GetTokenInformation(token, TokenUser, user_, sizeof user_, &userBytes_) != 0;
    CloseHandle(token);
    DWORD systemBytes = sizeof system_;
    if (!known || !CreateWellKnownSid(WinLocalSystemSid, nullptr, system_, &systemBytes)) return;
    EXPLICIT_ACCESSW entries[2]{};
    PSID const owners[] = {reinterpret_cast<TOKEN_USER*>(user_)->User.Sid, system_};
    for (int i = 0; i < 2; ++i) {
      entries[i].grfAccessPermissions = GENERIC_ALL;
      entries[i].grfAccessMode = SET_ACCESS;
      entries[i].grfInheritance = SUB_CONTAINERS_AND_OBJECTS_INHERIT;
      entries[i].Trustee.TrusteeForm = TRUSTEE_IS_SID;
      entries[i].Trustee.ptstrName = static_cast<LPWSTR>(owners[i]);
    }
    ACL* list = nullptr;
    if (SetEntriesInAclW(2, entries, nullptr, &list) != ERROR_SUCCESS) return;
    list_.reset(list);
    InitializeSecurityDescriptor(&descriptor_, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorDacl(&descriptor_, TRUE, list, FALSE);
    SetSecurityDescriptorControl(&descriptor_, SE_DACL_PROTECTED, SE_DACL_PROTECTED);
    attributes_ = {sizeof attributes_, &descriptor_, FALSE};
    isKnown_ = true;
  }
  // Both are null if the system doesn't say who this user is; then the folder's rights apply.
  SECURITY_DESCRIPTOR* Descriptor() { return isKnown_ ? &descriptor_ : nullptr; }
  SECURITY_ATTRIBUTES* Attributes() { return isKnown_ ? &attributes_ : nullptr; }
  // Whether that is this user, the system or its administrators.
  bool Has(PSID who) const {
    return EqualSid(who, reinterpret_cast<const TOKEN_USER*>(user_)->User.Sid) ||
           IsWellKnownSid(who, WinLocalSystemSid) || IsWellKnownSid(who, WinBuiltinAdministratorsSid);
  }

 private:
  alignas(TOKEN_USER) std::byte user_[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
  DWORD userBytes_ = 0;
  std::byte system_[SECURITY_MAX_SID_SIZE];
  Local<ACL> list_;
  SECURITY_DESCRIPTOR descriptor_{};
  SECURITY_ATTRIBUTES attributes_{};
  bool isKnown_ = false;
};

DWORD DispositionOf(File::Mode mode) noexcept {
  switch (mode) {
    case File::Mode::writeExisting:
      return OPEN_EXISTING;
    case File::Mode::write:
      return OPEN_ALWAYS;
    case File::Mode::replace:
      return OPEN_ALWAYS;  // CREATE_ALWAYS fails for hidden files
    case File::Mode::makeNew:
      return CREATE_NEW;
    case File::Mode::appendExisting:
      return OPEN_EXISTING;
    case File::Mode::append:
      return OPEN_ALWAYS;
  }
  return OPEN_EXISTING;
}

bool IsAppending(File::Mode mode) noexcept {
  return mode == File::Mode::append || mode == File::Mode::appendExisting;
}

FileStatus StatusOf(const BY_HANDLE_FILE_INFORMATION& info) noexcept {
  const auto joined = [](DWORD high, DWORD low) { return std::uint64_t{high} << 32 | low; };
  const auto ticks =
      joined(info.ftLastWriteTime.dwHighDateTime, info.ftLastWriteTime.dwLowDateTime);  // 100 ns each
  constexpr DWORD irregular = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DEVICE;
  return {joined(info.nFileSizeHigh, info.nFileSizeLow),
          static_cast<std::int64_t>(ticks) * 100,
          {info.dwVolumeSerialNumber, joined(info.nFileIndexHigh, info.nFileIndexLow)},
          (info.dwFileAttributes & irregular) == 0};
}

std::optional<FileStatus> StatusOf(HANDLE file) noexcept {
  BY_HANDLE_FILE_INFORMATION info{};
  if (!GetFileInformationByHandle(file, &info)) return std::nullopt;
  return StatusOf(info);
}

std::optional<FileStatus> StatusOf(const std::filesystem::path& path, DWORD flags) noexcept {
  try {
    const HANDLE file = CreateFileW(LongPath(path).c_str(), FILE_READ_ATTRIBUTES, shareAll, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | flags, nullptr);
    if (file == INVALID_HANDLE_VALUE) return std::nullopt;
    const auto status = StatusOf(file);
    CloseHandle(file);
    return status;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

OVERLAPPED At(std::uint64_t offset) noexcept {
  OVERLAPPED place{};
  place.Offset = static_cast<DWORD>(offset);
  place.OffsetHigh = static_cast<DWORD>(offset >> 32);
  return place;
}

DWORD Piece(std::size_t bytes) noexcept { return static_cast<DWORD>(std::min<std::size_t>(bytes, 1U << 30)); }

bool Lock(HANDLE file, File::Lock kind) noexcept {
  OVERLAPPED place{};
  place.OffsetHigh = lockOffsetHigh;
  const DWORD flags =
      LOCKFILE_FAIL_IMMEDIATELY | (kind == File::Lock::exclusive ? LOCKFILE_EXCLUSIVE_LOCK : 0);
  return LockFileEx(file, flags, 0, 1, 0, &place) != 0;
}

}  // namespace

FileIdentity FileIdentity::Of(const std::filesystem::path& file) noexcept {
  const auto status = StatusOf(file, 0);
  return status ? status->identity : FileIdentity{};
}

std::optional<FileStatus> FileStatus::Of(const std::filesystem::path& path) noexcept {
  return StatusOf(path, FILE_FLAG_OPEN_REPARSE_POINT);
}

File::File(File&& other) noexcept : handle_(std::exchange(other.handle_, none)), lock_(other.lock_) {}

File& File::operator=(File&& other) noexcept {
  std::swap(handle_, other.handle_);
  std::swap(lock_, other.lock_);
  return *this;
}

File File::Open(const std::filesystem::path& path, Mode mode, std::error_code* error) noexcept {
  File file = OpenAsItIs(path, mode, false, error);
  if (file) RestrictToOwner(path);
  return file;
}

File File::OpenAsItIs(const std::filesystem::path& path, Mode mode, bool isPublic,
                      std::error_code* error) noexcept {
  try {
    OwnerOnly owner;
    const DWORD access = IsAppending(mode) ? FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE
                                           : GENERIC_READ | GENERIC_WRITE;
    const HANDLE handle =
        CreateFileW(LongPath(path).c_str(), access, shareAll, isPublic ? nullptr : owner.Attributes(),
                    DispositionOf(mode), FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
      Set(error, LastError());
      return File();
    }
    File file(handle);
    const auto status = StatusOf(handle);
    if (status && !status->isRegular) {
      Set(error, std::make_error_code(std::errc::too_many_symbolic_link_levels));
      return File();
    }
    if (mode == Mode::replace && !file.Truncate(0)) {
      Set(error, LastError());
      return File();
    }
    Set(error, {});
    return file;
  } catch (const std::exception&) {
    Set(error, std::make_error_code(std::errc::not_enough_memory));
    return File();
  }
}

File File::StandardError() noexcept { return File(GetStdHandle(STD_ERROR_HANDLE)); }

void File::Close() noexcept {
  if (handle_ != none) CloseHandle(std::exchange(handle_, none));
  lock_.reset();
}

std::size_t File::Write(std::string_view bytes, std::error_code* error) noexcept {
  std::size_t done = 0;
  Set(error, {});
  while (done < bytes.size()) {
    DWORD written = 0;
    const bool isWritten =
        WriteFile(handle_, bytes.data() + done, Piece(bytes.size() - done), &written, nullptr) != 0;
    if (!isWritten) Set(error, LastError());
    if (!isWritten || written == 0) break;
    done += written;
  }
  return done;
}

bool File::WriteAt(std::string_view bytes, std::uint64_t offset) noexcept {
  OVERLAPPED place = At(offset);
  DWORD written = 0;
  return WriteFile(handle_, bytes.data(), Piece(bytes.size()), &written, &place) && written == bytes.size();
}

std::size_t File::ReadAt(std::span<char> bytes, std::uint64_t offset) const noexcept {
  OVERLAPPED place = At(offset);
  DWORD length = 0;
  return ReadFile(handle_, bytes.data(), Piece(bytes.size()), &length, &place) ? length : 0;
}

bool File::Truncate(std::uint64_t bytes) noexcept {
  FILE_END_OF_FILE_INFO end{};
  end.EndOfFile.QuadPart = static_cast<LONGLONG>(bytes);
  return SetFileInformationByHandle(handle_, FileEndOfFileInfo, &end, sizeof end) != 0;
}

bool File::Sync(std::error_code* error) noexcept {
  const bool synced = FlushFileBuffers(handle_) != 0;
  Set(error, synced ? std::error_code() : LastError());
  return synced;
}

// Windows gives a file that isn't sparse its room when its end is set.
bool File::Reserve(std::uint64_t bytes) noexcept { return Truncate(bytes); }

std::uint64_t File::Size() const noexcept {
  const auto status = StatusOf(handle_);
  return status ? status->bytes : 0;
}

FileIdentity File::Identity() const noexcept {
  const auto status = StatusOf(handle_);
  return status ? status->identity : FileIdentity{};
}

// A lock can't change its kind. Between the two somebody else may take it, as on other systems.
bool File::TryLock(Lock kind, std::error_code* error) noexcept {
  const std::optional<Lock> former = lock_;
  Unlock();
  if (host::Lock(handle_, kind)) {
    lock_ = kind;
    Set(error, {});
    return true;
  }
  const DWORD reason = GetLastError();
  const bool isHeld = reason == ERROR_LOCK_VIOLATION || reason == ERROR_IO_PENDING;
  Set(error, isHeld ? std::error_code() : std::error_code(static_cast<int>(reason), std::system_category()));
  if (former && host::Lock(handle_, *former)) lock_ = former;
  return false;
}

void File::Unlock() noexcept {
  if (!lock_) return;
  OVERLAPPED place{};
  place.OffsetHigh = lockOffsetHigh;
  UnlockFileEx(handle_, 0, 1, 0, &place);
  lock_.reset();
}

std::error_code ReadProblem(const std::filesystem::path& file) noexcept {
  try {
    const HANDLE handle = CreateFileW(LongPath(file).c_str(), GENERIC_READ, shareAll, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_BACKUP_SEMANTICS, nullptr);  // a folder too
    if (handle == INVALID_HANDLE_VALUE) return LastError();
    CloseHandle(handle);
    return {};
  } catch (const std::exception&) {
    return std::make_error_code(std::errc::not_enough_memory);
  }
}

std::string WhyOthersCanRead(const std::filesystem::path& file) {
  OwnerOnly owner;
  ACL* list = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD failed =
      GetNamedSecurityInfoW(LongPath(file).c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                            nullptr, &list, nullptr, &descriptor);
  const Local<void> freed(descriptor);
  if (failed != ERROR_SUCCESS || !owner.Descriptor()) return {};
  bool others = !list;  // without a list everybody may
  for (DWORD i = 0; list && i < list->AceCount; ++i) {
    void* entry = nullptr;
    if (!GetAce(list, i, &entry)) continue;
    auto* const allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
    const bool reads = (allowed->Mask & (FILE_READ_DATA | GENERIC_READ | GENERIC_ALL)) != 0;
    if (allowed->Header.AceType == ACCESS_ALLOWED_ACE_TYPE && reads && !owner.Has(&allowed->SidStart))
      others = true;
  }
  return others ? "(its access list lets them); leave only its owner and the system in it" : "";
}

// The name of a file that others have open stays taken until they close it. So it gets another one first.
bool RemoveFile(const std::filesystem::path& file) noexcept {
  static constinit std::atomic<unsigned> count{0};  // each number once, whatever the order
  if (IsFolder(file)) return false;
  try {
    const std::wstring path = LongPath(file);
    const std::wstring parting =
        path + L".gone-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++count);
    const bool moved = MoveFileExW(path.c_str(), parting.c_str(), MOVEFILE_REPLACE_EXISTING) != 0;
    if (!moved && (GetLastError() == ERROR_FILE_NOT_FOUND || GetLastError() == ERROR_PATH_NOT_FOUND))
      return true;
    const bool deleted = DeleteFileW((moved ? parting : path).c_str()) != 0;
    return moved || deleted;
  } catch (const std::exception&) {
    return false;
  }
}

std::error_code MakePrivateFolder(const std::filesystem::path& folder) noexcept {
  try {
    OwnerOnly owner;
    return CreateDirectoryW(LongPath(folder).c_str(), owner.Attributes()) ? std::error_code() : LastError();
  } catch (const std::exception&) {
    return std::make_error_code(std::errc::not_enough_memory);
  }
}

void RestrictToOwner(const std::filesystem::path& file) noexcept {
  try {
    OwnerOnly owner;
    if (!owner.Descriptor()) return;
    // Fails for a file of another owner, whose choice then stands. SetNamedSecurityInfo of Wine would let the
    // file inherit from its folder all the same.
    SetFileSecurityW(LongPath(file).c_str(), DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                     owner.Descriptor());
  } catch (const std::exception&) {
    return;
  }
}

// The system's file system keeps its folders by a journal.
void SyncFolder(const std::filesystem::path&) noexcept {}

std::optional<std::uint64_t> FreeBytes(const std::filesystem::path& folder) noexcept {
  try {
    ULARGE_INTEGER bytes{};
    if (!GetDiskFreeSpaceExW(LongPath(folder).c_str(), &bytes, nullptr, nullptr)) return std::nullopt;
    return bytes.QuadPart;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace veld_report::host
