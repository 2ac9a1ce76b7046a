// A folder for one test, removed with the object.
#pragma once

#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>

namespace veld_report::tests {

class TemporaryFolder {
 public:
  explicit TemporaryFolder(const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
    path_ = parent / ("veld_test." + std::to_string(std::random_device()()));
    if (!std::filesystem::create_directory(path_))
      throw std::runtime_error("can't make a folder for the test: " + path_.string());
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  const std::filesystem::path& Path() const { return path_; }
  std::string operator/(std::string_view name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

}  // namespace veld_report::tests
