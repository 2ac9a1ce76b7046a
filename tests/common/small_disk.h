// A disk that a test can fill: a tmpfs of its own, for as long as the object lives.
#pragma once

#ifndef _WIN32
#include <sys/mount.h>
#endif

#include <filesystem>
#include <string>

#include "tests/common/files.h"

namespace veld_report::tests {

class SmallDisk {
 public:
  explicit SmallDisk(const std::filesystem::path& folder, const char* size)
      : folder_(folder), ballast_(folder / "ballast") {
    std::filesystem::create_directory(folder);
#ifdef _WIN32
    static_cast<void>(size);
#else
    isMounted_ = mount("tmpfs", folder.c_str(), "tmpfs", 0, (std::string("size=") + size).c_str()) == 0;
#endif
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;
  ~SmallDisk() {
#ifndef _WIN32
    if (isMounted_) umount2(folder_.c_str(), MNT_DETACH);
#endif
  }

  // False if this user can't mount one, or the system can't. Then the folder is an ordinary one.
  bool IsMounted() const { return isMounted_; }
  void FillButFor(std::uintmax_t bytes) const {
    WriteFile(ballast_, std::string(std::filesystem::space(folder_).available - bytes, 'b'));
  }
  void MakeRoom() const { std::filesystem::remove(ballast_); }

 private:
  const std::filesystem::path folder_, ballast_;
  bool isMounted_ = false;
};

}  // namespace veld_report::tests
