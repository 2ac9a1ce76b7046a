#include "tests/app/veldrep.h"

#include <cstdlib>
#include <stdexcept>

#include "tests/common/waiting.h"

namespace veld_report::app_test {
namespace {

std::vector<std::string> ServeArguments(const std::filesystem::path& out,
                                        const std::vector<std::string>& more, int port) {
  std::vector<std::string> arguments = {"serve", "--out", out, "--listen",
                                        "127.0.0.1:" + std::to_string(port)};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return VeldrepArguments(arguments);
}

}  // namespace

std::vector<std::string> VeldrepArguments(const std::vector<std::string>& arguments) {
  std::vector<std::string> all = {VELDREP_PATH};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return all;
}

tests::ProgramResult Veldrep(const std::vector<std::string>& arguments, std::string_view input) {
  return tests::RunProgram(VeldrepArguments(arguments), input);
}

Server::Server(const std::filesystem::path& out, const std::vector<std::string>& more, int port)
    : program_(ServeArguments(out, more, port)) {
  const std::string announcement = "listening on ";
  if (!tests::Eventually([&] { return program_.Output().ends_with("\n"); })) {
    throw std::runtime_error("serve doesn't get ready: " + program_.Errors());
  }
  url_ = program_.Output().substr(announcement.size());
  url_.pop_back();
}

int Server::Port() const { return std::atoi(url_.c_str() + url_.rfind(':') + 1); }

}  // namespace veld_report::app_test
