// Whose a file is, and when it was changed, for the tests of what the host kit writes.
#pragma once

#ifdef _WIN32
#include <windows.h>
// Needs the names of windows.h.
#include <aclapi.h>
#endif

#include <filesystem>

namespace veld_report::tests {

#ifdef _WIN32
// The owner and the system have an entry each that allows everything, and nobody else has one.
inline bool IsPrivate(const std::filesystem::path& file) {
  PSID owner = nullptr;
  PACL list = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (GetNamedSecurityInfoW(file.c_str(), SE_FILE_OBJECT,
                            OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &owner, nullptr, &list,
                            nullptr, &descriptor) != ERROR_SUCCESS)
    return false;
  int owners = 0, systems = 0, others = 0;
  for (DWORD i = 0; list && i < list->AceCount; ++i) {
    void* entry = nullptr;
    GetAce(list, i, &entry);
    auto* const allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
    PSID const who = &allowed->SidStart;
    const bool isWhole =
        allowed->Header.AceType == ACCESS_ALLOWED_ACE_TYPE && allowed->Mask == FILE_ALL_ACCESS;
    ++(isWhole && EqualSid(who, owner)                     ? owners
       : isWhole && IsWellKnownSid(who, WinLocalSystemSid) ? systems
                                                           : others);
  }
  LocalFree(descriptor);
  return owners == 1 && systems == 1 && others == 0;
}
#else
inline bool IsPrivate(const std::filesystem::path& file) {
  const auto status = std::filesystem::status(file);
  return status.permissions() == std::filesystem::perms(is_directory(status) ? 0700 : 0600);
}
#endif

// Does that without a trace in the file's time.
template <class Change>
void ChangeQuietly(const std::filesystem::path& file, Change&& change) {
#ifdef _WIN32
  // std::filesystem has whole seconds.
  HANDLE const open = CreateFileW(file.c_str(), FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
  FILETIME time{};
  GetFileTime(open, nullptr, nullptr, &time);
  change();
  SetFileTime(open, nullptr, nullptr, &time);
  CloseHandle(open);
#else
  const auto time = std::filesystem::last_write_time(file);
  change();
  std::filesystem::last_write_time(file, time);
#endif
}

}  // namespace veld_report::tests
