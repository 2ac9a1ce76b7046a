#include "apps/veldrep/command.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <system_error>

#include "host/platform/file.h"
#include "host/platform/input.h"

namespace veld_report::app {

void Complain(const std::string& line) {
  const std::string text = "veldrep: " + line + "\n";
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

void CheckStoreAccess(const std::string& path) {
  if (host::ReadProblem(host::FromUtf8(path)) != std::errc::permission_denied) return;
  throw Failure(path, "Permission denied; only its owner can read a store, so run this as that user");
}

void RefuseFolder(const std::string& path) {
  if (path != "-" && host::IsFolder(host::FromUtf8(path))) throw Failure(path, "is a folder; name a file");
}

std::string ReadWhole(const std::string& path, std::size_t limitBytes) {
  const std::string name = path == "-" ? "stdin" : path;
  RefuseFolder(path);
  const char* failure = "can't be opened: ";
  try {
    host::Input input(path);
    failure = "can't be read: ";
    std::string text;
    char block[65536];
    std::optional<std::size_t> length;
    while ((length = input.Read(block, std::chrono::hours(1))) != 0u) {
      text.append(block, length.value_or(0));
      if (text.size() > limitBytes)
        throw Failure(name, "is larger than " + std::to_string(limitBytes >> 20) + " MiB");
    }
    return text;
  } catch (const std::system_error& error) {
    throw Failure(name, failure + error.code().message());
  }
}

}  // namespace veld_report::app
