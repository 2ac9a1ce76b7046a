// The built veldrep, run to its end or serving beside a test.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "tests/common/program.h"

namespace veld_report::app_test {

// The program's path and these arguments.
std::vector<std::string> VeldrepArguments(const std::vector<std::string>& arguments);

// From start to end.
tests::ProgramResult Veldrep(const std::vector<std::string>& arguments, std::string_view input = {});

// A veldrep serve on a free port of 127.0.0.1, or on the given one.
class Server {
 public:
  explicit Server(const std::filesystem::path& out, const std::vector<std::string>& more = {}, int port = 0);
  const std::string& Url() const { return url_; }
  int Port() const;
  tests::Program& Process() { return program_; }

 private:
  tests::Program program_;
  std::string url_;
};

}  // namespace veld_report::app_test
