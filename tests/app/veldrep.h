// The built veldrep, run to its end or serving beside a test.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tests/common/program.h"

namespace veld_report::app_test {

// These arguments with the program's path before them.
std::vector<std::string> VeldrepArguments(const std::vector<std::string>& arguments);

// From start to end.
tests::ProgramResult Veldrep(const std::vector<std::string>& arguments, std::string_view input = {});

// A veldrep serve that is ready. Without --listen among the arguments it has a free port of 127.0.0.1.
class Server {
 public:
  explicit Server(const std::vector<std::string>& arguments, const std::string& workingFolder = {});
  const std::string& Url() const { return url_; }
  // As --listen takes it.
  std::string Address() const { return url_.substr(std::string_view("http://").size()); }
  tests::Program& Process() { return program_; }

 private:
  tests::Program program_;
  std::string url_;
};

}  // namespace veld_report::app_test
