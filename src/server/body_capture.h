// BodyCapture keeps the latest refused bodies as files, so that they can be decoded later.
#pragma once

#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>

namespace veld_report::server {

// Threads: any.
class BodyCapture {
 public:
  static constexpr unsigned maxBodies = 16;
  static constexpr std::size_t maxBodyBytes = std::size_t{4} << 20;

  // Creates the folder if it doesn't exist. Throws std::runtime_error with a sentence.
  explicit BodyCapture(const std::filesystem::path& folder);

  // Writes the body to refused-01.body to refused-16.body in turn, in place of an earlier one; only the owner
  // can read it. Returns a phrase for the log: where it is, or why it wasn't kept.
  std::string Keep(std::string_view body);

 private:
  const std::filesystem::path folder_;
  std::mutex mutex_;  // guards the number; held while a file is written
  unsigned kept_ = 0;
};

}  // namespace veld_report::server
