// The built veldrep, run to its end or serving beside a test. Its path is in VELDREP_PATH.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tests/common/program.h"
#include "tests/common/waiting.h"

namespace veld_report::tests {

using Arguments = std::vector<std::string>;

inline Arguments With(Arguments all, const Arguments& more) {
  all.insert(all.end(), more.begin(), more.end());
  return all;
}

// From start to end.
inline ProgramResult Veldrep(const Arguments& arguments, std::string_view input = {}) {
  return RunProgram(With({VELDREP_PATH}, arguments), input);
}

// A veldrep serve that is ready. Without --listen among the arguments it has a free port of 127.0.0.1.
class Server : public Program {
 public:
  explicit Server(const Arguments& arguments, const std::string& workingFolder = {})
      : Program(With({VELDREP_PATH, "serve"}, arguments), workingFolder) {
    if (!Eventually([this] { return Output().ends_with("\n"); }))
      throw std::runtime_error("serve doesn't get ready: " + Errors());
    const std::string output = Output();
    url_ = output.substr(output.find("http"), output.find('\n') - output.find("http"));
  }
  const std::string& Url() const { return url_; }
  // As --listen takes it.
  std::string Address() const { return url_.substr(url_.find("://") + 3); }

 private:
  std::string url_;
};

}  // namespace veld_report::tests
