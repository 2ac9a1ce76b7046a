// The built program as a process of its own, without a shell in between.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace veld_report::app_test {

// Life: running from the constructor -> ended (Wait has returned). The destructor kills what still runs.
class Program {
 public:
  // Starts veldrep with these arguments. Its output goes to files in a folder of its own.
  explicit Program(const std::vector<std::string>& arguments);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  void Feed(std::string_view text);  // to stdin
  void EndInput();
  void Signal(int number);
  // Ends the input, waits for at most a minute and returns the exit code; -signal if a signal ended it.
  int Wait();
  std::string Output() const;
  std::string Errors() const;

 private:
  pid_t process_ = -1;
  int input_ = -1;
  std::filesystem::path folder_;
};

struct Result {
  int exitCode;
  std::string output, errors;
};

// From start to end.
Result Veldrep(const std::vector<std::string>& arguments, std::string_view input = {});

// Whether the condition came true within ten seconds.
bool Eventually(const std::function<bool()>& condition);

// A veldrep serve on a free port of 127.0.0.1, or on the given one.
class Server {
 public:
  explicit Server(const std::filesystem::path& out, const std::vector<std::string>& more = {}, int port = 0);
  const std::string& Url() const { return url_; }
  int Port() const;
  Program& Process() { return program_; }

 private:
  Program program_;
  std::string url_;
};

// A folder that goes with the object.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  std::string operator/(std::string_view name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

std::string ReadFile(const std::filesystem::path& path);
void WriteFile(const std::filesystem::path& path, std::string_view text);
std::vector<std::string> Lines(std::string_view text);

}  // namespace veld_report::app_test
