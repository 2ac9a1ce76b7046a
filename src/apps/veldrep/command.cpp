#include "apps/veldrep/command.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>

namespace veld_report::app {

void Complain(const std::string& line) {
  const std::string text = "veldrep: " + line + "\n";
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

void CheckStoreAccess(const std::string& path) {
  if (access(path.c_str(), R_OK) == 0 || errno != EACCES) return;
  throw Failure(path, "Permission denied; only its owner can read a store, so run this as that user");
}

std::string ReadWhole(const std::string& path, std::size_t limitBytes) {
  const bool isStdin = path == "-";
  const std::unique_ptr<FILE, int (*)(FILE*)> file(
      isStdin ? fdopen(dup(STDIN_FILENO), "rb") : std::fopen(path.c_str(), "rb"),
      [](FILE* each) { return each ? std::fclose(each) : 0; });
  const std::string name = isStdin ? "stdin" : path;
  if (!file) throw Failure(name, "can't be opened: " + std::generic_category().message(errno));
  std::string text;
  char block[65536];
  while (const std::size_t length = std::fread(block, 1, sizeof(block), file.get())) {
    text.append(block, length);
    if (text.size() > limitBytes)
      throw Failure(name, "is larger than " + std::to_string(limitBytes >> 20) + " MiB");
  }
  if (std::ferror(file.get()))
    throw Failure(name, "can't be read: " + std::generic_category().message(errno));
  return text;
}

}  // namespace veld_report::app
