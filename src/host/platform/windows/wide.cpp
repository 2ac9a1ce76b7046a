#include "host/platform/windows/wide.h"

namespace veld_report::host {

std::wstring Wide(std::string_view text) {
  const int bytes = static_cast<int>(text.size());
  std::wstring wide(text.size(), L'\0');  // never longer than in UTF-8
  if (bytes > 0) {
    const int length = MultiByteToWideChar(CP_UTF8, 0, text.data(), bytes, wide.data(), bytes);
    wide.resize(static_cast<std::size_t>(length));
  }
  return wide;
}

std::string Narrow(std::wstring_view text) {
  constexpr int maxBytesPerUnit = 3;
  const int units = static_cast<int>(text.size());
  std::string narrow(text.size() * maxBytesPerUnit, '\0');
  if (units > 0) {
    const int length = WideCharToMultiByte(CP_UTF8, 0, text.data(), units, narrow.data(),
                                           static_cast<int>(narrow.size()), nullptr, nullptr);
    narrow.resize(static_cast<std::size_t>(length));
  }
  return narrow;
}

std::wstring FullPath(const std::filesystem::path& path) {
  // std::filesystem::absolute isn't enough: libstdc++ takes \\server for a folder of the present drive, and
  // leaves dots in paths that are absolute already.
  const std::wstring text = std::filesystem::path(path).make_preferred().wstring();
  if (text.starts_with(longPrefix)) return text;
  std::wstring full(GetFullPathNameW(text.c_str(), 0, nullptr, nullptr), L'\0');
  const DWORD size = static_cast<DWORD>(full.size());
  const DWORD length = GetFullPathNameW(text.c_str(), size, full.data(), nullptr);
  if (length == 0 || length >= size) return text;  // it doesn't say, or the working folder changed meanwhile
  full.resize(length);
  return full;
}

std::wstring LongPath(const std::filesystem::path& path) {
  std::wstring text = FullPath(path);
  // Nothing, devices ("\\.\NUL") and what has the prefix already.
  if (text.empty() || text.starts_with(longPrefix) || text.starts_with(LR"(\\.\)")) return text;
  if (text.starts_with(LR"(\\)")) return std::wstring(longSharePrefix) + text.substr(2);
  return std::wstring(longPrefix) + text;
}

}  // namespace veld_report::host
